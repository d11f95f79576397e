// The VELK stream parser fed in fuzzer-chosen pieces, with skips of pending
// bodies. After every call its counters must agree with each other and its
// parts table must point into the bytes delivered so far; without skips the
// end result must equal that of feeding the image in one piece.
#include <cstdlib>
#include <cstring>

#include "fuzz_split.h"
#include "velk/velk_stream_parser.h"
#include "fuzz_check.h"

namespace {

constexpr uint32_t kFileHeader = VELK_ID_SIZE + VELK_HEADER_SIZE;

void check_invariants(const velk_stream_parser& p, const uint8_t* buffer, size_t delivered,
                      int skipped)
{
    check(p.found <= p.found_headers && p.found_headers <= p.found + 1);
    check(p.valid + p.invalid == p.found);
    check(p.status == 2 || p.status == 3 || p.status == -1);
    int in_table = 0;
    for (uint32_t i = 0; i < VELK_MAX_PARTS; ++i) {
        const velk_content_header* part = p.parts[i];
        check((part != nullptr) == (p.info[i].valid != 0));
        if (!part) continue;
        ++in_table;
        // The first part starts hdr_length bytes behind the identification,
        // whatever that length is: the parser does not judge the file
        // header's length, so a short one puts the first part inside it.
        const auto* at = reinterpret_cast<const uint8_t*>(part);
        check(p.header != nullptr && at >= buffer + VELK_ID_SIZE + p.header->hdr_length);
        uint64_t end = uint64_t(at - buffer) + part->hdr_length + velk_pad4(part->body_length);
        check(part->body_length <= UINT32_MAX - 3 && end <= delivered);
    }
    check(in_table + skipped == p.found);
}

// Flags: bit 0 allows skips, bit 1 seals the CRCs, bits 2 to 7 choose the
// parts to skip (by index modulo 6).
bool wants_skip(const fuzz::split_input& in, const velk_stream_parser& p)
{
    if (!(in.flags & 1) || p.found_headers != p.found + 1) return false;
    return (in.flags >> (2 + p.index % 6)) & 1;
}

struct outcome {
    int result;
    velk_stream_parser parser;
};

outcome feed_in_pieces(const fuzz::split_input& in, uint8_t* buf, int* skipped)
{
    const size_t size = in.image_size;
    outcome o{};
    velk_stream_parser& p = o.parser;
    check(velk_stream_parser_init(&p, buf) == &p);
    fuzz::expose(buf, size, kFileHeader);
    o.result = velk_stream_parser_hdr(&p, kFileHeader);
    if (o.result != 1) {
        check(p.status == -1);
        return o;
    }
    size_t delivered = kFileHeader;
    fuzz::pieces pieces(in);
    // The receiver calls next right after hdr, with no bytes when the
    // first piece held just the file header.
    bool first = true;
    while (p.status == 2 && (first || delivered < size)) {
        first = false;
        uint32_t n = pieces.next(static_cast<uint32_t>(size - delivered));
        delivered += n;
        fuzz::expose(buf, size, delivered);
        o.result = velk_stream_parser_next(&p, n);
        check_invariants(p, buf, delivered, *skipped);
        check(o.result == 0 ? p.status == 3 : o.result == 2 ? p.status == 2 : p.status == -1);
        if (p.status == 2 && wants_skip(in, p)) {
            delivered = velk_stream_parser_skip(&p);
            ++*skipped;
            check_invariants(p, buf, delivered, *skipped);
        }
    }
    return o;
}

void same_as_one_piece(const outcome& split, const uint8_t* image, size_t size)
{
    uint8_t* buf = static_cast<uint8_t*>(std::malloc(size));
    std::memcpy(buf, image, size);
    velk_stream_parser p;
    (void)velk_stream_parser_init(&p, buf);
    int r = velk_stream_parser_hdr(&p, kFileHeader);
    if (r == 1) r = velk_stream_parser_next(&p, static_cast<uint32_t>(size - kFileHeader));
    const velk_stream_parser& q = split.parser;
    check(r == split.result && p.status == q.status && p.found == q.found &&
          p.valid == q.valid && p.invalid == q.invalid && p.found_headers == q.found_headers);
    for (uint32_t i = 0; i < VELK_MAX_PARTS; ++i) {
        const auto* a = reinterpret_cast<const uint8_t*>(p.parts[i]);
        const auto* b = reinterpret_cast<const uint8_t*>(q.parts[i]);
        check((a == nullptr) == (b == nullptr));
        if (a) check(a - buf == b - q.buffer);
        check(p.info[i].valid == q.info[i].valid);
    }
    std::free(buf);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::split_input in;
    if (!fuzz::split(data, size, &in) || in.image_size < kFileHeader) return 0;
    if (in.flags & 2) fuzz::seal_image(&in);
    // A heap block of exactly the image's size: a read past its end is a report.
    uint8_t* buf = static_cast<uint8_t*>(std::malloc(in.image_size));
    std::memcpy(buf, in.image, in.image_size);
    int skipped = 0;
    outcome split = feed_in_pieces(in, buf, &skipped);
    fuzz::expose_all(buf, in.image_size);
    if (skipped == 0) same_as_one_piece(split, in.image, in.image_size);
    std::free(buf);
    return 0;
}
