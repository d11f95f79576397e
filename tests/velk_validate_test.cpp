// VELK validation codes, checked on headers laid out byte by byte here with
// zlib's CRC as the independent judge.
#include <gtest/gtest.h>
#include <zlib.h>

#include <functional>

#include "velk/velk.h"

using bytes = std::vector<uint8_t>;

static void put(bytes& b, size_t at, uint32_t v, int n = 4) { for (int k = 0; k < n; k++) b[at + k] = uint8_t(v >> 8 * k); }
static uint32_t zcrc(const uint8_t* p, size_t n) { return uint32_t(crc32(0, p, uInt(n))); }
static void seal(bytes& b, size_t hdr_length) { put(b, 0, zcrc(b.data() + 4, hdr_length - 4)); }

// File header followed by a 5-byte body.
static bytes file(uint8_t version, uint16_t hdr_length)
{
    bytes b(std::max<size_t>(hdr_length, 16) + 5, 7);
    b[4] = version;
    put(b, 6, hdr_length, 2), put(b, 8, 5), put(b, 12, zcrc(b.data() + b.size() - 5, 5));
    return seal(b, std::max<size_t>(hdr_length, 4)), b;
}

// Content part as in a file: header of hdr_length bytes, then the body.
static bytes part(uint16_t type_id, uint16_t hdr_length, const bytes& body)
{
    bytes b(std::max<size_t>(hdr_length, 32), 0);
    put(b, 4, type_id, 2), put(b, 6, hdr_length, 2), put(b, 8, uint32_t(body.size()));
    put(b, 28, zcrc(body.data(), body.size())), seal(b, b.size());
    return b.insert(b.end(), body.begin(), body.end()), b;
}

TEST(VelkValidate, IdentificationFileHeaderAndContentPart)
{
    EXPECT_EQ(velk_validate_identification(reinterpret_cast<const uint8_t*>("KLEVVELK")), VELK_OK);
    EXPECT_EQ(velk_validate_identification(reinterpret_cast<const uint8_t*>("VELKKLEV")), VELK_ERR_IDENT);
    struct Row { const char* what; bytes b; std::function<void(bytes&)> change; int header, body; };
    const Row files[] = {  // validate_header, validate_body_from_hdr
        {"good", file(1, 16), nullptr, VELK_OK, VELK_OK},
        {"header of 24 bytes", file(1, 24), nullptr, VELK_OK, VELK_OK},
        // The body is taken hdr_length bytes behind the header: one byte early here.
        {"hdr_length 15 with its CRC", file(1, 15), nullptr, VELK_ERR_SHORT, VELK_ERR_BODY_CRC},
        {"version 2 before length", file(2, 15), nullptr, VELK_ERR_VERSION, VELK_ERR_BODY_CRC},
        {"body_length changed", file(1, 16), [](bytes& b) { b[8] = 4; }, VELK_ERR_HDR_CRC, VELK_ERR_BODY_CRC},
        {"body byte changed", file(1, 16), [](bytes& b) { b.back() ^= 1; }, VELK_OK, VELK_ERR_BODY_CRC},
    };
    for (Row r : files) {
        if (r.change) r.change(r.b);
        const auto* h = reinterpret_cast<const velk_header*>(r.b.data());
        EXPECT_EQ(std::pair(velk_validate_header(h), velk_validate_body_from_hdr(h)), std::pair(r.header, r.body)) << r.what;
    }
    const Row parts[] = {  // validate_content_header; then the part and its body alone
        {"good, any type id", part(0xFFFF, 32, {9, 8, 7, 6, 5}), nullptr, VELK_OK, VELK_OK},
        {"longer header", part(4, 64, {1, 2}), nullptr, VELK_OK, VELK_OK},
        {"empty body", part(3, 32, {}), nullptr, VELK_OK, VELK_OK},
        {"empty body, crc 1", part(3, 32, {}), [](bytes& b) { put(b, 28, 1), seal(b, 32); }, VELK_OK, VELK_ERR_BODY_CRC},
        {"body byte changed", part(3, 32, {1, 2, 3}), [](bytes& b) { b[33] ^= 1; }, VELK_OK, VELK_ERR_BODY_CRC},
        {"hdr_length 31", part(3, 31, {1}), nullptr, VELK_ERR_SHORT, VELK_ERR_SHORT},
        {"body_crc changed", part(3, 32, {1}), [](bytes& b) { b[28] ^= 1; }, VELK_ERR_HDR_CRC, VELK_ERR_HDR_CRC},
        {"type field changed", part(4, 40, {1}), [](bytes& b) { b[39] ^= 1; }, VELK_ERR_HDR_CRC, VELK_ERR_HDR_CRC},
        {"bad header and body", part(3, 32, {1}), [](bytes& b) { b[12] ^= 1, b[32] ^= 1; }, VELK_ERR_HDR_CRC, VELK_ERR_HDR_CRC},
    };
    for (Row r : parts) {
        if (r.change) r.change(r.b);
        const auto* h = reinterpret_cast<const velk_content_header*>(r.b.data());
        const uint8_t* body = r.b.data() + std::max<uint16_t>(h->hdr_length, 32);
        EXPECT_EQ(velk_validate_content_header(h), r.header) << r.what;
        EXPECT_EQ(std::pair(velk_validate_content_part(h, body), velk_validate_content_part_from_hdr(h)),
                  std::pair(r.body, r.body)) << r.what;
        if (r.header == VELK_OK) { EXPECT_EQ(velk_validate_content_body(h, body), r.body) << r.what; }
    }
}
