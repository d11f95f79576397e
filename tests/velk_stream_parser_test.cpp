// Every generated image, fed whole, byte by byte and at random split points,
// must give the same counts, parts table and status.
#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>
#include <random>
#include <set>

#include "mkvelk.h"
#include "velk/velk_stream_parser.h"

using mkvelk::bytes;
using Offsets = std::vector<size_t>;

static uint32_t le(const bytes& b, size_t at, int n) { uint32_t v = 0; while (n--) v = v << 8 | b[at + size_t(n)]; return v; }
static void put_le(bytes& b, size_t at, uint32_t v, int n) { for (int k = 0; k < n; k++) b[at + k] = uint8_t(v >> 8 * k); }
static size_t hdr_end(const bytes& b, size_t part) { return part + le(b, part + 6, 2); }

// Start offsets of the content parts, walked from the bytes alone.
static Offsets part_offsets(const bytes& b)
{
    Offsets at;
    for (size_t o = 8 + le(b, 14, 2); o + 32 <= b.size(); o = hdr_end(b, o) + ((le(b, o + 8, 4) + 3) & ~3u)) at.push_back(o);
    return at;
}

// n parts, bodies of 0 to 12 bytes, every third a software part (40-byte header).
static bytes image(int n, const std::function<void(bytes&, const Offsets&)>& change = {})
{
    std::vector<mkvelk::part> parts;
    for (int i = 0; i < n; i++)
        parts.push_back(i % 3 == 1 ? mkvelk::software("sw", 1, 2, 3, "id", bytes(i * 7 % 13 + 1, uint8_t(i)))
                                   : mkvelk::data("p" + std::to_string(i), bytes(i * 5 % 11, uint8_t(i))));
    bytes b = mkvelk::build_image(parts);
    if (change) change(b, part_offsets(b));
    return b;
}

// skip: parts skipped once their header is validated; want: "result status found/valid/invalid/headers",
// then per part +, - or 0 (not valid yet).
struct Row { const char* what; bytes img; std::set<int> skip; std::string want; };

// Delivers the image in pieces the way a receiver does: the header once 24 bytes are in, then every
// piece; no piece crosses the end of a header whose body is skipped. Returns the last hdr or next result.
static int feed(velk_stream_parser& p, bytes& buf, const Row& row, const std::function<size_t()>& piece)
{
    const bytes& img = row.img;
    const Offsets at = part_offsets(img);
    buf.assign(img.size(), 0xA5);  // skipped bytes never arrive
    velk_stream_parser_init(&p, buf.data());
    int r = 0;
    for (size_t pos = 0, len; pos < img.size(); pos += len) {
        len = std::min(piece(), img.size() - pos);
        for (int k : row.skip) if (hdr_end(img, at[k]) > pos) len = std::min(len, hdr_end(img, at[k]) - pos);
        std::copy_n(img.begin() + pos, len, buf.begin() + pos);
        if (p.status == 1 && pos + len < 24) continue;
        if (p.status == 1 && (r = velk_stream_parser_hdr(&p, 24)) != 1) return r;
        r = velk_stream_parser_next(&p, uint32_t(pos < 24 ? pos + len - 24 : len));
        EXPECT_TRUE(p.found <= p.found_headers && p.found_headers <= p.found + 1 && p.valid + p.invalid == p.found);
        // A body counts only once it is in with its padding (a 6-byte body needs 8).
        size_t last = p.found > 0 && p.parts[p.found - 1] ? hdr_end(img, at[p.found - 1]) + ((p.parts[p.found - 1]->body_length + 3) & ~3u) : 0;
        EXPECT_LE(last, p.available);
        if (r != VELK_SP_MORE) return r;
        if (p.found_headers == p.found + 1 && row.skip.count(p.found) && (len = velk_stream_parser_skip(&p) - pos, p.status == 3)) return r;
    }
    return r;
}

TEST(VelkStreamParser, SameOutcomeForEverySplit)
{
    auto flip_body = [](int i) { return [=](bytes& b, const Offsets& o) { b[hdr_end(b, o[i])] ^= 1; }; };
    auto body_length = [](int d) { return [=](bytes& b, const Offsets&) { put_le(b, 16, le(b, 16, 4) + d, 4); }; };
    bytes wide = image(2);  // a file header of 20 bytes
    wide.insert(wide.begin() + 24, 4, 0xEE), put_le(wide, 14, 20, 2);
    const Row rows[] = {
        {"20 parts, bodies of 0..12", image(20), {}, "0 3 20/20/0/20 ++++++++++++++++++++"},
        {"21 parts", image(21), {}, "-6 -1 20/20/0/20 ++++++++++++++++++++"},
        {"bad body 1", image(3, flip_body(1)), {}, "0 3 3/2/1/3 +-+"},
        {"bad header 2", image(4, [](bytes& b, auto& o) { b[o[2] + 12] ^= 1; }), {}, "-2 -1 2/2/0/2 ++"},
        {"hdr_length 28", image(3, [](bytes& b, auto& o) { b[o[1] + 6] = 28; }), {}, "-1 -1 1/1/0/1 +"},
        {"body_length 4 short", image(3, body_length(-4)), {}, "-5 -1 3/3/0/3 +++"},
        {"truncated", image(3, body_length(40)), {}, "2 2 3/3/0/3 +++"},
        {"no content part", image(0), {}, "2 2 0/0/0/0 "},
        {"file header of 20", wide, {}, "0 3 2/2/0/2 ++"},
        {"skip middle", image(3), {1}, "0 3 3/2/1/3 +0+"},
        {"skip last", image(3), {2}, "2 3 3/2/1/3 ++"},
        {"skip a bad body", image(4, flip_body(1)), {1, 3}, "2 3 4/2/2/4 +0+"},
        {"identification", image(2, [](bytes& b, auto&) { b[3] = 'W'; }), {}, "-3 -1 0/0/0/0 "},
        {"version 2", image(2, [](bytes& b, auto&) { b[12] = 2; }), {}, "-5 -1 0/0/0/0 "},
    };
    std::mt19937 rng(20261123);
    for (const Row& row : rows)
        for (int split = 0; split < 27; split++) {  // in one piece, byte by byte, then 25 times at random points
            SCOPED_TRACE(std::string(row.what) + ", split " + std::to_string(split));
            const auto piece = [&] {
                uint32_t x = rng();
                return split < 2 ? split ? 1 : size_t(1) << 30 : x % 10 < 5 ? 1 + x % 8 : x % 10 < 8 ? 9 + x % 56 : 65 + x % 448;
            };
            velk_stream_parser p;
            bytes buf;
            int r = feed(p, buf, row, piece);
            char c[64];
            std::snprintf(c, sizeof c, "%d %d %d/%d/%d/%d ", r, velk_stream_parser_get_status(&p),
                          velk_stream_parser_get_found_content_parts(&p), velk_stream_parser_get_valid_content_parts(&p),
                          velk_stream_parser_get_invalid_content_parts(&p), velk_stream_parser_get_found_content_part_headers(&p));
            std::string got = c;
            for (int i = 0; i < int(VELK_MAX_PARTS); i++) {  // an entry points into the buffer exactly when valid is set
                int v = velk_stream_parser_content_part_is_valid(&p, i);
                const void* at = v ? buf.data() + part_offsets(row.img).at(size_t(i)) : nullptr;
                got += std::string(v ? v > 0 ? "+" : "-" : "0") + (velk_stream_parser_content_parts(&p)[i] == at ? "" : "!");
            }
            EXPECT_EQ(got.substr(0, got.find_last_not_of('0') + 1), row.want);
        }
}

TEST(VelkStreamParserDeath, WrongStateAsserts)
{
    uint8_t buf[64] = {};
    velk_stream_parser p;
    velk_stream_parser_init(&p, buf);
    for (int call = 0; call < 3; call++)  // the panic line goes to standard output
        EXPECT_DEATH({
            dup2(2, 1);
            (void)(call == 0 ? velk_stream_parser_next(&p, 1) : call == 1 ? velk_stream_parser_skip(&p) : (p.status = 2, velk_stream_parser_hdr(&p, 24)));
        }, "Panic: \\*\\*\\* ASSERT in velk_stream_parser at") << call;
}
