// VELK validation codes, checked on headers laid out byte by byte here with
// zlib's CRC as the independent judge.
#include <gtest/gtest.h>
#include <zlib.h>

#include <unistd.h>

#include <cstring>
#include <functional>
#include <vector>

#include "velk/velk.h"

namespace {

using bytes = std::vector<uint8_t>;

void put32(bytes& b, size_t at, uint32_t v)
{
    for (int k = 0; k < 4; k++) b[at + k] = uint8_t(v >> (8 * k));
}
void put16(bytes& b, size_t at, uint16_t v)
{
    b[at] = uint8_t(v);
    b[at + 1] = uint8_t(v >> 8);
}
uint32_t zcrc(const uint8_t* p, size_t n) { return uint32_t(crc32(0, p, uInt(n))); }
void seal(bytes& b, size_t hdr_length) { put32(b, 0, zcrc(b.data() + 4, hdr_length - 4)); }

// File header: version, hdr_length, body_length 0 / CRC 0, then sealed.
bytes file_header(uint8_t version, uint16_t hdr_length)
{
    bytes b(hdr_length < 16 ? 16 : hdr_length, 0);
    b[4] = version;
    put16(b, 6, hdr_length);
    for (size_t k = 16; k < b.size(); k++) b[k] = uint8_t(k);
    seal(b, hdr_length < 4 ? 4 : hdr_length);
    return b;
}

// Content part laid out as in a file: header (hdr_length bytes) then body.
bytes content_part(uint16_t type_id, uint16_t hdr_length, const bytes& body)
{
    bytes b(std::max<size_t>(hdr_length, 32) + body.size(), 0);
    put16(b, 4, type_id);
    put16(b, 6, hdr_length);
    put32(b, 8, uint32_t(body.size()));
    std::memcpy(&b[12], "rootfs", 6);
    put32(b, 28, zcrc(body.data(), body.size()));
    std::copy(body.begin(), body.end(), b.begin() + std::max<size_t>(hdr_length, 32));
    seal(b, std::max<size_t>(hdr_length, 32));
    return b;
}

const auto* fh(const bytes& b) { return reinterpret_cast<const velk_header*>(b.data()); }
const auto* ch(const bytes& b) { return reinterpret_cast<const velk_content_header*>(b.data()); }

TEST(VelkValidate, Identification)
{
    struct Row { const char* what; bytes id; int expect; };
    const Row rows[] = {
        {"KLEV VELK", {'K', 'L', 'E', 'V', 'V', 'E', 'L', 'K'}, VELK_OK},
        {"words swapped", {'V', 'E', 'L', 'K', 'K', 'L', 'E', 'V'}, VELK_ERR_IDENT},
        {"last byte off", {'K', 'L', 'E', 'V', 'V', 'E', 'L', 'k'}, VELK_ERR_IDENT},
        {"zeros", bytes(8, 0), VELK_ERR_IDENT},
    };
    for (const Row& r : rows) EXPECT_EQ(velk_validate_identification(r.id.data()), r.expect) << r.what;
}

TEST(VelkValidate, FileHeader)
{
    struct Row { const char* what; bytes hdr; int expect; };
    bytes stale = file_header(1, 16);
    stale[9] ^= 1;  // body_length changed after sealing
    bytes short_sealed = file_header(1, 15);
    bytes extra = file_header(1, 24);
    bytes extra_changed = extra;
    extra_changed[20] ^= 0x80;  // byte beyond 16 is covered by the CRC
    const Row rows[] = {
        {"good", file_header(1, 16), VELK_OK},
        {"longer header", extra, VELK_OK},
        {"byte of longer header changed", extra_changed, VELK_ERR_HDR_CRC},
        {"hdr_length 15 with its CRC", short_sealed, VELK_ERR_SHORT},
        {"version 2 before length", file_header(2, 15), VELK_ERR_VERSION},
        {"version 0", file_header(0, 16), VELK_ERR_VERSION},
        {"body_length changed", stale, VELK_ERR_HDR_CRC},
    };
    for (const Row& r : rows) EXPECT_EQ(velk_validate_header(fh(r.hdr)), r.expect) << r.what;
}

TEST(VelkValidate, FileBody)
{
    bytes body = {1, 2, 3, 4, 5};
    bytes f = file_header(1, 16);
    put32(f, 8, uint32_t(body.size()));
    put32(f, 12, zcrc(body.data(), body.size()));
    f.insert(f.end(), body.begin(), body.end());
    EXPECT_EQ(velk_validate_body_from_hdr(fh(f)), VELK_OK);
    EXPECT_EQ(velk_validate_body(fh(f), body.data()), VELK_OK);
    f.back() ^= 1;
    EXPECT_EQ(velk_validate_body_from_hdr(fh(f)), VELK_ERR_BODY_CRC);
}

TEST(VelkValidate, ContentPart)
{
    using Mutate = std::function<void(bytes&)>;
    struct Row { const char* what; uint16_t type; uint16_t hdr_length; bytes body; Mutate change;
                 int header; int part; };
    const Mutate none = [](bytes&) {};
    const Row rows[] = {
        {"good", 3, 32, {9, 8, 7, 6, 5}, none, VELK_OK, VELK_OK},
        {"any type id", 0xFFFF, 32, {1}, none, VELK_OK, VELK_OK},
        {"longer header", 4, 64, {1, 2}, none, VELK_OK, VELK_OK},
        {"empty body", 3, 32, {}, none, VELK_OK, VELK_OK},
        {"empty body, crc not 0", 3, 32, {}, [](bytes& b) { put32(b, 28, 1); seal(b, 32); },
         VELK_OK, VELK_ERR_BODY_CRC},
        {"body byte changed", 3, 32, {1, 2, 3}, [](bytes& b) { b[33] ^= 1; }, VELK_OK, VELK_ERR_BODY_CRC},
        {"hdr_length 31", 3, 31, {1}, none, VELK_ERR_SHORT, VELK_ERR_SHORT},
        {"name byte changed", 3, 32, {1}, [](bytes& b) { b[13] ^= 1; }, VELK_ERR_HDR_CRC, VELK_ERR_HDR_CRC},
        {"body_crc changed", 3, 32, {1}, [](bytes& b) { b[28] ^= 1; }, VELK_ERR_HDR_CRC, VELK_ERR_HDR_CRC},
        {"type extra changed", 4, 40, {1}, [](bytes& b) { b[39] ^= 1; }, VELK_ERR_HDR_CRC, VELK_ERR_HDR_CRC},
        {"bad header, bad body", 3, 32, {1}, [](bytes& b) { b[12] ^= 1; b[32] ^= 1; },
         VELK_ERR_HDR_CRC, VELK_ERR_HDR_CRC},
    };
    for (const Row& r : rows) {
        bytes b = content_part(r.type, r.hdr_length, r.body);
        r.change(b);
        const uint8_t* body = b.data() + std::max<uint16_t>(r.hdr_length, 32);
        EXPECT_EQ(velk_validate_content_header(ch(b)), r.header) << r.what;
        EXPECT_EQ(velk_validate_content_part(ch(b), body), r.part) << r.what;
        EXPECT_EQ(velk_validate_content_part_from_hdr(ch(b)), r.part) << r.what;
        if (r.header == VELK_OK) {
            EXPECT_EQ(velk_validate_content_body(ch(b), body), r.part) << r.what;
            EXPECT_EQ(velk_validate_content_body_from_hdr(ch(b)), r.part) << r.what;
        }
    }
}

// The panic line goes to standard output; the death test reads standard error.
#define EXPECT_ASSERT(stmt) \
    EXPECT_DEATH({ dup2(2, 1); (void)(stmt); }, "Panic: \\*\\*\\* ASSERT in velk_validate at")

TEST(VelkValidateDeath, NullPointersAssert)
{
    bytes b = content_part(3, 32, {1});
    EXPECT_ASSERT(velk_validate_identification(nullptr));
    EXPECT_ASSERT(velk_validate_header(nullptr));
    EXPECT_ASSERT(velk_validate_content_header(nullptr));
    EXPECT_ASSERT(velk_validate_content_body(ch(b), nullptr));
}

}  // namespace
