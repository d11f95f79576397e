// Every generated image, fed whole and byte by byte, must give the same counts, parts table and status.
#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>

#include "mkvelk.h"
#include "velk/velk_stream_parser.h"

using mkvelk::bytes;
using Offsets = std::vector<size_t>;

static uint32_t le(const bytes& b, size_t at, int n) { uint32_t v = 0; while (n--) v = v << 8 | b[at + size_t(n)]; return v; }
static size_t hdr_end(const bytes& b, size_t part) { return part + le(b, part + 6, 2); }
static Offsets part_offsets(const bytes& b)  // walked from the bytes alone
{
    Offsets at;
    for (size_t o = 8 + le(b, 14, 2); o + 32 <= b.size(); o = hdr_end(b, o) + ((le(b, o + 8, 4) + 3) & ~3u)) at.push_back(o);
    return at;
}

static bytes image(int n, const std::function<void(bytes&, const Offsets&)>& change = {})  // every third: software
{
    std::vector<mkvelk::part> parts;
    for (int i = 0; i < n; i++)
        parts.push_back(i % 3 == 1 ? mkvelk::software("sw", 1, 2, 3, "id", bytes(i * 7 % 13 + 1, uint8_t(i)))
                                   : mkvelk::data("p" + std::to_string(i), bytes(i * 5 % 11, uint8_t(i))));
    bytes b = mkvelk::build_image(parts);
    return change ? change(b, part_offsets(b)), b : b;
}

TEST(VelkStreamParser, SameOutcomeWholeAndByteByByte)
{
    auto flip_body = [](int i) { return [=](bytes& b, const Offsets& o) { b[hdr_end(b, o[i])] ^= 1; }; };
    // skip: bodies skipped; want: "result status found/valid/invalid/headers", per part +, - or 0 (not valid yet)
    const struct { const char* what; bytes img; std::vector<int> skip; std::string want; } rows[] = {
        {"20 parts, bodies of 0..12", image(20), {}, "0 3 20/20/0/20 ++++++++++++++++++++"},
        {"21 parts", image(21), {}, "-6 -1 20/20/0/20 ++++++++++++++++++++"},
        {"bad body 1", image(3, flip_body(1)), {}, "0 3 3/2/1/3 +-+"},
        {"bad header 2", image(4, [](bytes& b, auto& o) { b[o[2] + 12] ^= 1; }), {}, "-2 -1 2/2/0/2 ++"},
        {"hdr_length 28", image(3, [](bytes& b, auto& o) { b[o[1] + 6] = 28; }), {}, "-1 -1 1/1/0/1 +"},
        {"body_length 4 short", image(3, [](bytes& b, auto&) { b[16] -= 4; }), {}, "-5 -1 3/3/0/3 +++"},
        {"truncated", image(3, [](bytes& b, auto&) { b[17] += 1; }), {}, "2 2 3/3/0/3 +++"},
        {"file header of 20", image(2, [](bytes& b, auto&) { b.insert(b.begin() + 24, 4, 0), b[14] = 20; }), {}, "0 3 2/2/0/2 ++"},
        {"skip middle", image(3), {1}, "0 3 3/2/1/3 +0+"},
        {"skip last", image(3), {2}, "2 3 3/2/1/3 ++"},
        {"skip a bad body", image(4, flip_body(1)), {1, 3}, "2 3 4/2/2/4 +0+"},
    };
    for (const auto& row : rows)
        for (size_t piece : {size_t(1) << 30, size_t(1)}) {  // no piece crosses the end of a header whose body is skipped
            SCOPED_TRACE(std::string(row.what) + (piece == 1 ? ", byte by byte" : ""));
            const bytes& img = row.img;
            const Offsets at = part_offsets(img);
            bytes buf(img.size(), 0xA5);  // skipped bytes never arrive
            velk_stream_parser p;
            std::copy_n(img.begin(), 24, buf.begin());
            int r = (velk_stream_parser_init(&p, buf.data()), velk_stream_parser_hdr(&p, 24));
            for (size_t pos = 24, len; (r == 1 || r == VELK_SP_MORE) && pos < img.size() && p.status != 3; pos += len) {
                len = std::min(piece, img.size() - pos);
                for (int k : row.skip) if (hdr_end(img, at[k]) > pos) len = std::min(len, hdr_end(img, at[k]) - pos);
                std::copy_n(img.begin() + long(pos), len, buf.begin() + long(pos));
                r = velk_stream_parser_next(&p, uint32_t(len));
                if (r == VELK_SP_MORE && p.found_headers == p.found + 1 && std::count(row.skip.begin(), row.skip.end(), p.found))
                    len = velk_stream_parser_skip(&p) - pos;
            }
            std::string got(64, '\0');
            got.resize(size_t(snprintf(&got[0], 64, "%d %d %d/%d/%d/%d ", r, p.status, p.found, p.valid, p.invalid, p.found_headers)));
            for (int i = 0; i < int(VELK_MAX_PARTS); i++) {  // an entry points into the buffer exactly when valid is set
                const int v = velk_stream_parser_content_part_is_valid(&p, i);
                const bool points = reinterpret_cast<uint8_t*>(p.parts[i]) == (v ? buf.data() + at.at(size_t(i)) : nullptr);
                got += std::string(v ? v > 0 ? "+" : "-" : "0") + (points ? "" : "!");
            }
            EXPECT_EQ(got.substr(0, got.find_last_not_of('0') + 1), row.want);
        }
}

TEST(VelkStreamParserDeath, WrongStateAsserts)
{
    uint8_t buf[64] = {};
    velk_stream_parser p, *q = velk_stream_parser_init(&p, buf);
    for (int call = 0; call < 3; call++)  // the panic line goes to standard output
        EXPECT_DEATH((dup2(2, 1), call ? call == 1 ? (void)velk_stream_parser_skip(q) : (void)(q->status = 2, velk_stream_parser_hdr(q, 24))
                                       : (void)velk_stream_parser_next(q, 1)), "ASSERT in velk_stream_parser at") << call;
}
