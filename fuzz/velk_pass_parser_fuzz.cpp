// The pass-through parser fed in fuzzer-chosen pieces, with skips of
// bodies. Every body piece it hands over must be the image's own bytes at
// that body's offset, and each body must come whole, in order. Without
// skips its verdict must equal the stream parser's over the whole image:
// complete for the same images (given a file header of 16 bytes or more,
// which only the pass parser requires), with the same parts at the same
// offsets and the same body verdicts.
#include <cstdlib>
#include <cstring>

#include "fuzz_check.h"
#include "fuzz_split.h"
#include "velk/velk_pass_parser.h"

namespace {

struct walk {
    int result = 0;
    int32_t status = 1;
    int32_t parts = 0;
    uint64_t offset[VELK_MAX_PARTS] = {};
    int8_t valid[VELK_MAX_PARTS] = {};
};

// Flags: bit 0 allows skips, bit 1 seals the CRCs, bits 2 to 7 choose the
// parts to skip (by index modulo 6).
bool wants_skip(const fuzz::split_input& in, int32_t part)
{
    return (in.flags & 1) && ((in.flags >> (2 + part % 6)) & 1);
}

walk feed(const fuzz::split_input& in, int* skipped)
{
    walk w;
    velk_pass_parser* p = velk_pass_parser_init(nullptr);
    check(p != nullptr);
    fuzz::pieces pieces(in);
    uint64_t at = 0, body_start = 0;
    uint32_t body_done = 0;
    while (at < in.image_size && w.result >= 0 && p->status != 3) {
        uint32_t want = pieces.next(static_cast<uint32_t>(in.image_size - at));
        const uint8_t* data = in.image + at;
        size_t n = want;
        for (;;) {
            velk_pass_event ev;
            const uint64_t before = p->position;
            w.result = velk_pass_parser_step(p, &data, &n, &ev);
            check(p->position >= before && p->position - before <= want);
            if (w.result < 0) {
                check(p->status == -1);
                break;
            }
            if (w.result == VELK_PASS_HEADER) {
                check(ev.part == w.parts && ev.length >= VELK_CONTENT_HEADER_SIZE);
                check(p->position == at + static_cast<uint64_t>(data - (in.image + at)));
                w.offset[w.parts] = p->position - ev.length;
                body_start = p->position;
                body_done = 0;
                if (wants_skip(in, ev.part)) {
                    ++*skipped;
                    w.valid[w.parts++] = 0;
                    at = velk_pass_parser_skip(p);
                    break;
                }
            }
            if (w.result == VELK_PASS_BODY) {
                check(ev.at == body_done && ev.data == in.image + body_start + ev.at);
                body_done += ev.length;
            }
            if (w.result == VELK_PASS_BODY_END) {
                check(ev.part == w.parts && body_done == velk_pass_parser_header(p)->body_length);
                w.valid[w.parts++] = static_cast<int8_t>(ev.valid);
            }
            if (w.result == VELK_PASS_MORE) {
                check(n == 0);
                at += want;
                break;
            }
            if (w.result == VELK_PASS_COMPLETE) break;
        }
    }
    w.status = p->status;
    velk_pass_parser_deinit(p);
    return w;
}

void same_as_held(const walk& w, const uint8_t* image, size_t size)
{
    uint8_t* buf = static_cast<uint8_t*>(std::malloc(size));
    std::memcpy(buf, image, size);
    velk_stream_parser p;
    (void)velk_stream_parser_init(&p, buf);
    int r = velk_stream_parser_hdr(&p, VELK_FILE_HEADER_BYTES);
    if (r == 1) r = velk_stream_parser_next(&p, static_cast<uint32_t>(size - VELK_FILE_HEADER_BYTES));
    const bool long_header = static_cast<uint32_t>(image[14] | image[15] << 8) >= VELK_HEADER_SIZE;
    if (w.status == 3 || (p.status == 3 && long_header)) {
        check(w.status == 3 && p.status == 3 && p.found == w.parts);
        for (int32_t i = 0; i < w.parts; ++i) {
            check(reinterpret_cast<uint8_t*>(p.parts[i]) - buf == static_cast<ptrdiff_t>(w.offset[i]));
            check(p.info[i].valid == w.valid[i]);
        }
    }
    std::free(buf);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::split_input in;
    if (!fuzz::split(data, size, &in) || in.image_size < VELK_FILE_HEADER_BYTES) return 0;
    if (in.flags & 2) fuzz::seal_image(&in);
    int skipped = 0;
    walk w = feed(in, &skipped);
    if (skipped == 0) same_as_held(w, in.image, in.image_size);
    return 0;
}
