// VELK container layout and validation.
#pragma once

#include <cstddef>
#include <cstdint>

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "VELK records are laid out for a little-endian host");

constexpr uint32_t VELK_ID_WORD1 = 0x56454C4B;  // "KLEV"
constexpr uint32_t VELK_ID_WORD2 = 0x4B4C4556;  // "VELK"
constexpr uint32_t VELK_ID_SIZE = 8;
constexpr uint32_t VELK_HEADER_SIZE = 16;
constexpr uint32_t VELK_CONTENT_HEADER_SIZE = 32;
constexpr uint32_t VELK_MAX_PARTS = 20;

enum velk_type : uint16_t {
    VELK_TYPE_RELEASE_HEADER = 1,
    VELK_TYPE_DATA = 3,
    VELK_TYPE_SOFTWARE = 4,
    VELK_TYPE_SIGNATURE = 7,
};

// Results of the validation functions.
constexpr int VELK_OK = 1;
constexpr int VELK_ERR_IDENT = -64;
constexpr int VELK_ERR_VERSION = -65;
constexpr int VELK_ERR_SHORT = -128;
constexpr int VELK_ERR_HDR_CRC = -129;
constexpr int VELK_ERR_BODY_CRC = -192;

struct velk_header {
    uint32_t hdr_crc;
    uint8_t version;
    uint8_t reserved;
    uint16_t hdr_length;
    uint32_t body_length;
    uint32_t body_crc;
};
static_assert(sizeof(velk_header) == 16);
static_assert(offsetof(velk_header, hdr_crc) == 0);
static_assert(offsetof(velk_header, version) == 4);
static_assert(offsetof(velk_header, reserved) == 5);
static_assert(offsetof(velk_header, hdr_length) == 6);
static_assert(offsetof(velk_header, body_length) == 8);
static_assert(offsetof(velk_header, body_crc) == 12);

struct velk_content_header {
    uint32_t hdr_crc;
    uint16_t type_id;
    uint16_t hdr_length;
    uint32_t body_length;
    char name[16];  // zero-padded; 16 characters fill it without a NUL
    uint32_t body_crc;
};
static_assert(sizeof(velk_content_header) == 32);
static_assert(offsetof(velk_content_header, hdr_crc) == 0);
static_assert(offsetof(velk_content_header, type_id) == 4);
static_assert(offsetof(velk_content_header, hdr_length) == 6);
static_assert(offsetof(velk_content_header, body_length) == 8);
static_assert(offsetof(velk_content_header, name) == 12);
static_assert(offsetof(velk_content_header, body_crc) == 28);

// The 44 bytes behind a release header's content header; a set keeps them
// as its release information.
struct velk_release_info {
    uint8_t release_version_major;
    uint8_t release_version_minor;
    uint16_t release_build_number;
    int32_t release_date;
    char release_build_id[36];
};
static_assert(sizeof(velk_release_info) == 44);
static_assert(offsetof(velk_release_info, release_build_number) == 2);
static_assert(offsetof(velk_release_info, release_date) == 4);
static_assert(offsetof(velk_release_info, release_build_id) == 8);

struct velk_release_header {
    velk_content_header hdr;
    velk_release_info info;
};
static_assert(sizeof(velk_release_header) == 76);
static_assert(offsetof(velk_release_header, info) == 32);

// A software content header is at most 64 bytes long; the build id runs
// from offset 36 to the header's end (the metadata keeps 28 bytes of it).
struct velk_software_content {
    velk_content_header hdr;
    uint8_t sw_version_major;
    uint8_t sw_version_minor;
    uint16_t sw_build_number;
    char sw_build_id[28];
};
static_assert(sizeof(velk_software_content) == 64);
static_assert(offsetof(velk_software_content, sw_version_major) == 32);
static_assert(offsetof(velk_software_content, sw_version_minor) == 33);
static_assert(offsetof(velk_software_content, sw_build_number) == 34);
static_assert(offsetof(velk_software_content, sw_build_id) == 36);
constexpr uint32_t VELK_SOFTWARE_HEADER_MAX = 64;

struct velk_signature_content {
    velk_content_header hdr;
    uint8_t algorithm_id;
    uint8_t reserved[3];
};
static_assert(sizeof(velk_signature_content) == 36);
static_assert(offsetof(velk_signature_content, algorithm_id) == 32);

// Catalog entry (printed only): found count at 4, entry length at 6, name at 12.
struct velk_catalog_entry {
    uint32_t reserved;
    uint16_t found;
    uint16_t length;
    uint32_t reserved2;
    char name[1];
};
static_assert(offsetof(velk_catalog_entry, found) == 4);
static_assert(offsetof(velk_catalog_entry, length) == 6);
static_assert(offsetof(velk_catalog_entry, name) == 12);

constexpr uint32_t velk_pad4(uint32_t n) { return (n + 3u) & ~3u; }

[[nodiscard]] int velk_validate_identification(const void* file);
[[nodiscard]] int velk_validate_header(const velk_header* hdr);
[[nodiscard]] int velk_validate_body(const velk_header* hdr, const void* body);
[[nodiscard]] int velk_validate_body_from_hdr(const velk_header* hdr);
[[nodiscard]] int velk_validate_content_header(const velk_content_header* part);
[[nodiscard]] int velk_validate_content_body(const velk_content_header* part, const void* body);
[[nodiscard]] int velk_validate_content_body_from_hdr(const velk_content_header* part);
[[nodiscard]] int velk_validate_content_part(const velk_content_header* part, const void* body);
[[nodiscard]] int velk_validate_content_part_from_hdr(const velk_content_header* part);
