// Recomputes the CRCs of a fuzzer-made VELK image before a target reads
// it, so that mutations behind the checks reach the code past them. Only
// what lies wholly inside the image is touched; the rest stays as made.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "base/fileutil.h"
#include "velk/velk.h"

namespace fuzz {

// Fields at any offset: the image may place a part anywhere.
inline uint32_t get32(const uint8_t* p)
{
    uint32_t v;
    std::memcpy(&v, p, 4);
    return v;
}
inline uint16_t get16(const uint8_t* p)
{
    uint16_t v;
    std::memcpy(&v, p, 2);
    return v;
}
inline void put32(uint8_t* p, uint32_t v) { std::memcpy(p, &v, 4); }

// Body CRC at +crc_at over `length` bytes at `body`, then the header CRC
// over the header's bytes 4 to `hdr_length`.
inline void seal(uint8_t* hdr, uint32_t hdr_length, uint32_t crc_at, const uint8_t* body,
                 uint32_t length)
{
    put32(hdr + crc_at, crc32_calc(0, body, length));
    put32(hdr, crc32_calc(0, hdr + 4, hdr_length - 4));
}

// `first_part`: where content parts begin (8 + the file header's length in
// a release image, 24 in a hostconfig image).
inline void fix_crcs(uint8_t* image, size_t size, size_t first_part)
{
    crc32_init();
    size_t at = first_part;
    while (at + VELK_CONTENT_HEADER_SIZE <= size) {
        uint8_t* part = image + at;
        uint32_t hdr_length = get16(part + 6);
        uint64_t body_length = get32(part + 8);
        if (hdr_length < VELK_CONTENT_HEADER_SIZE || at + hdr_length + body_length > size) break;
        seal(part, hdr_length, 28, part + hdr_length, static_cast<uint32_t>(body_length));
        at += hdr_length + velk_pad4(static_cast<uint32_t>(body_length));
    }
    if (size < VELK_ID_SIZE + VELK_HEADER_SIZE) return;
    uint8_t* header = image + VELK_ID_SIZE;
    uint32_t hdr_length = get16(header + 6);
    uint64_t body_length = get32(header + 8);
    if (hdr_length < VELK_HEADER_SIZE || VELK_ID_SIZE + hdr_length + body_length > size) return;
    seal(header, hdr_length, 12, header + hdr_length, static_cast<uint32_t>(body_length));
}

}  // namespace fuzz
