// Incremental VELK parser (being filled in).
#include "velk/velk_stream_parser.h"

velk_stream_parser* velk_stream_parser_init(velk_stream_parser* p, uint8_t*) { return p; }
void velk_stream_parser_deinit(velk_stream_parser*) {}
int velk_stream_parser_hdr(velk_stream_parser*, uint32_t) { return -1; }
int velk_stream_parser_next(velk_stream_parser*, uint32_t) { return -1; }
uint32_t velk_stream_parser_skip(velk_stream_parser*) { return 0; }
int32_t velk_stream_parser_get_status(const velk_stream_parser* p) { return p->status; }
int32_t velk_stream_parser_get_found_content_parts(const velk_stream_parser* p) { return p->found; }
int32_t velk_stream_parser_get_found_content_part_headers(const velk_stream_parser* p) { return p->found_headers; }
int32_t velk_stream_parser_get_valid_content_parts(const velk_stream_parser* p) { return p->valid; }
int32_t velk_stream_parser_get_invalid_content_parts(const velk_stream_parser* p) { return p->invalid; }
velk_content_header* const* velk_stream_parser_content_parts(const velk_stream_parser* p) { return p->parts; }
int32_t velk_stream_parser_content_part_is_valid(const velk_stream_parser* p, int32_t index) { return p->info[index].valid; }
void velk_stream_parser_debug_fix_found_parts(velk_stream_parser* p, uint32_t n) { p->found = static_cast<int32_t>(n); }
