// Stream parser property test: every generated image, fed whole, byte by
// byte and at random split points, must give the same counts, parts table
// and status.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <random>
#include <set>

#include "mkvelk.h"
#include "velk/velk_stream_parser.h"

namespace {

using mkvelk::bytes;

uint32_t le(const bytes& b, size_t at, int n)
{
    uint32_t v = 0;
    for (int k = n - 1; k >= 0; k--) v = (v << 8) | b[at + k];
    return v;
}

// Start offsets of the content parts, walked from the bytes alone.
std::vector<size_t> part_offsets(const bytes& img)
{
    std::vector<size_t> at;
    for (size_t o = 8 + le(img, 14, 2); o + 32 <= img.size(); o += le(img, o + 6, 2) + ((le(img, o + 8, 4) + 3) & ~3u))
        at.push_back(o);
    return at;
}

bytes image(int n, const std::function<void(bytes&, const std::vector<size_t>&)>& change = {})
{
    std::vector<mkvelk::part> parts;
    for (int i = 0; i < n; i++)
        parts.push_back(i % 3 == 1 ? mkvelk::software("sw" + std::to_string(i), 1, 2, 3, "id", bytes(i * 7 % 13 + 1, uint8_t(i)))
                                   : mkvelk::data("p" + std::to_string(i), bytes(i * 5 % 11, uint8_t(i))));
    bytes img = mkvelk::build_image(parts);
    if (change) change(img, part_offsets(img));
    return img;
}

void put_le(bytes& b, size_t at, uint32_t v, int n)
{
    for (int k = 0; k < n; k++) b[at + k] = uint8_t(v >> (8 * k));
}

struct Row {
    const char* what;
    bytes img;
    std::set<int> skip;  // parts skipped once their header is validated
    int result, status, found, valid, invalid, headers;
    std::vector<int> part_valid;  // info valid byte per part; parts entry set when not 0
};

std::vector<Row> rows()
{
    auto flip = [](int part, int at) { return [=](bytes& b, const std::vector<size_t>& o) { b[o[part] + at] ^= 1; }; };
    auto flip_body = [](int part) { return [=](bytes& b, const std::vector<size_t>& o) { b[o[part] + le(b, o[part] + 6, 2)] ^= 1; }; };
    auto body_length = [](int delta) { return [=](bytes& b, const std::vector<size_t>&) { put_le(b, 16, le(b, 16, 4) + delta, 4); }; };
    bytes wide = image(2);  // file header of 20 bytes: the parser takes hdr_length as it stands
    wide.insert(wide.begin() + 24, 4, 0xEE);
    put_le(wide, 14, 20, 2);
    return {
        {"one part", image(1), {}, 0, 3, 1, 1, 0, 1, {1}},
        {"body lengths 0..12", image(7), {}, 0, 3, 7, 7, 0, 7, {1, 1, 1, 1, 1, 1, 1}},
        {"20 parts", image(20), {}, 0, 3, 20, 20, 0, 20, std::vector<int>(20, 1)},
        {"21 parts refused", image(21), {}, VELK_SP_ERR_TOO_MANY, -1, 20, 20, 0, 20, std::vector<int>(20, 1)},
        {"bad body CRC of part 1", image(3, flip_body(1)), {}, 0, 3, 3, 2, 1, 3, {1, -1, 1}},
        {"bad header CRC of part 2", image(4, flip(2, 12)), {}, VELK_SP_ERR_HEADER_CRC, -1, 2, 2, 0, 2, {1, 1}},
        {"hdr_length 28", image(3, [](bytes& b, auto& o) { b[o[1] + 6] = 28; }), {}, VELK_SP_ERR_SHORT_HEADER, -1, 1, 1, 0, 1, {1}},
        {"body_length 4 short", image(3, body_length(-4)), {}, VELK_SP_ERR_PAST_END, -1, 3, 3, 0, 3, {1, 1, 1}},
        {"truncated", image(3, body_length(40)), {}, VELK_SP_MORE, 2, 3, 3, 0, 3, {1, 1, 1}},
        {"no content part", image(0), {}, VELK_SP_MORE, 2, 0, 0, 0, 0, {}},
        {"file header of 20", wide, {}, 0, 3, 2, 2, 0, 2, {1, 1}},
        {"skip middle", image(3), {1}, 0, 3, 3, 2, 1, 3, {1, 0, 1}},
        {"skip last", image(3), {2}, VELK_SP_MORE, 3, 3, 2, 1, 3, {1, 1, 0}},
        {"skip a bad body", image(4, flip_body(1)), {1, 3}, VELK_SP_MORE, 3, 4, 2, 2, 4, {1, 0, 1, 0}},
        {"identification", image(2, [](bytes& b, auto&) { b[3] = 'W'; }), {}, VELK_SP_ERR_IDENT, -1, 0, 0, 0, 0, {}},
        {"version 2", image(2, [](bytes& b, auto&) { b[12] = 2; }), {}, VELK_SP_ERR_VERSION, -1, 0, 0, 0, 0, {}},
    };
}

struct Feed {
    bytes buffer;
    velk_stream_parser p;
    int result = 0;
};

// Delivers the image in pieces of split() bytes the way a receiver does: the
// header once 24 bytes are in, then every piece; a piece never crosses the
// end of a header whose body is to be skipped.
void feed(Feed& f, const Row& row, const std::function<size_t()>& split)
{
    const bytes& img = row.img;
    f.buffer.assign(img.size(), 0xA5);
    velk_stream_parser_init(&f.p, f.buffer.data());
    std::vector<size_t> stops;
    for (int k : row.skip) stops.push_back(part_offsets(img)[k] + le(img, part_offsets(img)[k] + 6, 2));
    for (size_t pos = 0; pos < img.size();) {
        size_t len = std::min(split(), img.size() - pos);
        for (size_t s : stops) if (s > pos) len = std::min(len, s - pos);
        std::copy_n(img.begin() + pos, len, f.buffer.begin() + pos);
        pos += len;
        if (f.p.status == 1) {
            if (pos < 24) continue;
            f.result = velk_stream_parser_hdr(&f.p, 24);
            if (f.result != 1) return;
            len = pos - 24;
        }
        f.result = velk_stream_parser_next(&f.p, uint32_t(len));
        ASSERT_TRUE(f.p.found <= f.p.found_headers && f.p.found_headers <= f.p.found + 1);
        ASSERT_EQ(f.p.valid + f.p.invalid, f.p.found);
        if (f.result != VELK_SP_MORE) return;
        if (f.p.found_headers == f.p.found + 1 && row.skip.count(f.p.found)) {
            pos = velk_stream_parser_skip(&f.p);
            if (f.p.status == 3) return;
        }
    }
}

void expect_outcome(const Feed& f, const Row& row, const std::string& how)
{
    SCOPED_TRACE(std::string(row.what) + ", " + how);
    EXPECT_EQ(f.result, row.result);
    EXPECT_EQ(velk_stream_parser_get_status(&f.p), row.status);
    EXPECT_EQ(velk_stream_parser_get_found_content_parts(&f.p), row.found);
    EXPECT_EQ(velk_stream_parser_get_valid_content_parts(&f.p), row.valid);
    EXPECT_EQ(velk_stream_parser_get_invalid_content_parts(&f.p), row.invalid);
    EXPECT_EQ(velk_stream_parser_get_found_content_part_headers(&f.p), row.headers);
    std::vector<size_t> at = part_offsets(row.img);
    for (int i = 0; i < int(VELK_MAX_PARTS); i++) {
        int v = i < int(row.part_valid.size()) ? row.part_valid[i] : 0;
        EXPECT_EQ(velk_stream_parser_content_part_is_valid(&f.p, i), v) << "part " << i;
        const void* want = v ? f.buffer.data() + at[i] : nullptr;
        EXPECT_EQ(static_cast<const void*>(velk_stream_parser_content_parts(&f.p)[i]), want) << "part " << i;
    }
}

TEST(VelkStreamParser, SameOutcomeForEverySplit)
{
    std::mt19937 rng(20261123);
    auto random_piece = [&] {
        uint32_t r = rng();
        return size_t(r % 10 < 5 ? 1 + r % 8 : r % 10 < 8 ? 9 + r % 56 : 65 + r % 448);
    };
    for (const Row& row : rows()) {
        ASSERT_FALSE(row.img.empty()) << row.what;
        Feed f;
        feed(f, row, [] { return size_t(1) << 30; });
        expect_outcome(f, row, "one piece");
        feed(f, row, [] { return size_t(1); });
        expect_outcome(f, row, "byte by byte");
        for (int round = 0; round < 25; round++) {
            feed(f, row, random_piece);
            expect_outcome(f, row, "random split, round " + std::to_string(round));
        }
    }
}

TEST(VelkStreamParser, PaddedBodyCompleteOnlyWithItsPadding)
{
    bytes img = mkvelk::build_image({mkvelk::data("six", bytes(6, 7))});
    const struct { uint32_t held_back; int result; int found; } cases[] = {{2, 2, 0}, {1, 2, 0}, {0, 0, 1}};
    for (const auto& c : cases) {
        bytes buf = img;
        velk_stream_parser p;
        velk_stream_parser_init(&p, buf.data());
        ASSERT_EQ(velk_stream_parser_hdr(&p, 24), 1);
        EXPECT_EQ(velk_stream_parser_next(&p, uint32_t(img.size() - 24 - c.held_back)), c.result);
        EXPECT_EQ(p.found, c.found) << c.held_back;
        velk_stream_parser before = p;  // nothing pending: next(0) changes nothing
        if (c.held_back == 0) continue;
        EXPECT_EQ(velk_stream_parser_next(&p, 0), VELK_SP_MORE);
        EXPECT_EQ(std::memcmp(&before, &p, sizeof p), 0);
    }
}

TEST(VelkStreamParser, InitAllocatesOnlyWithoutRecord)
{
    uint8_t buf[32] = {};
    velk_stream_parser own;
    EXPECT_EQ(velk_stream_parser_init(&own, buf), &own);
    EXPECT_EQ(own.allocated, 0);
    velk_stream_parser* p = velk_stream_parser_init(nullptr, buf);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->allocated, 1);
    EXPECT_EQ(p->status, 1);
    velk_stream_parser_deinit(p);
}

TEST(VelkStreamParserDeath, WrongStateAsserts)
{
    uint8_t buf[64] = {};
    velk_stream_parser p;
    velk_stream_parser_init(&p, buf);
#define EXPECT_ASSERT(stmt) \
    EXPECT_DEATH({ dup2(2, 1); (void)(stmt); }, "Panic: \\*\\*\\* ASSERT in velk_stream_parser at")
    EXPECT_ASSERT(velk_stream_parser_next(&p, 1));
    EXPECT_ASSERT(velk_stream_parser_skip(&p));
    EXPECT_ASSERT(velk_stream_parser_init(&p, nullptr));
    EXPECT_ASSERT(velk_stream_parser_get_status(nullptr));
    p.status = 2;
    EXPECT_ASSERT(velk_stream_parser_hdr(&p, 24));
}

}  // namespace
