// The receiver of a streaming install (-stream) on a fuzzer-made image,
// planned against the default layout held in memory: its first reading in
// fuzzer-chosen pieces (seeking behind every body it passes over, or
// reading through as from a server without ranges), the install's checks
// before its critical region and the choice of what is written and what is
// held; then the second reading of the same bytes, or of bytes changed
// between the readings. Writes never happen: the fuzz sandbox's /dev holds
// no partition, so the first partition the second reading opens ends it.
#include <cstdlib>
#include <cstring>
#include <vector>

#include "base/console.h"
#include "base/options.h"
#include "fuzz_check.h"
#include "fuzz_layout.h"
#include "fuzz_split.h"
#include "hostconfig/hostconfig.h"
#include "install/install.h"
#include "install/install_steps.h"

namespace {

korl_data g_layout;  // the default layout with its pools, built once

enum flag_bits : uint8_t {
    NO_RANGES = 1,   // a URL from a server that sends the whole image
    FORCE = 2,
    SET_SHIFT = 2,   // two bits: set 0, 1, 2 (3 counts as 1)
    SMALL_HOLD = 16, // -velksize of 4 KiB
    SEAL_CRCS = 32,
    CHANGED = 64,    // the second reading sees one byte changed
    PRODUCT = 128,   // -product=dev1
};

struct run {
    kor_options opts{};
    install_run steps{};
};

void set_up(run* r, const fuzz::split_input& in)
{
    r->opts.velksize = (in.flags & SMALL_HOLD) ? 4096 : 64 * 1024;
    r->opts.f = (in.flags & FORCE) ? 1 : 0;
    r->opts.stream = 1;
    kor_str_copy(r->opts.product, sizeof r->opts.product, "dev1");
    r->opts.product_set = (in.flags & PRODUCT) ? 1 : 0;
    r->steps.opts = &r->opts;
    r->steps.data = g_layout;
    install_ctx& c = r->steps.ctx;
    install_stream& s = r->steps.stream;
    c.state = INSTALL_STATE_HEADER;
    c.data = &r->steps.data;
    int set = (in.flags >> SET_SHIFT) & 3;
    c.setidx = static_cast<uint8_t>(set == 3 ? 1 : set);
    c.options = &r->opts;
    c.stream = &s;
    c.next_element = -1;
    c.buffer_size = r->opts.velksize;
    c.buffer = static_cast<uint8_t*>(std::calloc(c.buffer_size, 1));
    s.parser = velk_pass_parser_init(nullptr);
    s.file_fd = -1;
    s.sink.fd = -1;
    s.first = s.last = -1;
    s.pass = 1;
    s.url = (in.flags & NO_RANGES) != 0;
    s.size = in.image_size;
    c.range_mode = s.url ? 0 : 1;  // a file always seeks
}

// One reading from s.resume_at: pieces as the source delivers them, each in
// a block of its own; a skip goes on at the offset the receiver asks for.
void read_image(run* r, const fuzz::split_input& in, const uint8_t* image)
{
    install_ctx& c = r->steps.ctx;
    install_stream& s = r->steps.stream;
    fuzz::pieces pieces(in);
    while (s.resume_at < in.image_size) {
        const uint64_t at = s.resume_at;
        uint32_t n = pieces.next(static_cast<uint32_t>(in.image_size - at));
        uint8_t* piece = static_cast<uint8_t*>(std::malloc(n ? n : 1));
        std::memcpy(piece, image + at, n);
        s.resume_at = at + n;
        size_t taken = install_receive(piece, 1, n, &c);
        std::free(piece);
        if (taken == n) continue;
        check(taken == n + 1);
        if (c.state != INSTALL_STATE_SKIP) return;
        check(!s.url && s.resume_at > at);
    }
}

void check_held(const run* r)
{
    const install_ctx& c = r->steps.ctx;
    const install_stream& s = r->steps.stream;
    check(c.buffer_fill <= c.buffer_size && s.count <= static_cast<int32_t>(VELK_MAX_PARTS));
    for (int32_t k = 0; k < s.count; ++k) {
        const auto* h = reinterpret_cast<const uint8_t*>(s.parts[k]);
        check(h >= c.buffer && h + s.parts[k]->hdr_length <= c.buffer + c.buffer_fill);
        check(k == 0 || s.offset[k] > s.offset[k - 1]);
    }
}

// Every element the plan writes has its part read by the second reading or
// held already, and a part written as it arrives goes to that one element.
void check_uses(const run* r)
{
    const install_stream& s = r->steps.stream;
    for (int i = 0; i < KORL_KORM_ELEMENTS; ++i) {
        const korm_element& e = r->steps.ctx.korm[i];
        if (e.action != 1) continue;
        check(e.cidx >= 0 && e.cidx < s.count);
        const stream_use u = s.use[e.cidx];
        check(u != stream_use::skip);
        check(u == stream_use::write ? s.element[e.cidx] == i && !s.held_elements[i] : s.held_elements[i]);
        if (u != stream_use::held) check(s.first <= e.cidx && e.cidx <= s.last);
    }
}

void second_reading(run* r, const fuzz::split_input& in)
{
    install_ctx& c = r->steps.ctx;
    install_stream& s = r->steps.stream;
    if (s.first < 0) return;
    std::vector<uint8_t> image(in.image, in.image + in.image_size);
    if ((in.flags & CHANGED) && !image.empty()) image[in.image_size / 2] ^= 0x10;
    s.pass = 2;
    c.state = INSTALL_STATE_PARSING;
    if (s.url) {
        velk_pass_parser_restart(s.parser);
        s.resume_at = 0;
    } else {
        velk_pass_parser_seek(s.parser, s.first, s.offset[s.first]);
        s.resume_at = s.offset[s.first];
    }
    read_image(r, in, image.data());
    stream_sink_abandon(&s.sink);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz::load_default_layout(&g_layout);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::split_input in;
    if (!fuzz::split(data, size, &in) || in.image_size == 0) return 0;
    if (in.flags & SEAL_CRCS) fuzz::seal_image(&in);
    auto* r = new run;
    set_up(r, in);
    install_ctx& c = r->steps.ctx;
    read_image(r, in, in.image);
    check_held(r);
    bool planned = c.state != INSTALL_STATE_FAILED && r->steps.stream.parser->status == 3 &&
                   check_release(&r->steps) == INSTALL_GO_ON &&
                   record_plan(&r->steps) == INSTALL_GO_ON && check_kept(&r->steps) == INSTALL_GO_ON &&
                   plan_stream(&r->steps) == INSTALL_GO_ON;
    if (planned) {
        check_uses(r);
        second_reading(r, in);
        check_held(r);
    }
    velk_pass_parser_deinit(r->steps.stream.parser);
    std::free(c.buffer);
    delete r;
    return 0;
}
