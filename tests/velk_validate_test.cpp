// VELK validation codes, checked on headers laid out here with zlib's CRC as the independent judge.
#include <gtest/gtest.h>
#include <zlib.h>

#include "velk/velk.h"

using bytes = std::vector<uint8_t>;

static void put(bytes& b, size_t at, uint32_t v, int n = 4)
{
    for (int k = 0; k < n; k++) b[at + size_t(k)] = uint8_t(v >> 8 * k);
}

TEST(VelkValidate, IdentificationFileHeaderAndContentPart)
{
    const auto ident = [](const char* s) { return velk_validate_identification(reinterpret_cast<const uint8_t*>(s)); };
    EXPECT_EQ(ident("KLEVVELK"), VELK_OK);
    EXPECT_EQ(ident("VELKKLEV"), VELK_ERR_IDENT);
    const struct {
        const char* what;
        bool file;  // a file header, else a content part
        uint16_t version_or_type, hdr_length;
        bytes body;
        std::vector<size_t> flipped;  // bytes flipped once the CRCs are in
        int header_result;            // of the header check
        int other_results;            // of every other check
        uint32_t body_crc_xor = 0;
    } rows[] = {
        {"file header of 24 bytes", true, 1, 24, bytes(5, 7), {}, VELK_OK, VELK_OK},
        // the body taken one byte early
        {"hdr_length 15 with its CRC", true, 1, 15, bytes(5, 7), {}, VELK_ERR_SHORT, VELK_ERR_BODY_CRC},
        {"version 2 before length", true, 2, 15, bytes(5, 7), {}, VELK_ERR_VERSION, VELK_ERR_BODY_CRC},
        {"file body_length changed", true, 1, 16, bytes(5, 7), {8}, VELK_ERR_HDR_CRC, VELK_ERR_BODY_CRC},
        {"longer header, any type id", false, 0xFFFF, 64, {9, 8, 7, 6, 5}, {}, VELK_OK, VELK_OK},
        {"empty body, another CRC", false, 3, 32, {}, {}, VELK_OK, VELK_ERR_BODY_CRC, 1},
        {"hdr_length 31", false, 3, 31, {1}, {}, VELK_ERR_SHORT, VELK_ERR_SHORT},
        {"type field changed", false, 4, 40, {1}, {39}, VELK_ERR_HDR_CRC, VELK_ERR_HDR_CRC},
        {"body_crc and body changed", false, 3, 32, {1}, {28, 32}, VELK_ERR_HDR_CRC, VELK_ERR_HDR_CRC},
    };
    // The body CRC at 12 behind a file header of 16 bytes at least, at 28 behind a part's of 32.
    for (const auto& r : rows) {
        SCOPED_TRACE(r.what);
        bytes b(std::max<size_t>(r.hdr_length, r.file ? 16 : 32), 0);
        put(b, 4, r.version_or_type, 2);
        put(b, 6, r.hdr_length, 2);
        put(b, 8, uint32_t(r.body.size()));
        put(b, r.file ? 12 : 28, uint32_t(crc32(0, r.body.data(), uInt(r.body.size()))) ^ r.body_crc_xor);
        put(b, 0, uint32_t(crc32(0, &b[4], r.hdr_length - 4u)));
        b.insert(b.end(), r.body.begin(), r.body.end());
        for (size_t i : r.flipped) b[i] ^= 1;
        const auto* h = reinterpret_cast<const velk_content_header*>(b.data());
        const auto* f = reinterpret_cast<const velk_header*>(h);
        if (r.file) {
            EXPECT_EQ(velk_validate_header(f), r.header_result);
            EXPECT_EQ(velk_validate_body_from_hdr(f), r.other_results);
            continue;
        }
        const uint8_t* body = b.data() + std::max<size_t>(r.hdr_length, 32);  // the part's checks by its three entries
        EXPECT_EQ(velk_validate_content_header(h), r.header_result);
        EXPECT_EQ(velk_validate_content_part(h, body), r.other_results);
        EXPECT_EQ(velk_validate_content_part_from_hdr(h), r.other_results);
        if (r.header_result == VELK_OK) {  // the body check assumes a header that passed its own
            EXPECT_EQ(velk_validate_content_body(h, body), r.other_results);
        }
    }
}
