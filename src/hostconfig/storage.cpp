// Hostconfig storage on the device, default layout and flags area.
#include "hostconfig/hostconfig.h"

const char* const upgrade_state_names[3] = {"VALID", "TEST", "BOOT"};

int hostconfig_save_raw(hostconfig*, const char*) { return -1; }
int hostconfig_load_raw(hostconfig*, const char*) { return -1; }
int hostconfig_default(hostconfig*) { return -1; }
int hostconfig_flags_read(uint8_t*) { return -1; }
int hostconfig_flags_write(const uint8_t*) { return -1; }
int upgrade_flags_read(int) { return -1; }
int upgrade_flags_write(int, int) { return -1; }
int get_upgrade_state(int) { return -1; }
int set_upgrade_state(int, int) { return -1; }
int korl_upgrade_info() { return 0; }
int korl_hostconfig_import(korl_data*, const hostconfig*) { return -1; }
int korl_hostconfig_export(const korl_data*, hostconfig*) { return -1; }
