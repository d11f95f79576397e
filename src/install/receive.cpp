// The stream receiver: stores each arriving piece of the image, drives the
// parser, plans the install as soon as the "korm" part is complete and, in
// range mode, ends the transfer in front of bodies that will not be written.
#include <cstring>

#include "base/console.h"
#include "base/options.h"
#include "base/progress.h"
#include "install/install.h"
#include "install/install_steps.h"

namespace {

constexpr const char* MODULE = "kor";
constexpr uint32_t FILE_HEADER_BYTES = VELK_ID_SIZE + VELK_HEADER_SIZE;

size_t fail(install_ctx* c, size_t n)
{
    c->state = INSTALL_STATE_FAILED;
    return n + 1;
}

// A skip or a failure ends the transfer: libcurl and load_file both treat a
// count other than the piece's size as the end.
size_t finish(const install_ctx* c, size_t n)
{
    if (c->state == INSTALL_STATE_SKIP || c->state == INSTALL_STATE_FAILED) return n + 1;
    return n;
}

korm_element* next_korm(install_ctx* c)
{
    if (c->next_element < 0 || c->next_element >= KORL_KORM_ELEMENTS) return nullptr;
    return &c->korm[c->next_element];
}

// A file source is already in place; a URL piece is copied to its offset.
// The image must stay below buffer_size, so a full buffer is an error too.
bool store(install_ctx* c, const void* data, size_t n)
{
    if (!c->curl) return true;
    if (uint64_t{c->buffer_fill} + n >= c->buffer_size) {
        log_console(LOG_ERR, "Too much data received. Try increasing -velksize\n");
        return false;
    }
    std::memcpy(c->buffer + c->buffer_fill, data, n);
    c->buffer_fill += static_cast<uint32_t>(n);
    return true;
}

// How many of the received bytes the parser has not seen yet; -1 on failure.
int64_t bytes_to_feed(install_ctx* c, size_t n)
{
    switch (c->state) {
    case INSTALL_STATE_PARSING:
        return static_cast<int64_t>(n);
    case INSTALL_STATE_SKIP:
        c->state = INSTALL_STATE_PARSING;
        return static_cast<int64_t>(n);
    case INSTALL_STATE_HEADER: {
        if (c->received < FILE_HEADER_BYTES) return 0;
        int r = velk_stream_parser_hdr(c->parser, FILE_HEADER_BYTES);
        if (r != 1) {
            log_console(LOG_ERR, "velk_stream_parser_hdr failed (%i).\n", r);
            return -1;
        }
        c->header_handed = FILE_HEADER_BYTES;
        c->velk_header = reinterpret_cast<::velk_header*>(c->buffer + VELK_ID_SIZE);
        c->state = INSTALL_STATE_PARSING;
        return c->received - FILE_HEADER_BYTES;
    }
    default:
        zb_panic("*** ASSERT in %s at %d\n", MODULE, __LINE__);
    }
}

// The parser has validated the header of the part that the next element
// names and waits for its body: leave the body out if it is not wanted.
bool skip_wanted(install_ctx* c)
{
    if (c->range_mode != 1) return false;
    const korm_element* e = next_korm(c);
    if (!e) return false;
    int32_t headers = velk_stream_parser_get_found_content_part_headers(c->parser);
    if (e->cidx != headers - 1) return false;
    if (headers != velk_stream_parser_get_found_content_parts(c->parser) + 1) return false;
    return e->action != 1 && e->action != 3;
}

size_t skip_body(install_ctx* c, size_t n)
{
    log_console(LOG_INFO, "  %i should not be downloaded, SKIP\n", c->next_element);
    c->state = INSTALL_STATE_SKIP;
    c->skips++;
    uint32_t offset = velk_stream_parser_skip(c->parser);
    c->next_element++;
    zb_snprintf(c->range, sizeof c->range, "%u-", offset);
    c->buffer_fill = offset;
    install_progress(c);
    return n + 1;
}

const char* match_text(const kor_options* o)
{
    return o->platform_set ? o->platform : o->product;
}

bool is_korm(const velk_content_header* cp)
{
    return std::strncmp(cp->name, "korm", sizeof cp->name) == 0;
}

// One content part whose body the parser has reached.
bool examine_part(install_ctx* c, int32_t k)
{
    int v = velk_stream_parser_content_part_is_valid(c->parser, k);
    if (v < 0) {
        log_console(LOG_ERR, "install: content part %d not valid error\n", k);
        return false;
    }
    if (v == 0) return true;  // left out by a skip
    const velk_content_header* cp = velk_stream_parser_content_parts(c->parser)[k];
    const uint8_t* raw = reinterpret_cast<const uint8_t*>(cp);
    if (cp->type_id == VELK_TYPE_RELEASE_HEADER)
        c->release_header = reinterpret_cast<const korl_rhdr*>(raw + VELK_CONTENT_HEADER_SIZE);
    install_settle_element(c, cp, k);
    if (is_korm(cp)) return install_plan_korm(c, cp);
    return true;
}

bool examine_new_parts(install_ctx* c)
{
    int32_t found = velk_stream_parser_get_found_content_parts(c->parser);
    KOR_ASSERT(MODULE, found >= c->parts_seen);
    for (int32_t k = c->parts_seen; k < found; ++k)
        if (!examine_part(c, k)) return false;
    c->parts_seen = found;
    return true;
}

}  // namespace

size_t install_receive(void* data, size_t size, size_t nmemb, void* ctx)
{
    auto* c = static_cast<install_ctx*>(ctx);
    size_t n = size * nmemb;
    KOR_ASSERT(MODULE, c && data);
    if (c->stream) return stream_receive(c, static_cast<const uint8_t*>(data), n);
    KOR_ASSERT(MODULE, c->buffer && c->parser);
    if (!store(c, data, n)) return fail(c, n);
    c->received += static_cast<uint32_t>(n);
    const kor_hooks* hooks = kor_hooks_get();
    if (hooks && hooks->install_data_rcvd) {
        int r = hooks->install_data_rcvd(c);
        if (r != 0) {
            log_console(LOG_ERR, "kor_install_hook_data_rcvd failed (%i)\n", r);
            return fail(c, n);
        }
    }
    int64_t feed = bytes_to_feed(c, n);
    if (feed < 0) return fail(c, n);
    if (c->state != INSTALL_STATE_HEADER) {
        if (velk_stream_parser_get_status(c->parser) == 3) return finish(c, n);
        int r = velk_stream_parser_next(c->parser, static_cast<uint32_t>(feed));
        if (r < 0) {
            log_console(LOG_ERR, "velk_stream_parser failed (r=%i).\n", r);
            return fail(c, n);
        }
    }
    // Nothing below acts on a part (skip, plan, late decision) before the
    // signature check has matched it.
    if (!install_check_signature(c)) return fail(c, n);
    if (skip_wanted(c)) return skip_body(c, n);
    if (!examine_new_parts(c)) return fail(c, n);
    install_progress(c);
    return finish(c, n);
}

int install_receive_restart(install_ctx* c)
{
    KOR_ASSERT(MODULE, c && c->buffer);
    // buffer_fill only grows (skips move it forward), so every byte stored
    // so far lies below it.
    std::memset(c->buffer, 0, c->buffer_fill);
    velk_stream_parser_deinit(c->parser);
    c->parser = velk_stream_parser_init(nullptr, c->buffer);
    if (!c->parser) {
        log_console(LOG_ERR, "install: could not allocate the VELK parser\n");
        return 1;
    }
    c->state = INSTALL_STATE_HEADER;
    c->header_handed = 0;
    c->received = 0;
    c->parts_seen = 0;
    c->buffer_fill = 0;
    std::memset(c->korm, 0, sizeof c->korm);
    c->korm_count = 0;
    c->release_header = nullptr;
    c->velk_header = nullptr;
    c->range_mode = 0;
    c->next_element = -1;
    c->resume_at = 0;
    c->skips = 0;
    // The signature check follows the parser: it starts again with it.
    velk_sig_check_release(&c->sig);
    velk_sig_check_init(&c->sig, c->keys);
    return 0;
}

void install_progress(const install_ctx* c)
{
    progress_state s{};
    s.bytes = c->received;
    s.position = c->curl ? c->buffer_fill : c->received;
    if (c->velk_header)
        s.total = uint64_t{VELK_ID_SIZE} + c->velk_header->hdr_length + c->velk_header->body_length;
    else if (!c->curl)
        s.total = c->buffer_size;
    const velk_content_header* cp = c->parser ? c->parser->current : nullptr;
    if (cp) {
        s.part = cp->name;
        s.part_size = sizeof cp->name;
    }
    s.skips = c->skips;
    progress_update(s);
}

bool install_plan_korm(install_ctx* c, const velk_content_header* cp)
{
    if (!c->release_header) {
        log_console(LOG_ERR, "install: KORM before RH\n");
        return false;
    }
    const char* text = reinterpret_cast<const char*>(cp) + cp->hdr_length;
    if (cp->body_length == 0 || text[cp->body_length - 1] != '\0') {
        log_console(LOG_ERR,
                    "install: Content Part Body should be 0-terminated for KORM content\n");
        return false;
    }
    c->korm_count = korl_parse_kormd(c->korm, KORL_KORM_ELEMENTS, text);
    if (c->korm_count < 1) {
        log_console(LOG_ERR, "install: korl_parse_kormd failed: %i\n", c->korm_count);
        return false;
    }
    int r = korl_meta_install_part1(c->data, c->setidx, c->release_header, c->korm,
                                    match_text(c->options), c->options->f);
    if (r == KORL_META_INSTALL_ERR_SINGLETON) {
        log_console(LOG_ERR, "install: Can't install into singleton partitions without -f\n");
        return false;
    }
    if (r != KORL_META_INSTALL_OK) {
        log_console(LOG_ERR, "install: korl_meta_install_part1 failed: %i\n", r);
        log_console(LOG_ERR, "install: search korl.h for KORL_META_INSTALL_ERR_\n");
        return false;
    }
    if (c->korm_count < 1) return false;
    c->next_element = 0;
    return true;
}

void install_settle_element(install_ctx* c, const velk_content_header* h, int32_t k)
{
    korm_element* e = next_korm(c);
    if (h->type_id == VELK_TYPE_SOFTWARE && e && e->action == 3) {
        const auto* sw = reinterpret_cast<const velk_software_content*>(h);
        late_action_update(c->data, e, sw->sw_version_major, sw->sw_version_minor,
                           sw->sw_build_number);
    }
    if (e && e->cidx == k) c->next_element++;
}
