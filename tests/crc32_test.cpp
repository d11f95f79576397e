// crc32_calc against zlib's crc32() as the independent judge: every length
// around the 16- and 64-byte steps of the folded path, every misalignment,
// the inverted and zero start values, and a result chained over pieces.
#include <gtest/gtest.h>
#include <zlib.h>

#include <random>
#include <vector>

#include "base/fileutil.h"

TEST(Crc32, MatchesZlibForEveryLengthOffsetAndStart)
{
    std::vector<uint8_t> buf((1 << 20) + 64);
    std::mt19937 rng(7);
    for (auto& b : buf) b = static_cast<uint8_t>(rng());
    const uint32_t starts[] = {0, 0xffffffffu, 0x2144df1cu};
    const uint32_t big[] = {1u << 20, (1u << 20) - 1, 65536 + 48 + 7};
    for (uint32_t start : starts)
        for (uint32_t off = 0; off < 16; ++off) {
            for (uint32_t len = 0; len <= 300; ++len)
                ASSERT_EQ(crc32_calc(start, &buf[off], len), crc32(start, &buf[off], len))
                    << "start " << start << " offset " << off << " length " << len;
            for (uint32_t len : big)
                ASSERT_EQ(crc32_calc(start, &buf[off], len), crc32(start, &buf[off], len)) << len;
        }
    uint32_t chained = 0;
    for (uint32_t at = 0, n = 1; at < (1u << 20); at += n, n = n * 3 % 4099 + 1)
        chained = crc32_calc(chained, &buf[at], std::min(n, (1u << 20) - at));
    EXPECT_EQ(chained, crc32(0, buf.data(), 1u << 20));
}
