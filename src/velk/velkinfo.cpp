// The velkinfo action and content part printers (being filled in).
#include "velk/velkinfo.h"

int velk_content_info_print(const velk_stream_parser*, int) { return 0; }
int velk_content_header_print(const velk_stream_parser*, int) { return 0; }
int velk_release_header_print(const velk_stream_parser*, int) { return 0; }
int velk_content_software_print(const velk_stream_parser*, int) { return 0; }
int velk_content_signature_print(const velk_stream_parser*, int) { return 0; }
int velk_content_catalog_print(const velk_stream_parser*, int) { return 0; }
size_t velkinfo_receive(void*, size_t, size_t, void*) { return 0; }
int action_velkinfo(kor_options*) { return 1; }
