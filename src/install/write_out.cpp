// The partition writer: writes each planned content part into its partition
// in the element's write type, pushes it to the device and reads it back.
#include <fcntl.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unistd.h>

#include "base/console.h"
#include "base/fileutil.h"
#include "base/options.h"
#include "install/install.h"
#include "install/install_steps.h"

namespace {

enum class piece : uint8_t { none, body, header, align };

// The layout of a partition's first bytes for each write type.
struct write_type {
    uint8_t wts;
    piece steps[3];
};
constexpr write_type write_types[] = {
    {1, {piece::body, piece::none, piece::none}},
    {2, {piece::header, piece::body, piece::none}},
    {3, {piece::body, piece::align, piece::header}},
};

const write_type* find_write_type(uint8_t wts)
{
    for (const write_type& t : write_types)
        if (t.wts == wts) return &t;
    return nullptr;
}

const velk_content_header* content_of(const install_ctx* c, const korm_element* e)
{
    if (e->cidx < 0 || e->cidx >= static_cast<int>(VELK_MAX_PARTS)) return nullptr;
    return install_parts(c)[e->cidx];
}

// Partition data goes to the device with direct I/O, block-aligned pieces
// copied through the device I/O buffer: it does not pass through (and push
// out) the page cache, which on the device is a good share of its memory,
// and the flush before the read-back has nothing left to do. The few bytes
// at the unaligned edges of a piece go through the cache.
//
// The aligned inside [from, to) of `n` bytes placed at `at`, written
// directly. Bytes written; -1 when the device takes no direct writes, so
// that the caller writes everything through the cache instead.
int64_t write_direct(int fd, const uint8_t* p, uint64_t at, uint64_t from, uint64_t to)
{
    if (!set_direct_io(fd, true)) return -1;
    uint64_t pos = from;
    while (pos < to) {
        uint32_t n = to - pos < DEVICE_IO_SIZE ? static_cast<uint32_t>(to - pos) : DEVICE_IO_SIZE;
        std::memcpy(device_io_buffer(), p + (pos - at), n);
        uint64_t r = device_write_at(fd, device_io_buffer(), n, pos);
        if (r == n) {
            pos += n;
            continue;
        }
        int e = errno;
        bool refused = pos == from && r == 0 && e == EINVAL;
        (void)set_direct_io(fd, false);
        errno = e;
        return refused ? -1 : static_cast<int64_t>(pos + r - from);
    }
    return set_direct_io(fd, false) ? static_cast<int64_t>(to - from) : -1;
}

// Writes n bytes at `at`; the bytes written, fewer on failure (errno set).
uint64_t write_piece_at(int fd, const uint8_t* p, uint64_t n, uint64_t at)
{
    uint64_t from = (at + DEVICE_IO_ALIGN - 1) / DEVICE_IO_ALIGN * DEVICE_IO_ALIGN;
    uint64_t to = (at + n) / DEVICE_IO_ALIGN * DEVICE_IO_ALIGN;
    if (from >= to) return device_write_at(fd, p, n, at);
    int64_t inside = write_direct(fd, p, at, from, to);
    if (inside < 0) return device_write_at(fd, p, n, at);
    if (static_cast<uint64_t>(inside) < to - from) return static_cast<uint64_t>(inside);
    uint64_t head = device_write_at(fd, p, from - at, at);
    if (head < from - at) return head;
    uint64_t tail = device_write_at(fd, p + (to - at), at + n - to, to);
    return n - (at + n - to) + tail;
}

// Lays the part out as its write type says, piece after piece.
bool write_pieces(int fd, const char* device, const velk_content_header* cp,
                  const write_type& t)
{
    const uint8_t* raw = reinterpret_cast<const uint8_t*>(cp);
    uint64_t at = 0;
    for (piece p : t.steps) {
        if (p == piece::none) continue;
        if (p == piece::align) {
            at += cp->body_length % 4 ? 4 - cp->body_length % 4 : 0;
            continue;
        }
        bool body = p == piece::body;
        const uint8_t* data = body ? raw + cp->hdr_length : raw;
        uint32_t n = body ? cp->body_length : cp->hdr_length;
        uint64_t r = write_piece_at(fd, data, n, at);
        if (r != n) {
            log_console(LOG_ERR,
                        body ? "Could not fwrite to %s, errno=%i result=%i\n"
                             : "Could not fwrite to %s, errno=%i result=%i<n",
                        device, errno, static_cast<int>(r));
            return false;
        }
        at += n;
    }
    return true;
}

// The data is only written once the device holds it: flush the descriptor
// (the device's own cache too) and check the close.
bool flush_and_close(unique_fd& fd, const char* device)
{
    int r = ::fsync(fd.get());
    int c = fd.reset();
    if (r == 0 && c == 0) return true;
    log_console(LOG_ERR, "Could not fwrite to %s, errno=%i result=%i\n", device, errno, -1);
    return false;
}

bool write_device(const char* device, const velk_content_header* cp, uint8_t wts)
{
    // Never created: a missing partition must not become a file in /dev.
    unique_fd fd(::open(device, O_WRONLY | O_CLOEXEC));
    if (!fd.valid()) {
        log_console(LOG_ERR, "Could not open %s for write\n", device);
        return false;
    }
    const write_type* t = find_write_type(wts);
    if (!t) {
        log_console(LOG_ERR, "Unknown WTS, skip\n");
        return false;
    }
    return write_pieces(fd.get(), device, cp, *t) && flush_and_close(fd, device);
}

bool write_element(install_ctx* c, int i)
{
    const korm_element* e = &c->korm[i];
    const velk_content_header* cp = content_of(c, e);
    bool known = e->partinfo_idx >= 0 && e->partinfo_idx < KORL_PARTINFOS;
    if (cp && known) {
        char device[32];
        int pn = c->data->partinfo[e->partinfo_idx].pn;
        zb_snprintf(device, sizeof device, "/dev/mmcblk0p%i", pn);
        zb_printf("Writing out %u bytes of data to %s\n", cp->body_length, device);
        if (write_device(device, cp, e->wts)) return install_verify_element(c, i);
    }
    install_write_failed(c, i);
    return false;
}

// The writer's loop: the plan line of every element written (of every slot
// with -v) when `print`, and the writes of those `only` marks.
install_write_result write_out(install_ctx* ctx, bool print, const uint8_t* only)
{
    KOR_ASSERT("kor", ctx && ctx->options && ctx->data && (ctx->parser || ctx->stream));
    const kor_options* o = ctx->options;
    install_write_result res{1, 0, 0};
    for (int i = 0; i < KORL_KORM_ELEMENTS; ++i) {
        const korm_element* e = &ctx->korm[i];
        if (e->action != 1 && !o->v) continue;
        if (print) install_plan_line(ctx, i);
        if (e->action != 1 || o->dryrun || o->onlymeta || (only && !only[i])) continue;
        res.pool_count = korl_partpool_items_count(ctx->data, e->poolname);
        if (!write_element(ctx, i)) {
            res.ok = 0;
            return res;
        }
    }
    return res;
}

}  // namespace

uint64_t device_write_at(int fd, const uint8_t* p, uint64_t n, uint64_t at)
{
    uint64_t done = 0;
    while (done < n) {
        ssize_t r = ::pwrite(fd, p + done, n - done, static_cast<off_t>(at + done));
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) {
            if (r == 0) errno = ENOSPC;
            break;
        }
        done += static_cast<uint64_t>(r);
    }
    return done;
}

void install_plan_line(const install_ctx* c, int i)
{
    const korm_element* e = &c->korm[i];
    const velk_content_header* cp = content_of(c, e);
    int len = cp ? static_cast<int>(sizeof cp->name) : 6;
    log_console(LOG_INFO, "%i: name=%.*s action=%i velk_cidx=%i partinfo_idx=%i wts=%i\n", i,
                len, cp ? cp->name : "<null>", static_cast<int>(e->action), e->cidx,
                e->partinfo_idx, e->wts);
}

install_write_result install_write_out(install_ctx* ctx)
{
    return write_out(ctx, true, nullptr);
}

install_write_result install_write_selected(install_ctx* ctx, const uint8_t* only)
{
    return write_out(ctx, false, only);
}

// Reads the partition back; a partition whose recorded CRC is unknown
// counts as written.
bool install_verify_element(install_ctx* c, int i)
{
    const korm_element* e = &c->korm[i];
    if (c->data->pinfometa[e->partinfo_idx].body_crc == 0) {
        log_console(LOG_INFO,
                    "WARNING: Could not verify write as some meta data is missing from "
                    "hostconfig\n");
        return true;
    }
    if (crc32_check(c->data, e->partinfo_idx, e->wts) == KORL_CRC_OK) return true;
    log_console(LOG_ERR, "CRC32 VERIFY FAILED: partinfo_idx=%i se_idx=%i\n", e->partinfo_idx,
                i);
    korl_partinfo_mark_meta_invalid(c->data, e->partinfo_idx);
    return false;
}

void install_write_failed(install_ctx* c, int i)
{
    const korm_element* e = &c->korm[i];
    const velk_content_header* cp = content_of(c, e);
    int len = cp ? static_cast<int>(sizeof cp->name) : 6;
    log_always(LOG_CRIT, "FAILED TO INSTALL %.*s INTO %i\n", len, cp ? cp->name : "<null>",
               e->partinfo_idx);
    if (e->partinfo_idx >= 0 && e->partinfo_idx < KORL_PARTINFOS)
        korl_partinfo_mark_meta_invalid(c->data, e->partinfo_idx);
}
