// VELK validation codes, checked on headers laid out byte by byte here with
// zlib's CRC as the independent judge.
#include <gtest/gtest.h>
#include <zlib.h>

#include <vector>

#include "velk/velk.h"

using bytes = std::vector<uint8_t>;

static void put(bytes& b, size_t at, uint32_t v, int n = 4) { for (int k = 0; k < n; k++) b[at + k] = uint8_t(v >> 8 * k); }
static uint32_t zcrc(const bytes& b, size_t at, size_t n) { return uint32_t(crc32(0, b.data() + at, uInt(n))); }
static bytes flip(bytes b, std::initializer_list<size_t> at) { for (size_t i : at) b[i] ^= 1; return b; }

// File header (version, body CRC at 12, at least 16 bytes) or content part header (type id, body CRC at 28, at least
// 32 bytes) of hdr_length bytes with its CRC over hdr_length, then the body; the body CRC is that of `crc_of`.
static bytes header(size_t min, uint16_t word4, uint16_t hdr_length, const bytes& body, const bytes& crc_of)
{
    bytes b(std::max<size_t>(hdr_length, min), 0);
    put(b, 4, word4, 2), put(b, 6, hdr_length, 2), put(b, 8, uint32_t(body.size()));
    put(b, min == 16 ? 12 : 28, zcrc(crc_of, 0, crc_of.size())), put(b, 0, zcrc(b, 4, hdr_length - 4u));
    return b.insert(b.end(), body.begin(), body.end()), b;
}
static bytes file(uint8_t version, uint16_t hdr_length) { return header(16, version, hdr_length, bytes(5, 7), bytes(5, 7)); }
static bytes part(uint16_t type, uint16_t hdr_length, const bytes& body) { return header(32, type, hdr_length, body, body); }

TEST(VelkValidate, IdentificationFileHeaderAndContentPart)
{
    EXPECT_EQ(velk_validate_identification(reinterpret_cast<const uint8_t*>("KLEVVELK")), VELK_OK);
    EXPECT_EQ(velk_validate_identification(reinterpret_cast<const uint8_t*>("VELKKLEV")), VELK_ERR_IDENT);
    // File rows: validate_header, validate_body_from_hdr. Part rows: validate_content_header, then the part and its
    // body (validate_content_part, _from_hdr and, with a valid header, validate_content_body).
    const struct { const char* what; bool is_file; bytes b; int header, body; } rows[] = {
        {"header of 24 bytes", true, file(1, 24), VELK_OK, VELK_OK},
        // The body is taken hdr_length bytes behind the header: one byte early here.
        {"hdr_length 15 with its CRC", true, file(1, 15), VELK_ERR_SHORT, VELK_ERR_BODY_CRC},
        {"version 2 before length", true, file(2, 15), VELK_ERR_VERSION, VELK_ERR_BODY_CRC},
        {"body_length changed", true, flip(file(1, 16), {8}), VELK_ERR_HDR_CRC, VELK_ERR_BODY_CRC},
        {"body byte changed", true, flip(file(1, 16), {20}), VELK_OK, VELK_ERR_BODY_CRC},
        {"longer header, any type id", false, part(0xFFFF, 64, {9, 8, 7, 6, 5}), VELK_OK, VELK_OK},
        {"empty body", false, part(3, 32, {}), VELK_OK, VELK_OK},
        {"empty body, CRC of a byte", false, header(32, 3, 32, {}, {2}), VELK_OK, VELK_ERR_BODY_CRC},
        {"body byte changed", false, flip(part(3, 32, {1, 2, 3}), {33}), VELK_OK, VELK_ERR_BODY_CRC},
        {"hdr_length 31", false, part(3, 31, {1}), VELK_ERR_SHORT, VELK_ERR_SHORT},
        {"type field changed", false, flip(part(4, 40, {1}), {39}), VELK_ERR_HDR_CRC, VELK_ERR_HDR_CRC},
        {"body_crc and body changed", false, flip(part(3, 32, {1}), {28, 32}), VELK_ERR_HDR_CRC, VELK_ERR_HDR_CRC},
    };
    for (const auto& r : rows) {
        const auto* f = reinterpret_cast<const velk_header*>(r.b.data());
        const auto* h = reinterpret_cast<const velk_content_header*>(r.b.data());
        const uint8_t* body = r.b.data() + std::max<uint16_t>(h->hdr_length, 32);
        const auto got = r.is_file ? std::vector<int>{velk_validate_header(f), velk_validate_body_from_hdr(f)}
            : std::vector<int>{velk_validate_content_header(h), velk_validate_content_part(h, body), velk_validate_content_part_from_hdr(h),
                               r.header == VELK_OK ? velk_validate_content_body(h, body) : r.body};
        std::vector<int> want = {r.header, r.body, r.body, r.body};
        EXPECT_EQ(got, (want.resize(got.size()), want)) << r.what;
    }
}
