// The streaming install (-stream): its two passes over the source, the
// choice of what is written while it arrives and what is held for the end,
// and the writing inside the critical region.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "base/console.h"
#include "base/fileutil.h"
#include "base/options.h"
#include "base/progress.h"
#include "install/install_steps.h"

namespace {

constexpr int GO_ON = INSTALL_GO_ON;
// A file source is read in pieces of the window's size; the first pass,
// which mostly reads headers, in smaller ones.
constexpr uint32_t WINDOW = DEVICE_IO_SIZE;
constexpr uint32_t FIRST_PASS_PIECE = 64 * 1024;

int open_file(install_stream* s, const char* path)
{
    s->file_fd = ::open(path, O_RDONLY | O_CLOEXEC);
    struct stat st {};
    if (s->file_fd < 0 || ::fstat(s->file_fd, &st) != 0) {
        log_console(LOG_ERR, "install: could not open VELK\n");
        return 8;
    }
    if (st.st_size == 0) {
        log_console(LOG_ERR, "install: empty VELK\n");
        return 9;
    }
    s->size = static_cast<uint64_t>(st.st_size);
    s->window = image_map(WINDOW);
    if (!s->window) {
        log_console(LOG_ERR, "install: could not allocate %u bytes for the VELK\n", WINDOW);
        return 1;
    }
    s->window_size = WINDOW;
    return 0;
}

// The partition `e` writes is one a set in use may need while the install
// runs: the only member of its pool, one that another set lists, or one of
// the active set when the install replaces the active set.
bool must_hold(const install_run* run, const korm_element* e)
{
    if (korl_partpool_items_count(&run->data, e->poolname) == 1) return true;
    const korl_data& d = run->stored;
    for (int set = 0; set < KORL_SETS; ++set) {
        if (set == run->ctx.setidx && set != d.actset) continue;
        for (int8_t ref : d.partset[set].refs) {
            if (ref < 0) break;
            if (ref == e->partinfo_idx) return true;
        }
    }
    return false;
}

// What the second pass takes of the held area for a part (see hold_part).
uint64_t held_size(const velk_content_header* h)
{
    uint64_t n = h->hdr_length + ((uint64_t{h->body_length} + 3u) & ~uint64_t{3});
    if (n < STREAM_HEADER_ROOM) n = STREAM_HEADER_ROOM;
    return (n + 7u) & ~uint64_t{7};
}

// Every part the second pass holds fits what -velksize leaves.
int check_room(const install_run* run)
{
    const install_ctx& c = run->ctx;
    const install_stream& s = run->stream;
    uint64_t room = c.buffer_size - c.buffer_fill, need = 0;
    for (int32_t k = 0; k < s.count; ++k) {
        if (s.use[k] != stream_use::hold) continue;
        need += held_size(s.parts[k]);
        if (need <= room) continue;
        log_console(LOG_ERR,
                    "install: content part %d (%u bytes) must be held in memory until the other "
                    "parts are written, and does not fit -velksize=%u\n",
                    k, s.parts[k]->body_length, run->opts->velksize);
        return 9;
    }
    return GO_ON;
}

void choose_uses(install_run* run)
{
    install_stream& s = run->stream;
    int uses[VELK_MAX_PARTS] = {};
    for (const korm_element& e : run->ctx.korm)
        if (e.action == 1 && e.cidx >= 0 && e.cidx < s.count) uses[e.cidx]++;
    for (int i = 0; i < KORL_KORM_ELEMENTS; ++i) {
        const korm_element& e = run->ctx.korm[i];
        if (e.action != 1 || e.cidx < 0 || e.cidx >= s.count) continue;
        const int k = e.cidx;
        // A part two elements write is read once, into memory.
        if (s.whole[k] || uses[k] > 1 || must_hold(run, &e)) {
            s.use[k] = s.whole[k] ? stream_use::held : stream_use::hold;
            s.held_elements[i] = 1;
            log_console(LOG_INFO, "install: content part %d for partition %i is written last, from memory\n",
                        k, e.partinfo_idx);
            continue;
        }
        s.use[k] = stream_use::write;
        s.element[k] = static_cast<int8_t>(i);
    }
}

// The bodies that a source able to go on behind them is never asked for.
void note_skips(const install_run* run)
{
    const install_stream& s = run->stream;
    if (s.url && run->ctx.range_mode != 1) return;
    for (int i = 0; i < KORL_KORM_ELEMENTS; ++i) {
        const korm_element& e = run->ctx.korm[i];
        if (e.action == 2 && e.cidx >= 0 && e.cidx < s.count && s.use[e.cidx] == stream_use::skip)
            log_console(LOG_INFO, "  %i should not be downloaded, SKIP\n", i);
    }
}

int second_pass(install_ctx* c)
{
    install_stream* s = c->stream;
    s->pass = 2;
    c->state = INSTALL_STATE_PARSING;
    if (!s->url || c->range_mode == 1) {
        velk_pass_parser_seek(s->parser, s->first, s->offset[s->first]);
        s->resume_at = s->offset[s->first];
    } else {
        velk_pass_parser_restart(s->parser);
        s->resume_at = 0;
    }
    progress_start();
    int r = s->url ? stream_read_url(c) : stream_read_file(c);
    progress_end();
    if (r != 0) return r;
    if (c->state == INSTALL_STATE_DONE) return 0;
    log_console(LOG_ERR, "install: incomplete VELK\n");
    return 9;
}

void print_plan(const install_ctx* c)
{
    for (int i = 0; i < KORL_KORM_ELEMENTS; ++i)
        if (c->korm[i].action == 1 || c->options->v) install_plan_line(c, i);
}

}  // namespace

int stream_first_pass(install_ctx* ctx, hostconfig* hc, const char* source)
{
    install_stream* s = ctx->stream;
    s->source = source;
    s->url = source_is_url(source, s->scheme) == 1;
    s->pass = 1;
    s->first = s->last = -1;
    // Planned from the "korm" part on, whatever the source.
    ctx->next_element = -1;
    s->parser = velk_pass_parser_init(nullptr);
    if (!s->parser) {
        log_console(LOG_ERR, "install: could not allocate the VELK parser\n");
        return 1;
    }
    ctx->buffer = image_map(ctx->options->velksize);
    if (!ctx->buffer) {
        log_console(LOG_ERR, "install: could not allocate %u bytes for the VELK\n",
                    ctx->options->velksize);
        return 1;
    }
    ctx->buffer_size = ctx->options->velksize;
    ctx->buffer_fill = 0;
    int r;
    progress_start();
    if (s->url) {
        r = transfer_url(ctx, hc, source, s->scheme);
    } else {
        r = open_file(s, source);
        if (r == 0) r = stream_read_file(ctx);
    }
    progress_end();
    if (r != 0) return r;
    if (s->parser->status != 3) {
        log_console(LOG_ERR, "install: incomplete VELK\n");
        return 9;
    }
    if (!install_signature_verdict(ctx, velk_sig_stream_end(&ctx->sig, s->count)))
        return install_signature_status(ctx);
    return 0;
}

int stream_read_file(install_ctx* ctx)
{
    install_stream* s = ctx->stream;
    const uint32_t piece = s->pass == 1 ? FIRST_PASS_PIECE : s->window_size;
    for (;;) {
        const uint64_t at = s->resume_at;
        ssize_t got = ::pread(s->file_fd, s->window, piece, static_cast<off_t>(at));
        if (got < 0 && errno == EINTR) continue;
        if (got == 0) return 0;
        if (got > 0) {
            s->resume_at = at + static_cast<uint64_t>(got);
            // Read once: the image must not push what the running system
            // keeps in the page cache out of a small memory.
            (void)posix_fadvise(s->file_fd, static_cast<off_t>(at), got, POSIX_FADV_DONTNEED);
            size_t n = static_cast<size_t>(got);
            if (install_receive(s->window, 1, n, ctx) == n || ctx->state == INSTALL_STATE_SKIP)
                continue;
            if (ctx->state == INSTALL_STATE_DONE) return 0;
        }
        if (s->failure != 0) return s->failure;
        log_console(LOG_ERR, "install: failed to load VELK\n");
        return 9;
    }
}

int plan_stream(install_run* run)
{
    install_stream& s = run->stream;
    if (!run->ctx.stream) return GO_ON;
    for (int32_t k = 0; k < s.count; ++k) {
        s.use[k] = stream_use::skip;
        s.element[k] = -1;
    }
    choose_uses(run);
    int r = check_room(run);
    if (r != GO_ON) return r;
    for (int32_t k = 0; k < s.count; ++k) {
        if (s.use[k] != stream_use::write && s.use[k] != stream_use::hold) continue;
        if (s.first < 0) s.first = k;
        s.last = k;
    }
    note_skips(run);
    return GO_ON;
}

install_write_result stream_write_out(install_run* run)
{
    install_ctx* c = &run->ctx;
    install_stream* s = c->stream;
    const kor_options* o = run->opts;
    if (o->dryrun || o->onlymeta) return install_write_out(c);
    print_plan(c);
    if (s->first >= 0) {
        int r = second_pass(c);
        stream_sink_abandon(&s->sink);
        if (r != 0) return {0, 0, r};
    }
    return install_write_selected(c, s->held_elements);
}

void stream_release(install_ctx* ctx)
{
    install_stream* s = ctx->stream;
    velk_pass_parser_deinit(s->parser);
    s->parser = nullptr;
    if (s->file_fd >= 0) (void)::close(s->file_fd);
    s->file_fd = -1;
    image_unmap(s->window, s->window_size);
    s->window = nullptr;
    stream_sink_abandon(&s->sink);
}
