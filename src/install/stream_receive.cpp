// The receiver of a streaming install. One pass-through parser sees every
// byte once. The first pass keeps every content header and the bodies the
// install reads itself, plans as soon as the KORM descriptor is in, and
// passes over every other body. The second pass checks that each header is
// the one the first pass read, writes each body it was asked for into its
// partition while it arrives, or keeps it in memory for the end.
#include <cstring>

#include "base/console.h"
#include "base/options.h"
#include "base/progress.h"
#include "install/install_steps.h"

namespace {

constexpr const char* MODULE = "kor";

uint64_t padded(uint32_t n) { return (uint64_t{n} + 3u) & ~uint64_t{3}; }

bool is_korm(const velk_content_header* h)
{
    return std::strncmp(h->name, "korm", sizeof h->name) == 0;
}

// The bodies the install reads itself: the first part (the release
// information a set records), release headers, signature parts and the
// KORM descriptor.
bool keep_whole(int32_t k, const velk_content_header* h)
{
    return k == 0 || h->type_id == VELK_TYPE_RELEASE_HEADER || h->type_id == VELK_TYPE_SIGNATURE ||
           is_korm(h);
}

// Ends the piece with `state`: a skip, the end of what is wanted, or a
// failure. The transfer ends.
bool stop(install_ctx* c, int state)
{
    c->state = state;
    return false;
}

bool refuse(install_ctx* c, int status)
{
    c->stream->failure = status;
    return stop(c, INSTALL_STATE_FAILED);
}

// One step of the signature check (a no-op without keys); a refusal ends
// the install with the check's status.
bool signature(install_ctx* c, int r)
{
    return install_signature_verdict(c, r) || refuse(c, install_signature_status(c));
}

// A body held whole, against the signed manifest.
bool signed_body(install_ctx* c, int32_t k, const velk_content_header* cp)
{
    const uint8_t* body = reinterpret_cast<const uint8_t*>(cp) + cp->hdr_length;
    return signature(c, velk_sig_stream_body(&c->sig, k, body, cp->body_length)) &&
           signature(c, velk_sig_stream_body_end(&c->sig, k));
}

// Room for n bytes in the held area, on an 8-byte boundary; null when what
// -velksize allows is used up.
uint8_t* hold_room(install_ctx* c, uint64_t n)
{
    uint64_t at = (uint64_t{c->buffer_fill} + 7u) & ~uint64_t{7};
    if (at + n > c->buffer_size) return nullptr;
    c->buffer_fill = static_cast<uint32_t>(at + n);
    return c->buffer + at;
}

// A part's header, with its body behind it when `body` is set.
velk_content_header* hold_part(install_ctx* c, int32_t k, const velk_content_header* h, bool body)
{
    uint64_t need = h->hdr_length + (body ? padded(h->body_length) : 0);
    if (need < STREAM_HEADER_ROOM) need = STREAM_HEADER_ROOM;
    uint8_t* room = hold_room(c, need);
    if (!room) {
        log_console(LOG_ERR,
                    "install: content part %d needs %llu bytes in memory; -velksize=%u does not "
                    "leave them\n",
                    k, static_cast<unsigned long long>(need), c->options->velksize);
        return nullptr;
    }
    std::memcpy(room, h, h->hdr_length);
    return reinterpret_cast<velk_content_header*>(room);
}

// What the receiver without -stream does when a part's body is complete,
// done here as soon as its header is in: the late decision of an element
// whose version is decided on arrival, and the walk along the elements.
void examine_header(install_ctx* c, int32_t k)
{
    install_settle_element(c, c->stream->parts[k], k);
}

bool seekable(const install_ctx* c) { return !c->stream->url || c->range_mode == 1; }

// The body of the part whose header just came is not wanted. A source
// that can go on behind it does so, unless the body is in this piece
// already; any other reads it through (the parser still checks its CRC).
bool pass_over(install_ctx* c, size_t left)
{
    install_stream* s = c->stream;
    const velk_content_header* h = velk_pass_parser_header(s->parser);
    if (!seekable(c) || padded(h->body_length) <= left) return true;
    uint64_t next = velk_pass_parser_skip(s->parser);
    if (s->parser->status == 3) return stop(c, INSTALL_STATE_DONE);
    s->resume_at = next;
    s->skips++;
    zb_snprintf(c->range, sizeof c->range, "%llu-", static_cast<unsigned long long>(next));
    return stop(c, INSTALL_STATE_SKIP);
}

bool first_header(install_ctx* c, const velk_pass_event& ev, size_t left)
{
    install_stream* s = c->stream;
    const auto* h = reinterpret_cast<const velk_content_header*>(ev.data);
    const int32_t k = ev.part;
    const bool whole = keep_whole(k, h);
    s->parts[k] = hold_part(c, k, h, whole);
    if (!s->parts[k]) return refuse(c, 9);
    s->whole[k] = whole;
    s->offset[k] = s->parser->position - ev.length;
    s->count = k + 1;
    // Nothing acts on a part (late decision, skip, plan) before the
    // signature check has matched its header.
    if (!signature(c, velk_sig_stream_header(&c->sig, k, s->parts[k]))) return false;
    examine_header(c, k);
    return whole || pass_over(c, left);
}

bool first_body_end(install_ctx* c, const velk_pass_event& ev)
{
    install_stream* s = c->stream;
    const int32_t k = ev.part;
    if (!s->whole[k]) return true;
    const velk_content_header* cp = s->parts[k];
    // Part 0, read before the manifest, is matched when the manifest is.
    if (k == VELK_SIG_PART && !signature(c, velk_sig_stream_manifest(&c->sig, cp, s->parts[0])))
        return false;
    if (k > VELK_SIG_PART && !signed_body(c, k, cp)) return false;
    if (cp->type_id == VELK_TYPE_RELEASE_HEADER)
        c->release_header = reinterpret_cast<const korl_rhdr*>(
            reinterpret_cast<const uint8_t*>(cp) + VELK_CONTENT_HEADER_SIZE);
    if (is_korm(cp) && !install_plan_korm(c, cp)) return stop(c, INSTALL_STATE_FAILED);
    return true;
}

bool same_header(const install_stream* s, const velk_pass_event& ev)
{
    const int32_t k = ev.part;
    return k < s->count && s->parts[k]->hdr_length == ev.length &&
           std::memcmp(s->parts[k], ev.data, ev.length) == 0 &&
           s->offset[k] == s->parser->position - ev.length;
}

bool changed(install_ctx* c, int32_t k)
{
    log_console(LOG_ERR, "install: content part %d is not what the first reading found\n", k);
    return stop(c, INSTALL_STATE_FAILED);
}

bool second_header(install_ctx* c, const velk_pass_event& ev, size_t left)
{
    install_stream* s = c->stream;
    const int32_t k = ev.part;
    if (!same_header(s, ev)) return changed(c, k);
    switch (s->use[k]) {
    case stream_use::write:
        return stream_sink_begin(c, k) || refuse(c, 1);
    case stream_use::hold:
        s->parts[k] = hold_part(c, k, s->parts[k], true);
        return s->parts[k] != nullptr || refuse(c, 9);
    default:
        if (k > s->last) return stop(c, INSTALL_STATE_DONE);
        return pass_over(c, left);
    }
}

// The second reading's parts: written, or read into memory for the end.
bool fetched(stream_use u) { return u == stream_use::write || u == stream_use::hold; }

void keep(install_stream* s, const velk_pass_event& ev)
{
    uint8_t* at = reinterpret_cast<uint8_t*>(s->parts[ev.part]) + s->parts[ev.part]->hdr_length + ev.at;
    std::memcpy(at, ev.data, ev.length);
}

bool body(install_ctx* c, const velk_pass_event& ev)
{
    install_stream* s = c->stream;
    const int32_t k = ev.part;
    if (s->pass == 1) {
        if (s->whole[k]) keep(s, ev);
        return true;
    }
    if (!fetched(s->use[k])) return true;
    if (!signature(c, velk_sig_stream_body(&c->sig, k, ev.data, ev.length))) return false;
    if (s->use[k] == stream_use::write) return stream_sink_body(c, ev.data, ev.length) || refuse(c, 1);
    keep(s, ev);
    return true;
}

bool second_body_end(install_ctx* c, const velk_pass_event& ev)
{
    install_stream* s = c->stream;
    const int32_t k = ev.part;
    // A body that does not match what was signed is never read back, and
    // the install records nothing.
    if (fetched(s->use[k]) && !signature(c, velk_sig_stream_body_end(&c->sig, k))) return false;
    if (s->use[k] == stream_use::write && !stream_sink_end(c, k)) return refuse(c, 1);
    if (s->use[k] == stream_use::hold) s->whole[k] = true;
    return k < s->last || stop(c, INSTALL_STATE_DONE);
}

bool same_file_header(const install_stream* s, const velk_pass_event& ev)
{
    return std::memcmp(s->file_header, ev.data, sizeof s->file_header) == 0;
}

// One event of the parser; false when the piece ends the transfer.
bool on_event(install_ctx* c, const velk_pass_event& ev, size_t left)
{
    install_stream* s = c->stream;
    const bool first = s->pass == 1;
    switch (ev.kind) {
    case VELK_PASS_FILE_HEADER:
        if (!first) return same_file_header(s, ev) || changed(c, -1);
        std::memcpy(s->file_header, ev.data, sizeof s->file_header);
        c->velk_header = reinterpret_cast<::velk_header*>(s->file_header + VELK_ID_SIZE);
        // A file shorter than its image is refused now, not when its end
        // is reached with parts written.
        if (s->url || s->size >= s->parser->end) return true;
        log_console(LOG_ERR, "install: incomplete VELK\n");
        return refuse(c, 9);
    case VELK_PASS_HEADER:
        return first ? first_header(c, ev, left) : second_header(c, ev, left);
    case VELK_PASS_BODY:
        return body(c, ev);
    case VELK_PASS_BODY_END:
        if (ev.valid < 0) {
            log_console(LOG_ERR, "install: content part %d not valid error\n", ev.part);
            return stop(c, INSTALL_STATE_FAILED);
        }
        return first ? first_body_end(c, ev) : second_body_end(c, ev);
    default:  // complete: nothing behind the image is wanted
        return stop(c, INSTALL_STATE_DONE);
    }
}

}  // namespace

size_t stream_receive(install_ctx* c, const uint8_t* data, size_t n)
{
    install_stream* s = c->stream;
    KOR_ASSERT(MODULE, s->parser != nullptr);
    KOR_ASSERT(MODULE, c->state == INSTALL_STATE_HEADER || c->state == INSTALL_STATE_PARSING ||
                           c->state == INSTALL_STATE_SKIP);
    s->received += n;
    c->received = s->received > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(s->received);
    const kor_hooks* hooks = kor_hooks_get();
    if (hooks && hooks->install_data_rcvd) {
        int r = hooks->install_data_rcvd(c);
        if (r != 0) {
            log_console(LOG_ERR, "kor_install_hook_data_rcvd failed (%i)\n", r);
            c->state = INSTALL_STATE_FAILED;
            return n + 1;
        }
    }
    c->state = INSTALL_STATE_PARSING;
    const uint8_t* at = data;
    size_t left = n;
    for (;;) {
        velk_pass_event ev;
        const bool file_header = s->parser->status == 1;
        int r = velk_pass_parser_step(s->parser, &at, &left, &ev);
        if (r < 0) {
            if (file_header)
                log_console(LOG_ERR, "velk_stream_parser_hdr failed (%i).\n", r);
            else
                log_console(LOG_ERR, "velk_stream_parser failed (r=%i).\n", r);
            c->state = INSTALL_STATE_FAILED;
            return n + 1;
        }
        if (r == VELK_PASS_MORE) {
            stream_progress(c);
            return n;
        }
        if (!on_event(c, ev, left)) {
            if (c->state == INSTALL_STATE_SKIP) stream_progress(c);
            return n + 1;
        }
    }
}

void stream_progress(const install_ctx* c)
{
    const install_stream* s = c->stream;
    const velk_pass_parser* p = s->parser;
    progress_state st{};
    st.bytes = s->received;
    st.position = p->position;
    st.total = p->status >= 2 ? p->end : s->size;
    if (velk_pass_parser_in_body(p)) {
        st.part = velk_pass_parser_header(p)->name;
        st.part_size = sizeof velk_pass_parser_header(p)->name;
    }
    st.skips = s->skips;
    progress_update(st);
}
