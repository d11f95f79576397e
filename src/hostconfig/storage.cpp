// Hostconfig images on the device, the default layout and the "KOR data"
// body that carries the metadata record.
#include "hostconfig/hostconfig.h"

#include <cstdio>
#include <cstring>

#include "base/console.h"
#include "base/fileutil.h"
#include "korl/korl.h"

namespace {

constexpr const char* kDevicePrefix = "/dev/mmcblk";

struct default_partinfo {
    int idx;  // also the partition number
    const char* pool;
    uint32_t size;
    uint32_t offset;
};

// The partition table of a device whose hostconfig was never written.
constexpr default_partinfo kDefaultPartinfo[] = {
    {5, "SAFEKNLS", 0x800000, 0x1A0000},   {6, "SAFEDTS", 0x40000, 0x9A0000},
    {7, "SAFEROOTS", 0x2000000, 0x9E0000}, {8, "SAFEAPPLS", 0x2000000, 0x29E0000},
    {11, "KNLS", 0x800000, 0xC9E0000},     {12, "DTS", 0x40000, 0xD1E0000},
    {13, "ROOTS", 0x4000000, 0xD220000},   {14, "APPLS", 0x4000000, 0x11220000},
    {15, "KNLS", 0x800000, 0x15220000},    {16, "DTS", 0x40000, 0x15A20000},
    {17, "ROOTS", 0x4000000, 0x15A60000},  {18, "APPLS", 0x4000000, 0x19A60000},
};

constexpr const char* kDefaultSets[KORL_SETS] = {"SAFESET", "SET1", "SET2"};

void stderr_text(const char* text) { (void)std::fwrite(text, 1, std::strlen(text), stderr); }

// How many bytes to read: a device gives the largest image (what follows
// the image is not looked at), a file its own size within the limits.
int64_t image_length(const char* path)
{
    if (std::strncmp(path, kDevicePrefix, std::strlen(kDevicePrefix)) == 0)
        return HOSTCONFIG_MAX;
    int32_t size = fnsize(path);
    if (size < static_cast<int32_t>(HOSTCONFIG_MIN_FILE) ||
        size > static_cast<int32_t>(HOSTCONFIG_MAX))
        return -1;
    return size;
}

}  // namespace

int hostconfig_save_raw(hostconfig* hc, const char* path)
{
    KOR_ASSERT("hostconfig", hc != nullptr);
    // fnwrite flushes to the device (fsync) before it closes, so a success
    // here means the copy is stored, not just handed to the page cache.
    int n = fnwrite(path, hc->image, hc->used);
    return n == static_cast<int>(hc->used) ? 0 : -1;
}

int hostconfig_load_raw(hostconfig* hc, const char* path)
{
    KOR_ASSERT("hostconfig", hc != nullptr);
    int64_t length = image_length(path);
    if (length < 0) return -1;
    if (fnread(path, hc->image, static_cast<uint32_t>(length)) != length) return -1;
    hc->header = reinterpret_cast<velk_header*>(hc->image + VELK_ID_SIZE);
    // The checks must not read past what was read: the lengths in the header
    // are only trusted once they fit.
    const velk_header* h = hc->header;
    if (VELK_ID_SIZE + static_cast<int64_t>(h->hdr_length) > length) return -1;
    if (velk_validate_header(h) != VELK_OK) return -1;
    if (VELK_ID_SIZE + static_cast<int64_t>(h->hdr_length) + h->body_length > length) return -1;
    if (velk_validate_body(h, hc->image + VELK_ID_SIZE + h->hdr_length) != VELK_OK) return -1;
    return 0;
}

int hostconfig_default(hostconfig* hc)
{
    korl_data d;
    if (korl_init(&d) != 1) {
        stderr_text("initialize: korl_init failed.\n");
        return -1;
    }
    for (const default_partinfo& p : kDefaultPartinfo)
        partinfo_init(&d, p.idx, p.pool, p.size, p.offset);
    for (int s = 0; s < KORL_SETS; s++) partset_init(&d, s, kDefaultSets[s]);
    if (korl_hostconfig_export(&d, hc) != 1) {
        stderr_text("initialize: korl_hostconfig_export failed.\n");
        return -1;
    }
    return 1;
}

int korl_hostconfig_import(korl_data* d, const hostconfig* hc)
{
    KOR_ASSERT("korl", d != nullptr);
    KOR_ASSERT("korl", hc != nullptr);
    const velk_content_header* part = hostconfig_get_content_part(hc, HOSTCONFIG_BODY_NAME);
    if (!part) return -1;
    // A shorter body (only a file made elsewhere holds one) would be copied
    // past its end into whatever follows it: refuse it.
    if (part->body_length < KORL_STORED_SIZE) return -1;
    std::memcpy(d, hostconfig_get_body(hc, HOSTCONFIG_BODY_NAME), KORL_STORED_SIZE);
    return 1;
}

int korl_hostconfig_export(const korl_data* d, hostconfig* hc)
{
    KOR_ASSERT("korl", d != nullptr);
    KOR_ASSERT("korl", hc != nullptr);
    return hostconfig_add_body(hc, d, KORL_STORED_SIZE, HOSTCONFIG_BODY_NAME) == 1 ? 1 : -1;
}
