// Printers of content parts and the velkinfo action.
#pragma once

#include <cstddef>
#include <cstdint>

#include "velk/velk_stream_parser.h"

struct kor_options;

struct velkinfo_ctx {
    kor_options* options;
    velk_stream_parser* parser;
    uint32_t buffer_size;
    int32_t header_only;
};

int velk_content_info_print(const velk_stream_parser* p, int i);
int velk_content_header_print(const velk_stream_parser* p, int i);
int velk_release_header_print(const velk_stream_parser* p, int i);
int velk_content_software_print(const velk_stream_parser* p, int i);
int velk_content_signature_print(const velk_stream_parser* p, int i);
int velk_content_catalog_print(const velk_stream_parser* p, int i);

size_t velkinfo_receive(void* data, size_t size, size_t count, void* ctx);
[[nodiscard]] int action_velkinfo(kor_options* options);
