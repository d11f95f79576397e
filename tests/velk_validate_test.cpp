// VELK validation codes, checked on headers laid out here with zlib's CRC as the independent judge.
#include <gtest/gtest.h>
#include <zlib.h>

#include "velk/velk.h"

using bytes = std::vector<uint8_t>;

static void put(bytes& b, size_t at, uint32_t v, int n = 4) { for (int k = 0; k < n; k++) b[at + k] = uint8_t(v >> 8 * k); }

TEST(VelkValidate, IdentificationFileHeaderAndContentPart)
{
    const auto ident = [](const char* s) { return velk_validate_identification(reinterpret_cast<const uint8_t*>(s)); };
    EXPECT_EQ(std::pair(ident("KLEVVELK"), ident("VELKKLEV")), std::pair(VELK_OK, VELK_ERR_IDENT));
    // File header or content part: version or type, hdr_length, body, bytes flipped once the CRCs are in, header code, others
    const struct { const char* what; bool file; uint16_t word4, hdr_length; bytes body, flip; int hdr, rest, crc_xor = 0; } rows[] = {
        {"file header of 24 bytes", true, 1, 24, bytes(5, 7), {}, VELK_OK, VELK_OK},
        {"hdr_length 15 with its CRC", true, 1, 15, bytes(5, 7), {}, VELK_ERR_SHORT, VELK_ERR_BODY_CRC},  // body 1 byte early
        {"version 2 before length", true, 2, 15, bytes(5, 7), {}, VELK_ERR_VERSION, VELK_ERR_BODY_CRC},
        {"file body_length changed", true, 1, 16, bytes(5, 7), {8}, VELK_ERR_HDR_CRC, VELK_ERR_BODY_CRC},
        {"longer header, any type id", false, 0xFFFF, 64, {9, 8, 7, 6, 5}, {}, VELK_OK, VELK_OK},
        {"empty body, another CRC", false, 3, 32, {}, {}, VELK_OK, VELK_ERR_BODY_CRC, 1},
        {"hdr_length 31", false, 3, 31, {1}, {}, VELK_ERR_SHORT, VELK_ERR_SHORT},
        {"type field changed", false, 4, 40, {1}, {39}, VELK_ERR_HDR_CRC, VELK_ERR_HDR_CRC},
        {"body_crc and body changed", false, 3, 32, {1}, {28, 32}, VELK_ERR_HDR_CRC, VELK_ERR_HDR_CRC},
    };
    for (const auto& r : rows) {  // body CRC at 12 behind a file header of 16 bytes at least, at 28 behind a part's of 32
        bytes b(std::max<size_t>(r.hdr_length, r.file ? 16 : 32), 0);
        put(b, 4, r.word4, 2), put(b, 6, r.hdr_length, 2), put(b, 8, uint32_t(r.body.size()));
        put(b, r.file ? 12 : 28, uint32_t(crc32(0, r.body.data(), uInt(r.body.size())) ^ uint32_t(r.crc_xor)));
        put(b, 0, uint32_t(crc32(0, &b[4], r.hdr_length - 4u))), b.insert(b.end(), r.body.begin(), r.body.end());
        for (size_t i : r.flip) b[i] ^= 1;
        const auto* h = reinterpret_cast<const velk_content_header*>(b.data());
        const auto* f = reinterpret_cast<const velk_header*>(h);
        const uint8_t* body = b.data() + std::max<size_t>(r.hdr_length, 32);  // the part's checks by its three entries
        const std::vector<int> got = r.file ? std::vector<int>{velk_validate_header(f), velk_validate_body_from_hdr(f)}
            : std::vector<int>{velk_validate_content_header(h), velk_validate_content_part(h, body),
                               velk_validate_content_part_from_hdr(h), r.hdr == VELK_OK ? velk_validate_content_body(h, body) : r.rest};
        std::vector<int> want(got.size(), r.rest);
        EXPECT_EQ(got, (want[0] = r.hdr, want)) << r.what;
    }
}
