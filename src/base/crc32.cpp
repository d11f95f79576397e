// CRC-32 of IEEE 802.3 (reflected 0xEDB88320, inverted before and after,
// chained through the previous result): the checksum of every VELK part.
// Every image byte is checked twice per install (on arrival and read back
// from the partition), so on processors with a carry-less multiply the bulk
// of a buffer is folded 64 bytes at a time; zlib's sliced tables do the rest
// and everything on other processors.
#include <zlib.h>

#include "base/fileutil.h"

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#include <immintrin.h>
#define KOR_CRC_FOLD 1
#endif

namespace {

uint32_t crc32_table(uint32_t crc, const uint8_t* p, uint32_t length)
{
    if (length == 0) return crc;
    return static_cast<uint32_t>(::crc32(crc, p, static_cast<uInt>(length)));
}

#if KOR_CRC_FOLD

// Folding constants of the reflected polynomial: x^(512+32), x^(512-32),
// x^(128+32), x^(128-32) and x^64 mod P, shifted by one bit; then P and
// the Barrett quotient floor(x^64 / P), both reflected.
alignas(16) constexpr uint64_t FOLD_512[2] = {0x154442bd4, 0x1c6e41596};
alignas(16) constexpr uint64_t FOLD_128[2] = {0x1751997d0, 0x0ccaa009e};
alignas(16) constexpr uint64_t FOLD_64[2] = {0x163cd6124, 0};
alignas(16) constexpr uint64_t BARRETT[2] = {0x1db710641, 0x1f7011641};

__attribute__((target("pclmul,sse4.1"))) inline __m128i fold(__m128i x, __m128i k,
                                                             __m128i next)
{
    __m128i lo = _mm_clmulepi64_si128(x, k, 0x00);
    __m128i hi = _mm_clmulepi64_si128(x, k, 0x11);
    return _mm_xor_si128(_mm_xor_si128(hi, lo), next);
}

inline __m128i load(const uint8_t* p)
{
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
}

// `reg` is the inverted register; `length` is at least 64 and a multiple
// of 16.
__attribute__((target("pclmul,sse4.1"))) uint32_t crc32_fold(uint32_t reg, const uint8_t* p,
                                                             uint32_t length)
{
    __m128i x1 = _mm_xor_si128(load(p), _mm_cvtsi32_si128(static_cast<int>(reg)));
    __m128i x2 = load(p + 16);
    __m128i x3 = load(p + 32);
    __m128i x4 = load(p + 48);
    p += 64;
    length -= 64;

    __m128i k = _mm_load_si128(reinterpret_cast<const __m128i*>(FOLD_512));
    for (; length >= 64; p += 64, length -= 64) {
        x1 = fold(x1, k, load(p));
        x2 = fold(x2, k, load(p + 16));
        x3 = fold(x3, k, load(p + 32));
        x4 = fold(x4, k, load(p + 48));
    }

    k = _mm_load_si128(reinterpret_cast<const __m128i*>(FOLD_128));
    x1 = fold(x1, k, x2);
    x1 = fold(x1, k, x3);
    x1 = fold(x1, k, x4);
    for (; length >= 16; p += 16, length -= 16) x1 = fold(x1, k, load(p));

    // 128 bits to 64, to 32, then Barrett's reduction to the register.
    const __m128i low32 = _mm_setr_epi32(~0, 0, ~0, 0);
    __m128i x2b = _mm_clmulepi64_si128(x1, k, 0x10);
    x1 = _mm_xor_si128(_mm_srli_si128(x1, 8), x2b);
    k = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(FOLD_64));
    x2b = _mm_srli_si128(x1, 4);
    x1 = _mm_xor_si128(_mm_clmulepi64_si128(_mm_and_si128(x1, low32), k, 0x00), x2b);

    k = _mm_load_si128(reinterpret_cast<const __m128i*>(BARRETT));
    x2b = _mm_clmulepi64_si128(_mm_and_si128(x1, low32), k, 0x10);
    x2b = _mm_clmulepi64_si128(_mm_and_si128(x2b, low32), k, 0x00);
    x1 = _mm_xor_si128(x1, x2b);
    return static_cast<uint32_t>(_mm_extract_epi32(x1, 1));
}

bool have_fold()
{
    static const bool yes = [] {
        __builtin_cpu_init();
        return __builtin_cpu_supports("pclmul") && __builtin_cpu_supports("sse4.1");
    }();
    return yes;
}

#endif

}  // namespace

void crc32_init() {}

uint32_t crc32_calc(uint32_t crc, const void* buffer, uint32_t length)
{
    const auto* p = static_cast<const uint8_t*>(buffer);
#if KOR_CRC_FOLD
    if (length >= 64 && have_fold()) {
        uint32_t bulk = length & ~uint32_t{15};
        crc = ~crc32_fold(~crc, p, bulk);
        p += bulk;
        length -= bulk;
    }
#endif
    return crc32_table(crc, p, length);
}
