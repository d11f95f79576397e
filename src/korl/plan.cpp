// Install planning: where each KORM element goes, and the recording.
#include "korl/korl.h"

int korl_meta_install_part1(korl_data*, int, const korl_rhdr*, korm_element*, const char*, int)
{
    return KORL_META_INSTALL_ERR_FATAL;
}

int korl_meta_install(korl_data*, int, const korl_rhdr*, korm_element*,
                      velk_content_header* const*, const char*, int)
{
    return KORL_META_INSTALL_ERR_FATAL;
}

int late_action_update(korl_data*, korm_element*, uint8_t, uint8_t, uint16_t) { return -1; }
int korl_get_unused_partinfo(const korl_data*, const char*, int) { return -1; }
int find_installed_partinfo(const korl_data*, const korm_element*, uint8_t, uint8_t, uint16_t)
{
    return -1;
}
int crc32_check(const korl_data*, int, int) { return KORL_CRC_UNREADABLE; }
