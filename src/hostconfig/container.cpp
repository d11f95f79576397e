// The hostconfig container: a VELK image of named bodies in a fixed record.
#include "hostconfig/hostconfig.h"

int hostconfig_new(hostconfig*, uint32_t) { return 0; }
int hostconfig_add(hostconfig*, const velk_content_header*) { return -1; }
int hostconfig_add_body(hostconfig*, const void*, uint32_t, const char*) { return -1; }
int hostconfig_finalize_content(velk_content_header*) { return -1; }
int hostconfig_save(hostconfig*, const char*, const char*) { return -1; }
int hostconfig_load(hostconfig*, const char*, const char*) { return -1; }
const uint8_t* hostconfig_get_body(const hostconfig*, const char*) { return nullptr; }
velk_content_header* hostconfig_get_content_part(const hostconfig*, const char*) { return nullptr; }
void* hostconfig_get() { return nullptr; }
