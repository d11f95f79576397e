// Recreates the partition metadata after the stored hostconfig is lost:
// the default hostconfig file, plus the content headers of the safe
// partitions found by scanning the raw flash devices.
#include "hostconfig/hostconfig.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <unistd.h>

#include "base/console.h"
#include "base/fileutil.h"
#include "base/options.h"
#include "korl/korl.h"

namespace {

constexpr uint32_t kLogSize = 150;
constexpr uint32_t kNameOffset = offsetof(velk_content_header, name);
constexpr uint32_t kHeaderSize = sizeof(korl_pinfometa);  // what the record keeps
static_assert(kHeaderSize == VELK_SOFTWARE_HEADER_MAX);

struct safe_content {
    const char* name;
    int devno;
    uint32_t size;
    const char* missing;
};

const safe_content kSafeContents[] = {
    {"KNL-SAFE", 7, 0x200000, "rebuild_hostcfg: tsb for KNL-SAFE not found\n"},
    {"ROOT-SAFE", 8, 0x800000, "rebuild_hostcfg: tsb for ROOT-SAFE not found\n"},
    {"APPL-SAFE", 19, 0x600000, "rebuild_hostcfg: tsb for APPL-SAFE not found\n"},
};

void rebuild_log(int priority, bool always, const char* format, va_list ap)
{
    char text[kLogSize];
    zb_vsnprintf(text, sizeof text, format, ap);
    std::fputs(text, stderr);
    if (always || !isatty(STDOUT_FILENO)) syslog(priority, "%s", text);
}

KOR_PRINTF(1, 2) void rebuild_error(const char* format, ...)
{
    va_list ap;
    va_start(ap, format);
    rebuild_log(LOG_ERR, false, format, ap);
    va_end(ap);
}

KOR_PRINTF(1, 2) void rebuild_notice(const char* format, ...)
{
    va_list ap;
    va_start(ap, format);
    rebuild_log(LOG_NOTICE, true, format, ap);
    va_end(ap);
}

struct free_delete {
    void operator()(uint8_t* p) const { std::free(p); }
};
using heap_bytes = std::unique_ptr<uint8_t, free_delete>;

// Reads up to `size` bytes; a short device ends the read early. The
// number of bytes read, or -1 when a read failed.
long read_device(int fd, uint8_t* buf, uint32_t size)
{
    uint32_t total = 0;
    while (total < size) {
        ssize_t n = read(fd, buf + total, size - total);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return -1;
        if (n == 0) break;
        total += static_cast<uint32_t>(n);
    }
    return static_cast<long>(total);
}

// The candidate header is copied out of the scan buffer: it may sit at
// any byte position, and its CRC may only cover bytes of the copy.
bool candidate_valid(const uint8_t* buf, uint32_t total, uint32_t start, korl_pinfometa* out)
{
    alignas(velk_content_header) uint8_t copy[kHeaderSize];
    std::memcpy(copy, buf + start, sizeof copy);
    velk_content_header hdr;
    std::memcpy(&hdr, copy, sizeof hdr);
    if (hdr.hdr_length > kHeaderSize || hdr.body_length > total) return false;
    const auto* part = reinterpret_cast<const velk_content_header*>(copy);
    if (velk_validate_content_header(part) != VELK_OK) return false;
    // The content itself begins at the device's first byte.
    if (velk_validate_content_body(part, buf) != VELK_OK) return false;
    std::memcpy(out, copy, sizeof copy);
    return true;
}

// The first header named `name` that passes its checks, copied to `out`.
bool scan_for_header(const uint8_t* buf, uint32_t total, const char* name, korl_pinfometa* out)
{
    size_t name_len = std::strlen(name);
    uint32_t pos = 0;
    while (pos < total) {
        const void* hit = std::memchr(buf + pos, name[0], total - pos);
        if (!hit) return false;
        uint32_t off = static_cast<uint32_t>(static_cast<const uint8_t*>(hit) - buf);
        pos = off + 1;
        if (off < kNameOffset) continue;
        if (off + (kHeaderSize - kNameOffset) >= total) return false;
        if (name_len > total - off || std::memcmp(buf + off, name, name_len) != 0) continue;
        if (candidate_valid(buf, total, off - kNameOffset, out)) return true;
    }
    return false;
}

}  // namespace

extern "C" int rebuild_meta(korl_data* d, const char* name, int devno, uint32_t size)
{
    KOR_ASSERT("hostconfig", d != nullptr && name != nullptr);
    if (devno < 0 || devno >= KORL_PARTINFOS) {
        rebuild_error("rebuild_meta: no metadata entry for device %i\n", devno);
        return 0;
    }
    char path[32];
    std::snprintf(path, sizeof path, "/dev/mtd%i", devno);
    heap_bytes buf(static_cast<uint8_t*>(std::malloc(size == 0 ? 1 : size)));
    if (!buf) {
        rebuild_error("rebuild_meta: malloc failed\n");
        return 0;
    }
    unique_fd fd(open(path, O_RDONLY | O_CLOEXEC));
    if (!fd.valid()) {
        rebuild_error("rebuild_meta: Could not open %s for read\n", path);
        return 0;
    }
    std::memset(buf.get(), 0, size);
    long total = size == 0 ? 0 : read_device(fd.get(), buf.get(), size);
    fd.reset();
    if (total < 0) {
        rebuild_error("rebuild_meta: Could not load sw header for %s\n", name);
        return 0;
    }
    if (!scan_for_header(buf.get(), static_cast<uint32_t>(total), name, &d->pinfometa[devno])) {
        rebuild_notice("rebuild_meta: Failed to locate tsb for %s\n", name);
        return 0;
    }
    return 1;
}

extern "C" int rebuild_hostcfg(kor_options* opts, korl_data* d, hostconfig* hc)
{
    KOR_ASSERT("hostconfig", opts != nullptr && d != nullptr && hc != nullptr);
    char kept[sizeof opts->cfg];
    std::memcpy(kept, opts->cfg, sizeof kept);
    kor_str_copy(opts->cfg, sizeof opts->cfg, HOSTCONFIG_DEFAULT_FILE);
    int loaded = load(opts, d, hc);
    std::memcpy(opts->cfg, kept, sizeof kept);
    if (loaded != 1) {
        rebuild_error("rebuild_hostcfg: hostcfg.default loading failed.\n");
        return 0;
    }
    rebuild_notice("rebuild_hostcfg: Using %s as initial hostconfig\n", HOSTCONFIG_DEFAULT_FILE);
    for (const safe_content& c : kSafeContents) {
        if (rebuild_meta(d, c.name, c.devno, c.size) == 0) {
            rebuild_notice("%s", c.missing);
        }
    }
    return 1;
}
