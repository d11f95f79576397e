// Partition metadata: sets, partition entries, pools, KORM descriptors,
// install planning and reports.
#pragma once

#include <cstddef>
#include <cstdint>

#include "velk/velk.h"

constexpr int KORL_SETS = 3;
constexpr int KORL_PARTINFOS = 22;
constexpr int KORL_REFS = 22;
constexpr int KORL_POOLS = 20;
constexpr int KORL_POOL_MEMBERS = 21;
constexpr int KORL_KORM_ELEMENTS = 44;
constexpr uint32_t KORL_STORED_SIZE = 3240;  // the "KOR data" body

struct korl_partset {
    uint8_t bootable;
    char name[15];
    int8_t refs[KORL_REFS];  // -1 ends the list
};
static_assert(sizeof(korl_partset) == 38);
static_assert(offsetof(korl_partset, name) == 1);
static_assert(offsetof(korl_partset, refs) == 16);

struct korl_partinfo {
    char poolname[16];
    uint8_t pn;
    uint8_t pad[3];
    uint32_t offset;
    uint32_t size;
    char mountpnt[32];
    char fstype[10];
    uint8_t pad2[2];
};
static_assert(sizeof(korl_partinfo) == 72);
static_assert(offsetof(korl_partinfo, pn) == 16);
static_assert(offsetof(korl_partinfo, offset) == 20);
static_assert(offsetof(korl_partinfo, size) == 24);
static_assert(offsetof(korl_partinfo, mountpnt) == 28);
static_assert(offsetof(korl_partinfo, fstype) == 60);

using korl_rhdr = velk_release_info;

// The first 64 bytes of the software content part installed in an entry.
struct korl_pinfometa {
    uint32_t hdr_crc;
    uint16_t type_id;
    uint16_t hdr_length;
    uint32_t body_length;
    char name[16];
    uint32_t body_crc;
    uint8_t sw_version_major;
    uint8_t sw_version_minor;
    uint16_t sw_build_number;
    char sw_build_id[28];
};
static_assert(sizeof(korl_pinfometa) == 64);
static_assert(offsetof(korl_pinfometa, type_id) == 4);
static_assert(offsetof(korl_pinfometa, hdr_length) == 6);
static_assert(offsetof(korl_pinfometa, body_length) == 8);
static_assert(offsetof(korl_pinfometa, name) == 12);
static_assert(offsetof(korl_pinfometa, body_crc) == 28);
static_assert(offsetof(korl_pinfometa, sw_version_major) == 32);
static_assert(offsetof(korl_pinfometa, sw_version_minor) == 33);
static_assert(offsetof(korl_pinfometa, sw_build_number) == 34);
static_assert(offsetof(korl_pinfometa, sw_build_id) == 36);

struct korl_partpool {
    char name[16];
    int8_t items[KORL_REFS];
    uint8_t cnt;
};

struct korl_data {
    // Stored part: the "KOR data" body, byte for byte.
    uint8_t actset;
    korl_partset partset[KORL_SETS];
    uint8_t pad;
    korl_partinfo partinfo[KORL_PARTINFOS];
    korl_rhdr rhdr[KORL_SETS];
    korl_pinfometa pinfometa[KORL_PARTINFOS];
    // In memory only, rebuilt by korl_partpool_generate.
    korl_partpool partpool[KORL_POOLS];
    uint32_t pool_count;
    uint32_t pools_valid;
};
static_assert(offsetof(korl_data, actset) == 0);
static_assert(offsetof(korl_data, partset) == 1);
static_assert(offsetof(korl_data, pad) == 115);
static_assert(offsetof(korl_data, partinfo) == 116);
static_assert(offsetof(korl_data, rhdr) == 1700);
static_assert(offsetof(korl_data, pinfometa) == 1832);
static_assert(offsetof(korl_data, partpool) == KORL_STORED_SIZE);

struct korm_element {
    uint8_t used;
    int8_t cidx;
    char poolname[18];
    int32_t extra;
    char mountpnt[32];
    char fstype[10];
    char platform[22];
    uint32_t meta_valid;  // 0 none, 1 exact, 2 decided on arrival
    uint8_t wts;
    uint8_t ver_major;
    uint8_t ver_minor;
    uint16_t ver_build;
    uint32_t action;  // 0 nothing, 1 write, 2 reuse, 3 decide on arrival
    int32_t partinfo_idx;
};

// Planning and recording results.
constexpr int KORL_META_INSTALL_OK = 1;
constexpr int KORL_META_INSTALL_ERR_NO_CONTENT = -1;
constexpr int KORL_META_INSTALL_ERR_DEPENDENCY = -2;
constexpr int KORL_META_INSTALL_ERR_SINGLETON = -3;
constexpr int KORL_META_INSTALL_ERR_EMPTY_POOL = -4;
constexpr int KORL_META_INSTALL_ERR_NO_FREE_PARTINFO = -5;
constexpr int KORL_META_INSTALL_ERR_PARTINFO_KORM_MATCH = -6;
constexpr int KORL_META_INSTALL_ERR_FATAL = -99;

// crc32_check results.
constexpr int KORL_CRC_OK = 0;
constexpr int KORL_CRC_EMPTY = 2;
constexpr int KORL_CRC_UNREADABLE = 3;
constexpr int KORL_CRC_MISMATCH = 4;
constexpr int KORL_SHA_MISMATCH = 5;  // the CRC32 matches, the SHA-256 does not

// --- model ---
void korl_partpool_generate(korl_data* d);
int korl_partpool_items(const korl_data* d, const char* pool, int8_t items[KORL_REFS]);
int korl_partpool_items_count(const korl_data* d, const char* pool);
int korl_partpool_count(const korl_data* d);
int korl_actset_activate(korl_data* d, int setidx);
int korl_actset_get(const korl_data* d);
int korl_partinfo_owned_by_set(const korl_data* d, int partinfo_idx, int exclude_set);
int korl_partinfo_mark_meta_invalid(korl_data* d, int partinfo_idx);
int korl_getsetidx(const korl_data* d, const char* name);
void partinfo_init(korl_data* d, int idx, const char* pool, uint32_t size, uint32_t offset);
void partset_init(korl_data* d, int setidx, const char* name);
int parse_setidx_arg(const korl_data* d, const char* arg);
int korl_init(korl_data* d);

// --- KORM descriptors and release checks ---
[[nodiscard]] int korl_parse_kormd(korm_element* elements, int capacity, const char* text);
void korl_meta_import_pinfometa(korl_data* d, const void* content_part, const korm_element* e);
int korl_korm_cidx_match(korm_element* const* elements, int cidx);
[[nodiscard]] int korl_match_model(const velk_content_header* release_header, const char* model);
[[nodiscard]] int korl_check_minver(uint8_t major, uint8_t minor, uint16_t build,
                                    uint32_t want_major, uint32_t want_minor, uint32_t want_build);
// table[0] is the copy buffer (at least 100 bytes), table[1..n-1] get fields.
[[nodiscard]] int korl_parse_csv(const char* text, char** table, int n, uint32_t buffer_size);

// --- planning ---
[[nodiscard]] int korl_meta_install_part1(korl_data* d, int setidx, const korl_rhdr* release,
                                          korm_element* elements, const char* platform, int force);
[[nodiscard]] int korl_meta_install(korl_data* d, int setidx, const korl_rhdr* release,
                                    korm_element* elements,
                                    velk_content_header* const* table, const char* platform,
                                    int force);
int late_action_update(korl_data* d, korm_element* e, uint8_t major, uint8_t minor,
                       uint16_t build);
int korl_get_unused_partinfo(const korl_data* d, const char* pool, int setidx);
int find_installed_partinfo(const korl_data* d, const korm_element* e, uint8_t major,
                            uint8_t minor, uint16_t build);
[[nodiscard]] int crc32_check(const korl_data* d, int partinfo_idx, int wts);
// crc32_check that, when `sha256` is not null, also compares the SHA-256 of
// the same body bytes with it, in the same read. A CRC32 can be forged; a
// signed digest cannot. Needs the crypto library loaded.
[[nodiscard]] int crc32_sha256_check(const korl_data* d, int partinfo_idx, int wts,
                                     const uint8_t* sha256);

// --- reports ---
void korl_dump_info(const korl_data* d);
void korl_printf_time(int32_t seconds);
void korl_dump_vercfg(const korl_data* d);
void korl_korm_dump_info(const korm_element* elements);
