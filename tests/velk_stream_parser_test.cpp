// Every generated image, fed whole and byte by byte, must give the same counts, parts table and status.
#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>

#include "mkvelk.h"
#include "velk/velk_stream_parser.h"

namespace {

using mkvelk::bytes;
using Offsets = std::vector<size_t>;

uint32_t le(const bytes& b, size_t at, int n)
{
    uint32_t v = 0;
    while (n--) v = v << 8 | b[at + size_t(n)];
    return v;
}

size_t hdr_end(const bytes& b, size_t part) { return part + le(b, part + 6, 2); }

// The offset of each content part, walked from the bytes alone.
Offsets part_offsets(const bytes& b)
{
    Offsets at;
    for (size_t o = 8 + le(b, 14, 2); o + 32 <= b.size(); o = hdr_end(b, o) + ((le(b, o + 8, 4) + 3) & ~3u))
        at.push_back(o);
    return at;
}

// `n` parts, every third software; bodies of 0 to 12 bytes. `change` edits the image afterwards.
bytes image(int n, const std::function<void(bytes&, const Offsets&)>& change = {})
{
    std::vector<mkvelk::part> parts;
    for (int i = 0; i < n; i++)
        parts.push_back(i % 3 == 1 ? mkvelk::software("sw", 1, 2, 3, "id", bytes(i * 7 % 13 + 1, uint8_t(i)))
                                   : mkvelk::data("p" + std::to_string(i), bytes(i * 5 % 11, uint8_t(i))));
    bytes b = mkvelk::build_image(parts);
    if (change) change(b, part_offsets(b));
    return b;
}

constexpr int kValid = 1, kBad = -1, kNotChecked = 0;  // velk_stream_parser_content_part_is_valid

// One image fed to the parser; what the parser reports at the end.
class Feed {
public:
    Feed(std::string what, bytes img) : what(std::move(what)), img(std::move(img)) {}
    Feed& skipping(std::vector<int> parts) { skip = std::move(parts); return *this; }  // their bodies never arrive
    Feed& result(int r) { result_ = r; return *this; }  // of the last call
    Feed& status(int s) { status_ = s; return *this; }
    Feed& found(int n) { found_ = n; return *this; }
    Feed& valid(int n) { valid_ = n; return *this; }
    Feed& invalid(int n) { invalid_ = n; return *this; }
    Feed& headers(int n) { headers_ = n; return *this; }
    // Each entry's validity, the first ones; the entries behind them are not checked.
    Feed& parts(std::vector<int> v)
    {
        parts_ = std::move(v);
        parts_.resize(VELK_MAX_PARTS, kNotChecked);
        return *this;
    }

    std::string what;
    bytes img;
    std::vector<int> skip, parts_;
    int result_ = 99, status_ = 99, found_ = -1, valid_ = -1, invalid_ = -1, headers_ = -1;
};

std::vector<int> all_valid(int n) { return std::vector<int>(size_t(n), kValid); }

TEST(VelkStreamParser, SameOutcomeWholeAndByteByByte)
{
    auto flip_body = [](int i) { return [=](bytes& b, const Offsets& o) { b[hdr_end(b, o[i])] ^= 1; }; };
    const Feed rows[] = {
        Feed("20 parts, bodies of 0..12", image(20)).result(VELK_SP_COMPLETE).status(3)
            .found(20).valid(20).invalid(0).headers(20).parts(all_valid(20)),
        Feed("21 parts", image(21)).result(VELK_SP_ERR_TOO_MANY).status(-1)
            .found(20).valid(20).invalid(0).headers(20).parts(all_valid(20)),
        Feed("bad body 1", image(3, flip_body(1))).result(VELK_SP_COMPLETE).status(3)
            .found(3).valid(2).invalid(1).headers(3).parts({kValid, kBad, kValid}),
        Feed("bad header 2", image(4, [](bytes& b, auto& o) { b[o[2] + 12] ^= 1; }))
            .result(VELK_SP_ERR_HEADER_CRC).status(-1).found(2).valid(2).invalid(0).headers(2).parts(all_valid(2)),
        Feed("hdr_length 28", image(3, [](bytes& b, auto& o) { b[o[1] + 6] = 28; }))
            .result(VELK_SP_ERR_SHORT_HEADER).status(-1).found(1).valid(1).invalid(0).headers(1).parts(all_valid(1)),
        Feed("file body_length 4 short", image(3, [](bytes& b, auto&) { b[16] -= 4; }))
            .result(VELK_SP_ERR_PAST_END).status(-1).found(3).valid(3).invalid(0).headers(3).parts(all_valid(3)),
        Feed("truncated", image(3, [](bytes& b, auto&) { b[17] += 1; })).result(VELK_SP_MORE).status(2)
            .found(3).valid(3).invalid(0).headers(3).parts(all_valid(3)),
        Feed("file header of 20", image(2, [](bytes& b, auto&) {
                 b.insert(b.begin() + 24, 4, 0);
                 b[14] = 20;
             })).result(VELK_SP_COMPLETE).status(3).found(2).valid(2).invalid(0).headers(2).parts(all_valid(2)),
        Feed("skip middle", image(3)).skipping({1}).result(VELK_SP_COMPLETE).status(3)
            .found(3).valid(2).invalid(1).headers(3).parts({kValid, kNotChecked, kValid}),
        Feed("skip last", image(3)).skipping({2}).result(VELK_SP_MORE).status(3)
            .found(3).valid(2).invalid(1).headers(3).parts({kValid, kValid, kNotChecked}),
        Feed("skip a bad body", image(4, flip_body(1))).skipping({1, 3}).result(VELK_SP_MORE).status(3)
            .found(4).valid(2).invalid(2).headers(4).parts({kValid, kNotChecked, kValid, kNotChecked}),
    };
    // Whole and byte by byte; no piece crosses the end of a header whose body is skipped.
    for (const Feed& row : rows)
        for (size_t piece : {size_t(1) << 30, size_t(1)}) {
            SCOPED_TRACE(row.what + (piece == 1 ? ", byte by byte" : ""));
            const bytes& img = row.img;
            const Offsets at = part_offsets(img);
            bytes buf(img.size(), 0xA5);  // skipped bytes never arrive
            velk_stream_parser p;
            std::copy_n(img.begin(), 24, buf.begin());
            velk_stream_parser_init(&p, buf.data());
            int r = velk_stream_parser_hdr(&p, 24);
            size_t pos = 24;
            while ((r == 1 || r == VELK_SP_MORE) && pos < img.size() && p.status != 3) {
                size_t len = std::min(piece, img.size() - pos);
                for (int k : row.skip)
                    if (hdr_end(img, at[k]) > pos) len = std::min(len, hdr_end(img, at[k]) - pos);
                std::copy_n(img.begin() + long(pos), len, buf.begin() + long(pos));
                r = velk_stream_parser_next(&p, uint32_t(len));
                const bool body_pending = r == VELK_SP_MORE && p.found_headers == p.found + 1;
                if (body_pending && std::count(row.skip.begin(), row.skip.end(), p.found))
                    len = velk_stream_parser_skip(&p) - pos;
                pos += len;
            }
            EXPECT_EQ(r, row.result_);
            EXPECT_EQ(p.status, row.status_);
            EXPECT_EQ(p.found, row.found_);
            EXPECT_EQ(p.valid, row.valid_);
            EXPECT_EQ(p.invalid, row.invalid_);
            EXPECT_EQ(p.found_headers, row.headers_);
            std::vector<int> validity;
            // An entry points into the buffer exactly when it is valid.
            for (int i = 0; i < int(VELK_MAX_PARTS); i++) {
                const int v = velk_stream_parser_content_part_is_valid(&p, i);
                validity.push_back(v);
                const uint8_t* points_to = reinterpret_cast<uint8_t*>(p.parts[i]);
                EXPECT_EQ(points_to, v ? buf.data() + at.at(size_t(i)) : nullptr) << "entry " << i;
            }
            EXPECT_EQ(validity, row.parts_);
        }
}

// A body of 5 bytes has 3 bytes of padding behind it: the part is counted, and its entry set, only once the
// padding has arrived too.
TEST(VelkStreamParser, CountsABodyOnlyAfterItsPadding)
{
    const bytes img = mkvelk::build_image({mkvelk::data("five", bytes(5, 0x55)), mkvelk::data("next", bytes(8, 1))});
    const size_t body_end = hdr_end(img, part_offsets(img).at(0)) + 5;
    for (size_t behind = 0; behind <= 3; behind++) {  // bytes of padding delivered
        SCOPED_TRACE(std::to_string(behind) + " bytes of padding");
        bytes buf = img;
        velk_stream_parser p;
        velk_stream_parser_init(&p, buf.data());
        ASSERT_EQ(velk_stream_parser_hdr(&p, 24), 1);
        EXPECT_EQ(velk_stream_parser_next(&p, uint32_t(body_end + behind - 24)), VELK_SP_MORE);
        const bool counted = behind == 3;
        EXPECT_EQ(velk_stream_parser_get_found_content_part_headers(&p), 1);
        EXPECT_EQ(velk_stream_parser_get_found_content_parts(&p), counted ? 1 : 0);
        EXPECT_EQ(velk_stream_parser_get_valid_content_parts(&p), counted ? 1 : 0);
        EXPECT_EQ(velk_stream_parser_content_part_is_valid(&p, 0), counted ? kValid : kNotChecked);
        EXPECT_EQ(velk_stream_parser_content_parts(&p)[0] != nullptr, counted);
    }
}

TEST(VelkStreamParserDeath, WrongStateAsserts)
{
    uint8_t buf[64] = {};
    velk_stream_parser p;
    velk_stream_parser* q = velk_stream_parser_init(&p, buf);
    // The panic line goes to standard output; the death test reads standard error.
    EXPECT_DEATH(
        {
            dup2(2, 1);
            (void)velk_stream_parser_next(q, 1);  // before the file header
        },
        "ASSERT in velk_stream_parser at");
    EXPECT_DEATH(
        {
            dup2(2, 1);
            (void)velk_stream_parser_skip(q);  // no body pending
        },
        "ASSERT in velk_stream_parser at");
    EXPECT_DEATH(
        {
            dup2(2, 1);
            q->status = 2;
            (void)velk_stream_parser_hdr(q, 24);  // the file header taken already
        },
        "ASSERT in velk_stream_parser at");
}

}  // namespace
