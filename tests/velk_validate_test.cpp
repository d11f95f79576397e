// VELK validation codes, checked on headers laid out byte by byte here with
// zlib's CRC as the independent judge.
#include <gtest/gtest.h>
#include <zlib.h>

#include <functional>
#include <vector>

#include "velk/velk.h"

namespace {

using bytes = std::vector<uint8_t>;
using Change = std::function<void(bytes&)>;

void put(bytes& b, size_t at, uint32_t v, int n = 4)
{
    for (int k = 0; k < n; k++) b[at + k] = uint8_t(v >> (8 * k));
}
uint32_t zcrc(const uint8_t* p, size_t n) { return uint32_t(crc32(0, p, uInt(n))); }
void seal(bytes& b, size_t hdr_length) { put(b, 0, zcrc(b.data() + 4, hdr_length - 4)); }

// File header followed by a 5-byte body.
bytes file(uint8_t version, uint16_t hdr_length)
{
    bytes b(std::max<size_t>(hdr_length, 16) + 5, 7);
    b[4] = version;
    put(b, 6, hdr_length, 2);
    put(b, 8, 5);
    put(b, 12, zcrc(b.data() + b.size() - 5, 5));
    seal(b, std::max<size_t>(hdr_length, 4));
    return b;
}

// Content part as in a file: header of hdr_length bytes, then the body.
bytes part(uint16_t type_id, uint16_t hdr_length, const bytes& body)
{
    size_t h = std::max<size_t>(hdr_length, 32);
    bytes b(h, 0);
    b.insert(b.end(), body.begin(), body.end());
    put(b, 4, type_id, 2);
    put(b, 6, hdr_length, 2);
    put(b, 8, uint32_t(body.size()));
    put(b, 28, zcrc(body.data(), body.size()));
    seal(b, h);
    return b;
}

template <class T> const T* as(const bytes& b) { return reinterpret_cast<const T*>(b.data()); }

TEST(VelkValidate, IdentificationAndFileHeader)
{
    const bytes id = {'K', 'L', 'E', 'V', 'V', 'E', 'L', 'K'}, swapped = {'V', 'E', 'L', 'K', 'K', 'L', 'E', 'V'};
    EXPECT_EQ(velk_validate_identification(id.data()), VELK_OK);
    EXPECT_EQ(velk_validate_identification(swapped.data()), VELK_ERR_IDENT);
    struct Row { const char* what; bytes hdr; Change after_seal; int header, body; };
    const Change none = [](bytes&) {};
    const Row rows[] = {
        {"good", file(1, 16), none, VELK_OK, VELK_OK},
        {"header of 24 bytes", file(1, 24), none, VELK_OK, VELK_OK},
        // The body is taken hdr_length bytes behind the header: one byte early here.
        {"hdr_length 15 with its CRC", file(1, 15), none, VELK_ERR_SHORT, VELK_ERR_BODY_CRC},
        {"version 2 before length", file(2, 15), none, VELK_ERR_VERSION, VELK_ERR_BODY_CRC},
        {"body_length changed", file(1, 16), [](bytes& b) { b[8] = 4; }, VELK_ERR_HDR_CRC, VELK_ERR_BODY_CRC},
        {"body byte changed", file(1, 16), [](bytes& b) { b.back() ^= 1; }, VELK_OK, VELK_ERR_BODY_CRC},
    };
    for (Row r : rows) {
        r.after_seal(r.hdr);
        EXPECT_EQ(velk_validate_header(as<velk_header>(r.hdr)), r.header) << r.what;
        EXPECT_EQ(velk_validate_body_from_hdr(as<velk_header>(r.hdr)), r.body) << r.what;
    }
}

TEST(VelkValidate, ContentPart)
{
    struct Row { const char* what; bytes b; Change change; int header, part; };
    const Change none = [](bytes&) {};
    const Row rows[] = {
        {"good", part(3, 32, {9, 8, 7, 6, 5}), none, VELK_OK, VELK_OK},
        {"any type id", part(0xFFFF, 32, {1}), none, VELK_OK, VELK_OK},
        {"longer header", part(4, 64, {1, 2}), none, VELK_OK, VELK_OK},
        {"empty body", part(3, 32, {}), none, VELK_OK, VELK_OK},
        {"empty body, crc 1", part(3, 32, {}), [](bytes& b) { put(b, 28, 1), seal(b, 32); }, VELK_OK, VELK_ERR_BODY_CRC},
        {"body byte changed", part(3, 32, {1, 2, 3}), [](bytes& b) { b[33] ^= 1; }, VELK_OK, VELK_ERR_BODY_CRC},
        {"hdr_length 31", part(3, 31, {1}), none, VELK_ERR_SHORT, VELK_ERR_SHORT},
        {"name byte changed", part(3, 32, {1}), [](bytes& b) { b[13] ^= 1; }, VELK_ERR_HDR_CRC, VELK_ERR_HDR_CRC},
        {"body_crc changed", part(3, 32, {1}), [](bytes& b) { b[28] ^= 1; }, VELK_ERR_HDR_CRC, VELK_ERR_HDR_CRC},
        {"type field changed", part(4, 40, {1}), [](bytes& b) { b[39] ^= 1; }, VELK_ERR_HDR_CRC, VELK_ERR_HDR_CRC},
        {"bad header and body", part(3, 32, {1}), [](bytes& b) { b[12] ^= 1, b[32] ^= 1; }, VELK_ERR_HDR_CRC, VELK_ERR_HDR_CRC},
    };
    for (Row r : rows) {
        r.change(r.b);
        const auto* h = as<velk_content_header>(r.b);
        const uint8_t* body = r.b.data() + std::max<uint16_t>(h->hdr_length, 32);
        EXPECT_EQ(velk_validate_content_header(h), r.header) << r.what;
        EXPECT_EQ(velk_validate_content_part(h, body), r.part) << r.what;
        EXPECT_EQ(velk_validate_content_part_from_hdr(h), r.part) << r.what;
        if (r.header == VELK_OK) {
            EXPECT_EQ(velk_validate_content_body(h, body), r.part) << r.what;
        }
    }
}

}  // namespace
