// The stream receiver on a fuzzer-made image, planned against the default
// layout held in memory, then the install's checks before its critical
// region: the release checks, the recording of the plan and the check of
// the partitions it keeps. Pieces arrive as a file source delivers them
// (the image already in the buffer) or as libcurl does (copied in, with
// range skips and the resume behind them). Nothing is ever written: the
// run stops before the autoset claim and install_write_out. The checks may
// call crc32_check, which opens a partition read-only; the fuzz sandbox has
// an empty /dev, so that open fails.
#include <cstdlib>
#include <cstring>

#include "base/console.h"
#include "base/options.h"
#include "fuzz_layout.h"
#include "fuzz_split.h"
#include "hostconfig/hostconfig.h"
#include "install/install.h"
#include "install/install_steps.h"

namespace {

korl_data g_layout;  // the default layout with its pools, built once

enum flag_bits : uint8_t {
    URL_SOURCE = 1,
    RANGE_MODE = 2,
    FORCE = 4,
    SET_SHIFT = 3,  // two bits: set 0, 1, 2 (3 counts as 1)
    SEAL_CRCS = 32,
    PRODUCT = 64,   // -product=dev1
    MINVER = 128,   // -minver=1.0.1
};

struct run {
    kor_options opts{};
    install_run steps{};
    int dummy_curl = 0;
};

void set_up(run* r, const fuzz::split_input& in)
{
    r->opts.velksize = KOR_DEFAULT_VELKSIZE;
    r->opts.f = (in.flags & FORCE) ? 1 : 0;
    kor_str_copy(r->opts.product, sizeof r->opts.product, "dev1");
    r->opts.product_set = (in.flags & PRODUCT) ? 1 : 0;
    r->opts.minver_set = (in.flags & MINVER) ? 1 : 0;
    r->opts.minver_major = 1;
    r->opts.minver_buildnumber = 1;
    r->steps.opts = &r->opts;
    r->steps.data = g_layout;
    install_ctx& c = r->steps.ctx;
    c.state = INSTALL_STATE_HEADER;
    c.data = &r->steps.data;
    int set = (in.flags >> SET_SHIFT) & 3;
    c.setidx = static_cast<uint8_t>(set == 3 ? 1 : set);
    c.options = &r->opts;
    const bool url = in.flags & URL_SOURCE;
    // A file source is read whole into a buffer of its size; a URL source
    // fills a buffer that must stay larger than the image.
    c.buffer_size = static_cast<uint32_t>(in.image_size + (url ? 1 : 0));
    c.buffer = static_cast<uint8_t*>(std::calloc(c.buffer_size ? c.buffer_size : 1, 1));
    if (!url) std::memcpy(c.buffer, in.image, in.image_size);
    c.parser = velk_stream_parser_init(nullptr, c.buffer);
    c.curl = url ? &r->dummy_curl : nullptr;
    c.next_element = url ? -1 : 0;
    c.range_mode = (url && (in.flags & RANGE_MODE)) ? 1 : 0;
}

// As load_file does: each piece is reported with the buffer's start.
void feed_file(run* r, const fuzz::split_input& in)
{
    install_ctx& c = r->steps.ctx;
    fuzz::pieces pieces(in);
    size_t delivered = 0;
    for (;;) {
        uint32_t n = pieces.next(static_cast<uint32_t>(in.image_size - delivered));
        delivered += n;
        fuzz::expose(c.buffer, c.buffer_size, delivered);
        if (install_receive(c.buffer, 1, n, &c) != n) return;
        if (delivered == in.image_size) return;
    }
}

// As libcurl does: each piece in a block of its own, copied by the receiver;
// a skip restarts the transfer at the offset the receiver asks for.
void feed_url(run* r, const fuzz::split_input& in)
{
    install_ctx& c = r->steps.ctx;
    fuzz::pieces pieces(in);
    size_t at = 0;
    while (at < in.image_size) {
        uint32_t n = pieces.next(static_cast<uint32_t>(in.image_size - at));
        uint8_t* piece = static_cast<uint8_t*>(std::malloc(n ? n : 1));
        std::memcpy(piece, in.image + at, n);
        // The receiver copies the piece behind what it holds: those bytes
        // are the ones it may touch.
        fuzz::expose(c.buffer, c.buffer_size, size_t{c.buffer_fill} + n);
        size_t taken = install_receive(piece, 1, n, &c);
        std::free(piece);
        if (c.state == INSTALL_STATE_FAILED) return;
        if (taken == n + 1 && c.state == INSTALL_STATE_SKIP) {
            at = c.buffer_fill;
            continue;
        }
        if (taken != n) std::abort();  // only a skip or a failure ends a transfer
        at += n;
        if (velk_stream_parser_get_status(c.parser) == 3) return;
    }
}

// What the install does between a complete image and its first write.
void check_and_plan(run* r)
{
    install_ctx& c = r->steps.ctx;
    if (c.state == INSTALL_STATE_FAILED || velk_stream_parser_get_status(c.parser) != 3) return;
    if (check_release(&r->steps) != INSTALL_GO_ON) return;
    if (record_plan(&r->steps) != INSTALL_GO_ON) return;
    (void)check_kept(&r->steps);
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
    if (c.curl)
        feed_url(r, in);
    else
        feed_file(r, in);
    check_and_plan(r);
    fuzz::expose_all(c.buffer, c.buffer_size);
    velk_stream_parser_deinit(c.parser);
    std::free(c.buffer);
    delete r;
    return 0;
}
