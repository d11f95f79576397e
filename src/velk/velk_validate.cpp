// Checks of the VELK identification, file header and content parts.
#include "velk/velk.h"

#include <cstring>

#include "base/console.h"
#include "base/fileutil.h"

namespace {

const uint8_t* bytes_of(const void* p) { return static_cast<const uint8_t*>(p); }

// The header CRC starts behind the hdr_crc word and runs to the header's end.
uint32_t header_crc(const void* hdr, uint32_t hdr_length)
{
    return crc32_calc(0, bytes_of(hdr) + 4, hdr_length - 4);
}

int check_body(uint32_t expected, const void* body, uint32_t length)
{
    return crc32_calc(0, body, length) == expected ? VELK_OK : VELK_ERR_BODY_CRC;
}

}  // namespace

int velk_validate_identification(const void* file)
{
    KOR_ASSERT("velk_validate", file != nullptr);
    uint32_t words[2];
    std::memcpy(words, file, sizeof words);
    if (words[0] != VELK_ID_WORD1 || words[1] != VELK_ID_WORD2) return VELK_ERR_IDENT;
    return VELK_OK;
}

int velk_validate_header(const velk_header* hdr)
{
    KOR_ASSERT("velk_validate", hdr != nullptr);
    if (hdr->version != 1) return VELK_ERR_VERSION;
    if (hdr->hdr_length < VELK_HEADER_SIZE) return VELK_ERR_SHORT;
    if (header_crc(hdr, hdr->hdr_length) != hdr->hdr_crc) return VELK_ERR_HDR_CRC;
    return VELK_OK;
}

int velk_validate_body(const velk_header* hdr, const void* body)
{
    KOR_ASSERT("velk_validate", hdr != nullptr);
    KOR_ASSERT("velk_validate", body != nullptr);
    return check_body(hdr->body_crc, body, hdr->body_length);
}

int velk_validate_body_from_hdr(const velk_header* hdr)
{
    KOR_ASSERT("velk_validate", hdr != nullptr);
    return velk_validate_body(hdr, bytes_of(hdr) + hdr->hdr_length);
}

int velk_validate_content_header(const velk_content_header* part)
{
    KOR_ASSERT("velk_validate", part != nullptr);
    if (part->hdr_length < VELK_CONTENT_HEADER_SIZE) return VELK_ERR_SHORT;
    if (header_crc(part, part->hdr_length) != part->hdr_crc) return VELK_ERR_HDR_CRC;
    return VELK_OK;
}

int velk_validate_content_body(const velk_content_header* part, const void* body)
{
    KOR_ASSERT("velk_validate", part != nullptr);
    KOR_ASSERT("velk_validate", body != nullptr);
    return check_body(part->body_crc, body, part->body_length);
}

int velk_validate_content_body_from_hdr(const velk_content_header* part)
{
    KOR_ASSERT("velk_validate", part != nullptr);
    return velk_validate_content_body(part, bytes_of(part) + part->hdr_length);
}

int velk_validate_content_part(const velk_content_header* part, const void* body)
{
    int r = velk_validate_content_header(part);
    if (r != VELK_OK) return r;
    return velk_validate_content_body(part, body);
}

int velk_validate_content_part_from_hdr(const velk_content_header* part)
{
    int r = velk_validate_content_header(part);
    if (r != VELK_OK) return r;
    return velk_validate_content_body_from_hdr(part);
}
