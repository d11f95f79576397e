// The pass-through parser against the stream parser that holds the image: the same verdict on every image, the same
// parts, each body handed over exactly once in order; skips, a seek to a known part, and offsets beyond 4 GiB.
#include <gtest/gtest.h>
#include <zlib.h>

#include <functional>

#include "mkvelk.h"
#include "velk/velk_pass_parser.h"

using mkvelk::bytes;
using Offsets = std::vector<size_t>;

namespace {

uint32_t le(const bytes& b, size_t at, int n) { uint32_t v = 0; while (n--) v = v << 8 | b[at + size_t(n)]; return v; }
void put32(bytes& b, size_t at, uint32_t v) { for (int i = 0; i < 4; ++i) b[at + size_t(i)] = uint8_t(v >> 8 * i); }
size_t hdr_end(const bytes& b, size_t part) { return part + le(b, part + 6, 2); }
Offsets part_offsets(const bytes& b)
{
    Offsets at;
    for (size_t o = 8 + le(b, 14, 2); o + 32 <= b.size(); o = hdr_end(b, o) + ((le(b, o + 8, 4) + 3) & ~3u)) at.push_back(o);
    return at;
}

bytes image(int n, const std::function<void(bytes&, const Offsets&)>& change = {})
{
    std::vector<mkvelk::part> parts;
    for (int i = 0; i < n; i++)
        parts.push_back(i % 3 == 1 ? mkvelk::software("sw", 1, 2, 3, "id", bytes(size_t(i * 7 % 13 + 1), uint8_t(i)))
                                   : mkvelk::data("p" + std::to_string(i), bytes(size_t(i * 5 % 11), uint8_t(i))));
    bytes b = mkvelk::build_image(parts);
    return change ? change(b, part_offsets(b)), b : b;
}

// What the parser that holds the image makes of it: its status and each part's verdict (+, -, 0 not reached).
std::string held_verdict(const bytes& img)
{
    bytes buf(img);
    velk_stream_parser p;
    velk_stream_parser_init(&p, buf.data());
    if (img.size() < 24 || velk_stream_parser_hdr(&p, 24) != 1) return "-1 ";
    (void)velk_stream_parser_next(&p, uint32_t(img.size() - 24));
    std::string v = std::to_string(p.status) + " ";
    for (int i = 0; i < p.found; ++i) v += p.info[i].valid > 0 ? "+" : p.info[i].valid < 0 ? "-" : "0";
    return v;
}

struct Walk {
    std::string verdict;  // status and each part's verdict, as held_verdict
    int result = 0;       // the last step's result
    std::vector<uint64_t> headers;  // image offset of each header event's part
    bytes bodies;         // every body byte handed over, in order
};

// Feeds `img` in pieces of `piece` bytes from `from`, skipping the bodies of the parts in `skip`.
Walk walk(velk_pass_parser& p, const bytes& img, size_t piece, const std::vector<int>& skip = {}, size_t from = 0)
{
    Walk w;
    std::string parts;
    uint32_t in_part = 0;  // body bytes of the current part handed over
    for (size_t at = from; at < img.size() && p.status != 3 && w.result >= 0;) {
        size_t n = std::min(piece, img.size() - at), left = n;
        const uint8_t* data = img.data() + at;
        while (w.result >= 0 && p.status != 3) {
            velk_pass_event ev;
            w.result = velk_pass_parser_step(&p, &data, &left, &ev);
            if (w.result == VELK_PASS_HEADER) w.headers.push_back(p.position - ev.length), in_part = 0;
            if (w.result == VELK_PASS_BODY) {
                EXPECT_EQ(ev.at, in_part);  // pieces follow each other
                in_part += ev.length;
                w.bodies.insert(w.bodies.end(), ev.data, ev.data + ev.length);
            }
            if (w.result == VELK_PASS_BODY_END) parts += ev.valid > 0 ? "+" : "-";
            if (w.result == VELK_PASS_HEADER && std::count(skip.begin(), skip.end(), ev.part)) {
                parts += "0";
                at = velk_pass_parser_skip(&p);
                break;
            }
            if (w.result == VELK_PASS_MORE) {
                at += n;
                break;
            }
        }
    }
    w.verdict = std::to_string(w.result < 0 ? -1 : p.status) + " " + parts;
    return w;
}

bytes bodies_of(const bytes& img, const std::vector<int>& skip = {})
{
    bytes out;
    const Offsets at = part_offsets(img);
    for (size_t k = 0; k < at.size(); ++k)
        if (!std::count(skip.begin(), skip.end(), int(k)))
            out.insert(out.end(), img.begin() + long(hdr_end(img, at[k])), img.begin() + long(hdr_end(img, at[k]) + le(img, at[k] + 8, 4)));
    return out;
}

TEST(VelkPassParser, SameVerdictAsTheParserHoldingTheImage)
{
    auto flip_body = [](int i) { return [=](bytes& b, const Offsets& o) { b[hdr_end(b, o[i])] ^= 1; }; };
    // want: empty when it must equal the held parser's verdict, else the pass parser's own
    const struct { const char* what; bytes img; std::string want; } rows[] = {
        {"20 parts", image(20), ""},
        {"21 parts", image(21), "-1 ++++++++++++++++++++"},
        {"bad body 1", image(3, flip_body(1)), ""},
        {"bad header 2", image(4, [](bytes& b, auto& o) { b[o[2] + 12] ^= 1; }), "-1 ++"},
        {"hdr_length 28", image(3, [](bytes& b, auto& o) { b[o[1] + 6] = 28; }), "-1 +"},
        {"body_length 4 short: refused at the last header", image(3, [](bytes& b, auto&) { b[16] -= 4; }), "-1 ++"},
        {"truncated: never complete", image(3, [](bytes& b, auto&) { b[17] += 1; }), "2 +++"},
        {"file header of 20", image(2, [](bytes& b, auto&) { b.insert(b.begin() + 24, 4, 0), b[14] = 20; }), ""},
        {"file header of 12: parts would overlap it", image(2, [](bytes& b, auto&) { b[14] = 12; }), "-1 "},
        {"file header of 18: off the grid", image(2, [](bytes& b, auto&) { b.insert(b.begin() + 24, 2, 0), b[14] = 18; }), "-1 "},
        {"identification", image(2, [](bytes& b, auto&) { b[0] ^= 1; }), "-1 "},
        {"version 2", image(2, [](bytes& b, auto&) { b[12] = 2; }), "-1 "},
        {"no parts", image(0), ""},
    };
    for (const auto& row : rows)
        for (size_t piece : {size_t(1), size_t(7), size_t(1) << 30}) {
            SCOPED_TRACE(std::string(row.what) + ", pieces of " + std::to_string(piece));
            velk_pass_parser p;
            velk_pass_parser_init(&p);
            const Walk w = walk(p, row.img, piece);
            EXPECT_EQ(w.verdict, row.want.empty() ? held_verdict(row.img) : row.want);
            if (w.verdict.compare(0, 2, "3 ") == 0) {
                EXPECT_EQ(w.bodies, bodies_of(row.img));
                const Offsets at = part_offsets(row.img);
                EXPECT_EQ(w.headers, std::vector<uint64_t>(at.begin(), at.end()));
            }
        }
}

// A body left out is never handed over; a seek to a part found before reads the rest as the first walk did.
TEST(VelkPassParser, SkipsAndASeekToAKnownPart)
{
    const bytes img = image(6);
    const Offsets at = part_offsets(img);
    for (const std::vector<int>& skip : {std::vector<int>{1, 2}, {5}, {0, 1, 2, 3, 4, 5}}) {
        SCOPED_TRACE(skip.size());
        velk_pass_parser p;
        velk_pass_parser_init(&p);
        const Walk w = walk(p, img, 5, skip);
        EXPECT_EQ(w.verdict.substr(0, 2), "3 ");
        EXPECT_EQ(w.bodies, bodies_of(img, skip));
        velk_pass_parser_seek(&p, 3, at[3]);  // after the walk: the file header is known
        const Walk rest = walk(p, img, 3, {}, at[3]);
        EXPECT_EQ(rest.verdict, "3 +++");
        EXPECT_EQ(rest.headers, (std::vector<uint64_t>{at[3], at[4], at[5]}));
    }
}

// The format's largest image: a 64 KiB file header, then a part of nearly 4 GiB whose body is left out, then one
// that starts beyond 4 GiB. The offsets must not wrap.
TEST(VelkPassParser, OffsetsBeyondFourGiB)
{
    constexpr uint32_t kFileHeader = 0xFFFC, kBig = 0xFFFF0000;
    auto header = [](uint32_t body_length, uint32_t body_crc) {
        bytes h(32, 0);
        put32(h, 4, 3 | 32 << 16), put32(h, 8, body_length), put32(h, 28, body_crc), h[12] = 'p';
        return put32(h, 0, uint32_t(crc32(0, h.data() + 4, 28))), h;
    };
    const bytes tail_body = {1, 2, 3, 4, 5, 6, 7, 8};
    bytes start(8 + kFileHeader, 0);
    put32(start, 0, VELK_ID_WORD1), put32(start, 4, VELK_ID_WORD2), start[12] = 1;
    start[14] = kFileHeader & 0xFF, start[15] = kFileHeader >> 8, put32(start, 16, 32 + kBig + 32 + 8);
    const bytes big = header(kBig, 0), tail = header(8, uint32_t(crc32(0, tail_body.data(), 8)));
    velk_pass_parser p;
    velk_pass_parser_init(&p);
    auto feed = [&](const bytes& b) {
        const uint8_t* data = b.data();
        size_t n = b.size();
        std::string kinds;
        velk_pass_event ev;
        for (int r; (r = velk_pass_parser_step(&p, &data, &n, &ev)) != VELK_PASS_MORE && r >= 0 && r != VELK_PASS_COMPLETE;)
            kinds += std::to_string(r);
        return kinds;
    };
    EXPECT_EQ(feed(start), "1");  // the file header
    EXPECT_EQ(feed(big), "2");
    const uint64_t next = velk_pass_parser_skip(&p);
    EXPECT_EQ(next, uint64_t{8} + kFileHeader + 32 + kBig);
    EXPECT_GT(next, uint64_t{1} << 32);
    bytes rest = tail;
    rest.insert(rest.end(), tail_body.begin(), tail_body.end());
    EXPECT_EQ(feed(rest), "234");
    EXPECT_EQ(p.status, 3);
    EXPECT_EQ(p.position, next + 40);
    velk_pass_parser_seek(&p, 1, next);  // the second reading of the last part
    EXPECT_EQ(feed(rest), "234");
}

}  // namespace
