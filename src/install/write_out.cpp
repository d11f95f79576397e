// The partition writer: writes each planned content part into its partition
// in the element's write type, pushes it to the device and reads it back.
#include <fcntl.h>

#include <cerrno>
#include <cstdio>
#include <unistd.h>

#include "frontend/console.h"
#include "frontend/fileutil.h"
#include "frontend/options.h"
#include "install/install.h"

namespace {

constexpr size_t WRITE_PIECE = size_t{4} << 20;

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
    return velk_stream_parser_content_parts(c->parser)[e->cidx];
}

void print_plan_line(const install_ctx* c, int i)
{
    const korm_element* e = &c->korm[i];
    const velk_content_header* cp = content_of(c, e);
    int len = cp ? static_cast<int>(sizeof cp->name) : 6;
    log_console(LOG_INFO, "%i: name=%.*s action=%i velk_cidx=%i partinfo_idx=%i wts=%i\n", i,
                len, cp ? cp->name : "<null>", static_cast<int>(e->action), e->cidx,
                e->partinfo_idx, e->wts);
}

// Writes one piece; false after logging the failure.
bool write_piece(FILE* f, const char* device, const velk_content_header* cp, piece p)
{
    const uint8_t* raw = reinterpret_cast<const uint8_t*>(cp);
    if (p == piece::align) {
        uint32_t rest = cp->body_length % 4;
        if (rest == 0) return true;
        int r = std::fseek(f, static_cast<long>(4 - rest), SEEK_CUR);
        if (r == 0) return true;
        log_console(LOG_ERR, "Could not fwrite to %s, errno=%i result=%i<n", device, errno, r);
        return false;
    }
    if (p == piece::header) {
        size_t r = std::fwrite(raw, 1, cp->hdr_length, f);
        if (r == cp->hdr_length) return true;
        log_console(LOG_ERR, "Could not fwrite to %s, errno=%i result=%i<n", device, errno,
                    static_cast<int>(r));
        return false;
    }
    const uint8_t* body = raw + cp->hdr_length;
    size_t done = 0;
    while (done < cp->body_length) {
        size_t n = cp->body_length - done < WRITE_PIECE ? cp->body_length - done : WRITE_PIECE;
        size_t r = std::fwrite(body + done, 1, n, f);
        done += r;
        if (r != n) {
            log_console(LOG_ERR, "Could not fwrite to %s, errno=%i result=%i\n", device, errno,
                        static_cast<int>(done));
            return false;
        }
        if (std::fflush(f) != 0) {
            log_console(LOG_ERR, "Could not fwrite to %s, errno=%i result=%i\n", device, errno,
                        -1);
            return false;
        }
        // The device takes this piece while the next one is copied, so the
        // final flush finds most of the body written already.
        (void)::sync_file_range(fileno(f), 0, 0, SYNC_FILE_RANGE_WRITE);
    }
    return true;
}

// The data is only written once the device holds it: flush the stream,
// fsync the descriptor and check the close.
bool flush_and_close(unique_file& f, const char* device)
{
    int r = std::fflush(f.get());
    if (r == 0) r = ::fsync(fileno(f.get()));
    int c = f.reset();
    if (r == 0 && c == 0) return true;
    log_console(LOG_ERR, "Could not fwrite to %s, errno=%i result=%i\n", device, errno, -1);
    return false;
}

bool write_device(const char* device, const velk_content_header* cp, uint8_t wts)
{
    unique_file f(std::fopen(device, "w"));
    if (!f) {
        log_console(LOG_ERR, "Could not open %s for write\n", device);
        return false;
    }
    const write_type* t = find_write_type(wts);
    if (!t) {
        log_console(LOG_ERR, "Unknown WTS, skip\n");
        return false;
    }
    for (piece p : t->steps)
        if (p != piece::none && !write_piece(f.get(), device, cp, p)) return false;
    return flush_and_close(f, device);
}

// Reads the partition back; a partition whose recorded CRC is unknown
// counts as written.
bool verify_written(install_ctx* c, int i)
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
        if (write_device(device, cp, e->wts)) return verify_written(c, i);
    }
    int len = cp ? static_cast<int>(sizeof cp->name) : 6;
    log_always(LOG_CRIT, "FAILED TO INSTALL %.*s INTO %i\n", len, cp ? cp->name : "<null>",
               e->partinfo_idx);
    if (known) korl_partinfo_mark_meta_invalid(c->data, e->partinfo_idx);
    return false;
}

}  // namespace

install_write_result install_write_out(install_ctx* ctx)
{
    KOR_ASSERT("kor", ctx && ctx->options && ctx->data && ctx->parser);
    const kor_options* o = ctx->options;
    install_write_result res{1, 0};
    for (int i = 0; i < KORL_KORM_ELEMENTS; ++i) {
        const korm_element* e = &ctx->korm[i];
        if (e->action != 1 && !o->v) continue;
        print_plan_line(ctx, i);
        if (e->action != 1 || o->dryrun || o->onlymeta) continue;
        res.pool_count = korl_partpool_items_count(ctx->data, e->poolname);
        if (!write_element(ctx, i)) {
            res.ok = 0;
            return res;
        }
    }
    return res;
}
