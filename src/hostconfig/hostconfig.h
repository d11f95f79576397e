// The hostconfig: an in-memory VELK image of named bodies, its storage on
// the device with backup and flags area, load/save with fallbacks, and the
// rebuild from the safe partitions.
#pragma once

#include <cstdint>

#include "velk/velk.h"

struct kor_options;
struct korl_data;

constexpr uint32_t HOSTCONFIG_MAX = 5120;
constexpr uint32_t HOSTCONFIG_MIN_FILE = 24;
constexpr uint32_t HOSTCONFIG_MAX_PARTS = 20;
constexpr long HOSTCONFIG_FLAGS_OFFSET = 0x3FE00;
constexpr const char* HOSTCONFIG_FLAGS_DEVICE = "/dev/mmcblk0p3";
constexpr const char* HOSTCONFIG_BODY_NAME = "KOR data";
constexpr const char* HOSTCONFIG_DEFAULT_FILE = "/mnt/appl/hostcfg.default";

struct hostconfig {
    alignas(8) uint8_t image[HOSTCONFIG_MAX];
    velk_header* header;
    velk_content_header* parts[HOSTCONFIG_MAX_PARTS];
    uint32_t capacity;
    int32_t count;
    uint32_t used;
    int32_t loaded_from;  // 1 primary, 2 backup, 0 default layout or not loaded
};

// --- container ---
[[nodiscard]] int hostconfig_new(hostconfig* hc, uint32_t capacity);
[[nodiscard]] int hostconfig_add(hostconfig* hc, const velk_content_header* part);
[[nodiscard]] int hostconfig_add_body(hostconfig* hc, const void* body, uint32_t length,
                                      const char* name);
int hostconfig_finalize_content(velk_content_header* part);
[[nodiscard]] int hostconfig_save(hostconfig* hc, const char* path, const char* backup_path);
[[nodiscard]] int hostconfig_load(hostconfig* hc, const char* path, const char* backup_path);
const uint8_t* hostconfig_get_body(const hostconfig* hc, const char* name);
velk_content_header* hostconfig_get_content_part(const hostconfig* hc, const char* name);
void* hostconfig_get();

// --- storage, default layout, flags ---
[[nodiscard]] int hostconfig_save_raw(hostconfig* hc, const char* path);
[[nodiscard]] int hostconfig_load_raw(hostconfig* hc, const char* path);
[[nodiscard]] int hostconfig_default(hostconfig* hc);
[[nodiscard]] int hostconfig_flags_read(uint8_t buf[2]);
[[nodiscard]] int hostconfig_flags_write(const uint8_t buf[2]);
int upgrade_flags_read(int set);
int upgrade_flags_write(int set, int value);
int get_upgrade_state(int set);
int set_upgrade_state(int set, int state);
int korl_upgrade_info();
[[nodiscard]] int korl_hostconfig_import(korl_data* d, const hostconfig* hc);
[[nodiscard]] int korl_hostconfig_export(const korl_data* d, hostconfig* hc);

extern const char* const upgrade_state_names[3];

// --- load, save, initialize ---
[[nodiscard]] int load(kor_options* opts, korl_data* d, hostconfig* hc);
[[nodiscard]] int save_hostconfig(kor_options* opts, korl_data* d, hostconfig* loaded,
                                  const char* caller);
[[nodiscard]] int action_initialize(kor_options* opts);

// --- rebuild (exported for the hostconfig-failure hook) ---
extern "C" int rebuild_hostcfg(kor_options* opts, korl_data* d, hostconfig* hc);
extern "C" int rebuild_meta(korl_data* d, const char* name, int devno, uint32_t size);
