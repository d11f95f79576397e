// Incremental VELK parser over a caller-owned image buffer.
#pragma once

#include <cstdint>

#include "velk/velk.h"

struct velk_part_info {
    uint8_t header_seen;
    int8_t valid;  // 1 body CRC good, -1 bad, 0 not checked
    uint8_t covered_by_signature;
    uint8_t validated_by_signature;
};

struct velk_stream_parser {
    int32_t status;  // 1 init, 2 header taken, 3 complete, -1 failed
    uint8_t* buffer;
    velk_header* header;
    uint32_t position;
    velk_content_header* current;
    uint32_t index;
    uint32_t available;
    uint32_t end;
    velk_content_header* parts[VELK_MAX_PARTS];
    int32_t found;
    int32_t valid;
    int32_t invalid;
    velk_part_info info[VELK_MAX_PARTS];
    int32_t found_headers;
    uint32_t parse_state;
    uint8_t allocated;  // init allocated the record; deinit frees it
};

constexpr int VELK_SP_MORE = 2;
constexpr int VELK_SP_COMPLETE = 0;
constexpr int VELK_SP_ERR_SHORT_HEADER = -1;
constexpr int VELK_SP_ERR_HEADER_CRC = -2;
constexpr int VELK_SP_ERR_IDENT = -3;
constexpr int VELK_SP_ERR_VERSION = -5;      // hdr
constexpr int VELK_SP_ERR_PAST_END = -5;     // next
constexpr int VELK_SP_ERR_TOO_MANY = -6;     // next: a 21st content part

velk_stream_parser* velk_stream_parser_init(velk_stream_parser* p, uint8_t* buffer);
void velk_stream_parser_deinit(velk_stream_parser* p);
[[nodiscard]] int velk_stream_parser_hdr(velk_stream_parser* p, uint32_t available);
[[nodiscard]] int velk_stream_parser_next(velk_stream_parser* p, uint32_t n);
uint32_t velk_stream_parser_skip(velk_stream_parser* p);
int32_t velk_stream_parser_get_status(const velk_stream_parser* p);
int32_t velk_stream_parser_get_found_content_parts(const velk_stream_parser* p);
int32_t velk_stream_parser_get_found_content_part_headers(const velk_stream_parser* p);
int32_t velk_stream_parser_get_valid_content_parts(const velk_stream_parser* p);
int32_t velk_stream_parser_get_invalid_content_parts(const velk_stream_parser* p);
velk_content_header* const* velk_stream_parser_content_parts(const velk_stream_parser* p);
int32_t velk_stream_parser_content_part_is_valid(const velk_stream_parser* p, int32_t index);
void velk_stream_parser_debug_fix_found_parts(velk_stream_parser* p, uint32_t n);
// Marks the parser failed (status -1) for a caller that found the image
// unusable before the parser could look at it (too short to hold a header).
void velk_stream_parser_fail(velk_stream_parser* p);
