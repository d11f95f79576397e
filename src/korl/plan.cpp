// Install planning: which partition each KORM element goes into, whether an
// installed copy is reused, and the recording of the result in the set.
#include <fcntl.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/console.h"
#include "base/crypto.h"
#include "base/fileutil.h"
#include "korl/korl.h"

namespace {

constexpr uint32_t CRC_PIECE = DEVICE_IO_SIZE;
constexpr int KORM_CONTENT_PARTS = 20;  // content part table of one image

struct version {
    uint8_t major;
    uint8_t minor;
    uint16_t build;
};

int version_cmp(version a, version b)
{
    if (a.major != b.major) return a.major < b.major ? -1 : 1;
    if (a.minor != b.minor) return a.minor < b.minor ? -1 : 1;
    if (a.build != b.build) return a.build < b.build ? -1 : 1;
    return 0;
}

version installed_version(const korl_data* d, int i)
{
    const korl_pinfometa& m = d->pinfometa[i];
    return {m.sw_version_major, m.sw_version_minor, m.sw_build_number};
}

// A fixed field of `size` bytes equals `text` only when the text fits the
// field with room for its NUL: a full field never matches.
bool field_equals(const char* field, size_t size, const char* text)
{
    size_t n = strnlen(text, size);
    return n < size && std::memcmp(field, text, n) == 0 && field[n] == '\0';
}

bool pool_equals(const korl_partinfo& p, const char* pool)
{
    return pool[0] != '\0' && field_equals(p.poolname, sizeof p.poolname, pool);
}

bool valid_partinfo(int idx) { return idx >= 0 && idx < KORL_PARTINFOS; }

// The element's pool name as a NUL-terminated text, whatever the parser left.
struct pool_text {
    char s[sizeof(korm_element::poolname) + 1];
};

pool_text element_pool(const korm_element* e)
{
    pool_text t{};
    std::memcpy(t.s, e->poolname, sizeof e->poolname);
    return t;
}

bool for_other_platform(const korm_element* e, const char* platform)
{
    if (platform == nullptr || platform[0] == '\0') return false;
    if (field_equals(e->platform, sizeof e->platform, "-")) return false;
    return !field_equals(e->platform, sizeof e->platform, platform);
}

// meta_valid 0: the newest installed member of the pool, lowest index on a tie.
int plan_newest(korl_data* d, korm_element* e)
{
    int8_t items[KORL_REFS];
    int cnt = korl_partpool_items(d, element_pool(e).s, items);
    if (cnt < 0) return KORL_META_INSTALL_ERR_EMPTY_POOL;
    if (cnt == 0) return KORL_META_INSTALL_ERR_FATAL;
    int best = -1;
    for (int k = 0; k < cnt && k < KORL_REFS; ++k) {
        int i = items[k];
        if (!valid_partinfo(i)) continue;
        // Members are in ascending index order: only a newer one replaces.
        if (best < 0 || version_cmp(installed_version(d, i), installed_version(d, best)) > 0)
            best = i;
    }
    if (best < 0) return KORL_META_INSTALL_ERR_FATAL;
    e->action = 2;
    e->partinfo_idx = best;
    return KORL_META_INSTALL_OK;
}

// The lowest partition of the pool that no other set lists and that no
// earlier element of this plan already took: two lines for one pool must
// not be written into the same partition, nor over a partition another
// line keeps.
int unused_for_plan(const korl_data* d, const char* pool, int setidx,
                    const korm_element* elements, const korm_element* e)
{
    int idx = korl_get_unused_partinfo(d, pool, setidx);
    bool taken[KORL_PARTINFOS] = {};
    for (const korm_element* p = elements; p < e; ++p)
        if (p->action != 0 && valid_partinfo(p->partinfo_idx)) taken[p->partinfo_idx] = true;
    if (idx < 0 || !taken[idx]) return idx;
    korl_data rest = *d;  // the same choice with the taken partitions set aside
    for (int i = 0; i < KORL_PARTINFOS; ++i)
        if (taken[i]) rest.partinfo[i].poolname[0] = '\0';
    return korl_get_unused_partinfo(&rest, pool, setidx);
}

// The content must be written: reserve a partition of the element's pool.
int plan_write(korl_data* d, int setidx, const korm_element* elements, korm_element* e,
               int force)
{
    if (e->cidx < 0) return KORL_META_INSTALL_ERR_DEPENDENCY;
    pool_text pool = element_pool(e);
    int8_t items[KORL_REFS];
    int cnt = korl_partpool_items(d, pool.s, items);
    if (cnt <= 0) return KORL_META_INSTALL_ERR_EMPTY_POOL;
    int idx;
    if (cnt == 1) {
        if (!force) return KORL_META_INSTALL_ERR_SINGLETON;
        idx = items[0];
    } else {
        idx = unused_for_plan(d, pool.s, setidx, elements, e);
        if (idx < 0) return KORL_META_INSTALL_ERR_NO_FREE_PARTINFO;
    }
    if (!valid_partinfo(idx)) return KORL_META_INSTALL_ERR_FATAL;
    e->action = e->meta_valid == 1 ? 1 : 3;
    e->partinfo_idx = idx;
    return KORL_META_INSTALL_OK;
}

int plan_element(korl_data* d, int setidx, const korm_element* elements, korm_element* e,
                 const char* platform, int force)
{
    if (for_other_platform(e, platform)) return KORL_META_INSTALL_OK;
    if (e->meta_valid == 0) return plan_newest(d, e);
    int found = find_installed_partinfo(d, e, e->ver_major, e->ver_minor, e->ver_build);
    if (found >= 0) {
        e->action = 2;
        e->partinfo_idx = found;
        return KORL_META_INSTALL_OK;
    }
    return plan_write(d, setidx, elements, e, force);
}

// An element the recording can take: its partition and, for a write, its
// content part in the image.
bool recordable(const korm_element* e, velk_content_header* const* table)
{
    if (!valid_partinfo(e->partinfo_idx)) return false;
    if (e->action == 2) return true;
    if (e->action != 1) return false;
    if (e->cidx < 0 || e->cidx >= KORM_CONTENT_PARTS || table == nullptr) return false;
    return table[e->cidx] != nullptr;
}

// Checks every element first, so that a refusal leaves the record untouched.
int check_recording(const korm_element* elements, velk_content_header* const* table)
{
    int refs = 0;
    for (int i = 0; i < KORL_KORM_ELEMENTS && elements[i].used; ++i) {
        const korm_element* e = &elements[i];
        if (e->action == 0) continue;
        if (!recordable(e, table)) return KORL_META_INSTALL_ERR_PARTINFO_KORM_MATCH;
        if (++refs > KORL_REFS) return KORL_META_INSTALL_ERR_PARTINFO_KORM_MATCH;
    }
    return KORL_META_INSTALL_OK;
}

// Sequential reader of a partition. Reads go to the device itself
// (O_DIRECT, aligned pieces), so a check sees what the device holds and not
// what a writer left in the page cache; it also spares the cache pages that
// reading a whole partition through it would take. Where direct I/O is not
// available the cache is dropped first and plain reads are used.
// Direct reads want an aligned buffer, and pieces large enough that each
// request to the device is worth its cost: the device I/O buffer.
struct device_reader {
    uint8_t* piece = device_io_buffer();
    uint32_t have = 0;  // bytes in piece
    uint32_t used = 0;  // bytes of piece already handed out
    bool end = false;
    int fd = -1;

    // A device that refuses direct reads of this size is read through the
    // cache after all, with the cache dropped first.
    bool drop_direct()
    {
        if (!set_direct_io(fd, false)) return false;
        (void)posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
        return true;
    }

    // Up to `want` further bytes at *out; 0 at the end, -1 on a read error.
    int64_t take(const uint8_t** out, uint32_t want)
    {
        if (used == have) {
            if (end) return 0;
            ssize_t r;
            do r = ::read(fd, piece, CRC_PIECE);
            while (r < 0 && errno == EINTR);
            if (r < 0 && errno == EINVAL && drop_direct()) return take(out, want);
            if (r < 0) return -1;
            have = static_cast<uint32_t>(r);
            used = 0;
            end = have < CRC_PIECE;
            if (have == 0) return 0;
        }
        uint32_t n = have - used < want ? have - used : want;
        *out = piece + used;
        used += n;
        return n;
    }
};

int open_direct(const char* device)
{
    int fd = ::open(device, O_RDONLY | O_CLOEXEC | O_DIRECT);
    if (fd >= 0) return fd;
    fd = ::open(device, O_RDONLY | O_CLOEXEC);
    if (fd >= 0) (void)posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
    return fd;
}

bool header_matches(device_reader& in, const korl_pinfometa& m)
{
    if (m.hdr_length > sizeof m) return false;
    uint8_t hdr[sizeof m];
    uint32_t got = 0;
    while (got < m.hdr_length) {
        const uint8_t* p;
        int64_t n = in.take(&p, m.hdr_length - got);
        if (n <= 0) return false;
        std::memcpy(hdr + got, p, static_cast<size_t>(n));
        got += static_cast<uint32_t>(n);
    }
    return std::memcmp(hdr, &m, m.hdr_length) == 0;
}

// CRC32 of the next `length` bytes, and their SHA-256 when `sha` is given;
// a short device ends both early. -1 on a read error, -2 when the hash fails.
int64_t body_crc(device_reader& in, uint32_t length, sha256_ctx* sha)
{
    uint32_t crc = 0;
    while (length > 0) {
        const uint8_t* p;
        int64_t n = in.take(&p, length);
        if (n < 0) return -1;
        if (n == 0) break;
        crc = crc32_calc(crc, p, static_cast<uint32_t>(n));
        if (sha && !sha256_update(sha, p, static_cast<size_t>(n))) return -2;
        length -= static_cast<uint32_t>(n);
    }
    return crc;
}

// The running hash of one check, released whatever the outcome.
struct check_hash {
    sha256_ctx ctx{};
    bool on = false;
    ~check_hash() { sha256_release(&ctx); }
};

}  // namespace

int korl_get_unused_partinfo(const korl_data* d, const char* pool, int setidx)
{
    KOR_ASSERT("korl", d != nullptr);
    KOR_ASSERT("korl", pool != nullptr);
    int uses[KORL_PARTINFOS] = {};
    for (int s = 0; s < KORL_SETS; ++s) {
        if (s == setidx) continue;
        for (int k = 0; k < KORL_REFS && d->partset[s].refs[k] >= 0; ++k)
            if (valid_partinfo(d->partset[s].refs[k])) ++uses[d->partset[s].refs[k]];
    }
    for (int i = 0; i < KORL_PARTINFOS; ++i)
        if (uses[i] == 0 && pool_equals(d->partinfo[i], pool)) return i;
    return -1;
}

int crc32_check(const korl_data* d, int partinfo_idx, int wts)
{
    return crc32_sha256_check(d, partinfo_idx, wts, nullptr);
}

int crc32_sha256_check(const korl_data* d, int partinfo_idx, int wts, const uint8_t* sha256)
{
    KOR_ASSERT("korl", d != nullptr);
    if (!valid_partinfo(partinfo_idx)) return KORL_CRC_UNREADABLE;
    const korl_pinfometa& m = d->pinfometa[partinfo_idx];
    if (m.body_length == 0 || m.body_crc == 0) return KORL_CRC_EMPTY;

    char device[32];
    std::snprintf(device, sizeof device, "/dev/mmcblk0p%i", d->partinfo[partinfo_idx].pn);
    unique_fd fd(open_direct(device));
    if (!fd.valid()) return KORL_CRC_UNREADABLE;
    device_reader in;
    in.fd = fd.get();
    check_hash hash;
    // A hash that cannot even start fails the check: no digest, no trust.
    if (sha256 && !(hash.on = sha256_init(&hash.ctx))) return KORL_SHA_MISMATCH;

    if (wts == 2 && !header_matches(in, m)) return KORL_CRC_UNREADABLE;
    int64_t crc = body_crc(in, m.body_length, hash.on ? &hash.ctx : nullptr);
    if (crc == -2) return KORL_SHA_MISMATCH;
    if (crc < 0) return KORL_CRC_UNREADABLE;
    if (static_cast<uint32_t>(crc) != m.body_crc) return KORL_CRC_MISMATCH;
    uint8_t digest[KOR_SHA256_SIZE];
    if (hash.on && (!sha256_final(&hash.ctx, digest) || std::memcmp(digest, sha256, sizeof digest) != 0))
        return KORL_SHA_MISMATCH;
    return KORL_CRC_OK;
}

int find_installed_partinfo(const korl_data* d, const korm_element* e, uint8_t major,
                            uint8_t minor, uint16_t build)
{
    KOR_ASSERT("korl", d != nullptr);
    KOR_ASSERT("korl", e != nullptr);
    pool_text pool = element_pool(e);
    for (int i = 0; i < KORL_PARTINFOS; ++i) {
        if (version_cmp(installed_version(d, i), {major, minor, build}) != 0) continue;
        if (!pool_equals(d->partinfo[i], pool.s)) continue;
        if (crc32_check(d, i, e->wts) == KORL_CRC_OK) return i;
    }
    return -1;
}

int late_action_update(korl_data* d, korm_element* e, uint8_t major, uint8_t minor,
                       uint16_t build)
{
    int found = find_installed_partinfo(d, e, major, minor, build);
    if (found >= 0) {
        e->action = 2;
        e->partinfo_idx = found;
    } else {
        e->action = 1;
    }
    return found;
}

int korl_meta_install_part1(korl_data* d, int setidx, const korl_rhdr* release,
                            korm_element* elements, const char* platform, int force)
{
    KOR_ASSERT("korl", d != nullptr);
    KOR_ASSERT("korl", release != nullptr);
    KOR_ASSERT("korl", elements != nullptr);
    for (int i = 0; i < KORL_KORM_ELEMENTS && elements[i].used; ++i) {
        elements[i].action = 0;
        elements[i].partinfo_idx = -1;
    }
    if (!elements[0].used) return KORL_META_INSTALL_ERR_NO_CONTENT;
    for (int i = 0; i < KORL_KORM_ELEMENTS && elements[i].used; ++i) {
        int r = plan_element(d, setidx, elements, &elements[i], platform, force);
        if (r != KORL_META_INSTALL_OK) return r;
    }
    return KORL_META_INSTALL_OK;
}

int korl_meta_install(korl_data* d, int setidx, const korl_rhdr* release,
                      korm_element* elements, velk_content_header* const* table,
                      const char* platform, int force)
{
    KOR_ASSERT("korl", d != nullptr);
    KOR_ASSERT("korl", release != nullptr);
    KOR_ASSERT("korl", elements != nullptr);
    KOR_ASSERT("korl", setidx >= 0 && setidx < KORL_SETS);
    if (!elements[0].used)
        return korl_meta_install_part1(d, setidx, release, elements, platform, force);
    int r = check_recording(elements, table);
    if (r != KORL_META_INSTALL_OK) return r;

    int8_t refs[KORL_REFS];
    std::memset(refs, -1, sizeof refs);
    int n = 0;
    for (int i = 0; i < KORL_KORM_ELEMENTS && elements[i].used; ++i) {
        const korm_element* e = &elements[i];
        if (e->action == 0) continue;
        if (e->action == 1) korl_meta_import_pinfometa(d, table[e->cidx], e);
        refs[n++] = static_cast<int8_t>(e->partinfo_idx);
    }
    std::memcpy(d->partset[setidx].refs, refs, sizeof refs);
    d->rhdr[setidx] = *release;
    return KORL_META_INSTALL_OK;
}
