// The velkinfo action: reads a VELK file through the stream parser and
// prints its release header, or with -all every valid content part.
#include "velk/velkinfo.h"

#include <cstdlib>
#include <cstring>
#include <memory>

#include "base/console.h"
#include "base/fileutil.h"
#include "base/options.h"
#include "velk/velk_sig.h"

namespace {

constexpr uint32_t kHeaderOnlySize = 1024;
constexpr uint32_t kPreambleSize = VELK_ID_SIZE + VELK_HEADER_SIZE;  // 24

struct free_deleter {
    void operator()(void* p) const { std::free(p); }
};
struct parser_deleter {
    void operator()(velk_stream_parser* p) const { velk_stream_parser_deinit(p); }
};

bool release_header_complete(const velk_stream_parser* p)
{
    return p->found_headers >= 1 && p->parts[0] && p->parts[0]->type_id == VELK_TYPE_RELEASE_HEADER;
}

// What -keys= (or the device's key directory) makes of an image, for -all.
struct signature_view {
    const velk_keyring* keys;  // null: no keys, nothing checked
    velk_sig_check check;
    int result;                // VELK_SIG_OK or a refusal
};

// The manifest part: the signature printer's lines, then what the manifest
// holds and whether it verified.
void print_manifest(const velk_stream_parser* p, const signature_view& v)
{
    velk_content_signature_print(p, VELK_SIG_PART);
    const velk_content_header* h = p->parts[VELK_SIG_PART];
    const auto* sig = reinterpret_cast<const velk_signature_content*>(h);
    velk_manifest m{};
    if (h->hdr_length != sizeof *sig ||
        velk_manifest_parse(reinterpret_cast<const uint8_t*>(h) + h->hdr_length, h->body_length,
                            sig->algorithm_id, &m) != VELK_SIG_OK) {
        zb_printf("manifest entries........: malformed\n");
    } else {
        zb_printf("manifest entries........: %u\n", m.entry_count);
        for (uint32_t i = 0; i < m.signature_count; ++i) {
            char id[2 * VELK_SIG_KEY_ID_SIZE + 1];
            velk_key_id_text(m.signatures[i].key_id, id);
            int k = v.keys ? velk_keyring_find(v.keys, m.signatures[i].key_id) : -1;
            zb_printf("signature key id........: %s (%s)\n", id, k >= 0 ? v.keys->keys[k].file : "unknown key");
        }
    }
    zb_printf("signature...............: %s\n", !v.keys                    ? "not checked (no keys)"
                                                 : v.result == VELK_SIG_OK ? "verified"
                                                                           : "NOT VERIFIED");
}

void print_part(const velk_stream_parser* p, int i, const signature_view& v)
{
    zb_printf("-------------------------------------------------------\n");
    const velk_content_header* h = p->parts[i];
    if (!h) {  // header-only mode: part 0 did not arrive whole
        velk_content_header_print(p, i);
        return;
    }
    char name[sizeof h->name + 1] = {};
    std::memcpy(name, h->name, sizeof h->name);
    zb_printf("Content Part: %i, type %d, name %s\n", i, h->type_id, name);
    velk_content_info_print(p, i);
    if (h->type_id == VELK_TYPE_RELEASE_HEADER) velk_release_header_print(p, i);
    else if (h->type_id == VELK_TYPE_SOFTWARE) velk_content_software_print(p, i);
    else if (h->type_id == VELK_TYPE_SIGNATURE && i == VELK_SIG_PART) print_manifest(p, v);
}

// The keys velkinfo -all checks with; 0, or the exit status (logged).
int load_keys(const kor_options* o, velk_keyring* ring)
{
    const bool given = o->keys[0] != '\0';
    const char* path = given ? o->keys : kor_key_dir;
    char what[256];
    const int n = velk_keyring_load(ring, path, what, sizeof what);
    if (n == VELK_KEYS_ERR_FILE) log_console(LOG_ERR, "velkinfo: cannot use key file %s\n", what);
    if (n == VELK_KEYS_ERR_TOO_MANY) log_console(LOG_ERR, "velkinfo: more than %u keys in %s\n", VELK_SIG_MAX_KEYS, what);
    if (n == VELK_KEYS_ERR_CRYPTO) log_console(LOG_ERR, "velkinfo: signature checks need libcrypto.so.3: %s\n", what);
    if (n < 0) return 18;
    if (n == 0 && (given || kor_require_signature)) {
        log_console(LOG_ERR, "velkinfo: no keys in %s\n", path);
        return 18;
    }
    return 0;
}

// Why an install would refuse the image, as the install says it.
void log_refusal(const velk_sig_check& c)
{
    switch (c.verdict) {
    case VELK_SIG_ERR_NOT_SIGNED:
        log_console(LOG_ERR, "velkinfo: image is not signed; keys in %s require a signature\n", c.keys->source);
        break;
    case VELK_SIG_ERR_ALGORITHM:
        log_console(LOG_ERR, "velkinfo: signature algorithm %i is not supported\n", c.algorithm);
        break;
    case VELK_SIG_ERR_MALFORMED:
        log_console(LOG_ERR, "velkinfo: signature part is malformed\n");
        break;
    case VELK_SIG_ERR_UNTRUSTED:
        log_console(LOG_ERR, "velkinfo: no trusted key signed this image\n");
        break;
    case VELK_SIG_ERR_MISMATCH:
        log_console(LOG_ERR, "velkinfo: content part %i does not match the signed manifest\n", c.part);
        break;
    case VELK_SIG_ERR_NOT_LISTED:
        log_console(LOG_ERR, "velkinfo: content part %i is not in the signed manifest\n", c.part);
        break;
    case VELK_SIG_ERR_MISSING:
        log_console(LOG_ERR, "velkinfo: image lacks content part %i of the signed manifest\n", c.part);
        break;
    default:
        log_console(LOG_ERR, "velkinfo: the signature check failed in libcrypto\n");
        break;
    }
}

int load_and_print(kor_options* options, const char* path, uint32_t buffer_size, int32_t header_only)
{
    // The first 1024 bytes say nothing about a signature: keys only matter with -all.
    static velk_keyring ring;
    signature_view view{};
    if (!header_only) {
        if (int r = load_keys(options, &ring)) return r;
        view.keys = ring.count > 0 ? &ring : nullptr;
    }
    std::unique_ptr<uint8_t, free_deleter> buffer(static_cast<uint8_t*>(std::calloc(buffer_size, 1)));
    if (!buffer) {
        log_console(LOG_ERR, "velkinfo: Could not allocated memory.\n");
        return 1;
    }
    std::unique_ptr<velk_stream_parser, parser_deleter> parser(velk_stream_parser_init(nullptr, buffer.get()));
    if (!parser) {
        log_console(LOG_ERR, "velkinfo: velk_stream_parser_init failed.\n");
        return 1;
    }
    velkinfo_ctx ctx{options, parser.get(), buffer_size, header_only};
    int32_t r = load_file(path, buffer.get(), buffer_size, velkinfo_receive, &ctx);
    int32_t s = velk_stream_parser_get_status(parser.get());
    if (r == 0 && s == 1) {
        log_console(LOG_ERR, "velkinfo: File contains no data.\n");
        return 9;
    }
    if (s < 0) {
        log_console(LOG_ERR, "velkinfo: loading VELK failed.\n");
        return 9;
    }
    velk_sig_check_init(&view.check, view.keys);
    view.result = velk_sig_check_step(&view.check, parser.get());
    if (view.result >= 0) view.result = velk_sig_check_end(&view.check, parser.get());
    velk_sig_check_release(&view.check);
    int n = header_only ? 1 : velk_stream_parser_get_valid_content_parts(parser.get());
    for (int i = 0; i < n && i < static_cast<int>(VELK_MAX_PARTS); i++) print_part(parser.get(), i, view);
    if (view.result >= 0) return 0;
    log_refusal(view.check);
    return 15;
}

}  // namespace

size_t velkinfo_receive(void* data, size_t size, size_t count, void* ctx)
{
    KOR_ASSERT("kor", data != nullptr);
    KOR_ASSERT("kor", ctx != nullptr);
    auto* c = static_cast<velkinfo_ctx*>(ctx);
    velk_stream_parser* p = c->parser;
    KOR_ASSERT("kor", p != nullptr);
    size_t m = size * count;
    size_t fed = m;
    int32_t status = velk_stream_parser_get_status(p);
    if (status == 1) {
        // A first piece of 24 bytes or less cannot hold a header and any part.
        if (m <= kPreambleSize) velk_stream_parser_fail(p);
        if (m <= kPreambleSize || velk_stream_parser_hdr(p, kPreambleSize) != 1) {
            log_console(LOG_ERR, "velkinfo: no header\n");
            return 0;
        }
        fed = m - kPreambleSize;
    } else if (status != 2) {
        log_console(LOG_ERR, "velkinfo: PARSER failed\n");
        return 0;
    }
    int r = velk_stream_parser_next(p, static_cast<uint32_t>(fed));
    if (c->header_only && release_header_complete(p)) return 0;
    return r == VELK_SP_MORE ? m : 0;
}

int action_velkinfo(kor_options* options)
{
    KOR_ASSERT("kor", options != nullptr);
    const char* path = options->nwords > 1 ? options->words[1] : nullptr;
    if (!path) {
        log_console(LOG_ERR, "velkinfo: VELK is missing.\n");
        return 1;
    }
    int32_t size = fnsize(path);
    if (size < 0) {
        log_console(LOG_ERR, "velkinfo: could not open VELK\n");
        return 8;
    }
    if (size == 0) {
        log_console(LOG_ERR, "velkinfo: empty VELK\n");
        return 9;
    }
    if (static_cast<uint32_t>(size) > options->velksize) {
        log_console(LOG_ERR, "velkinfo: VELK too big\n");
        return 9;
    }
    bool all = options->nwords > 2 && options->words[2] && std::strncmp(options->words[2], "-all", 4) == 0;
    if (all) return load_and_print(options, path, static_cast<uint32_t>(size), 0);
    return load_and_print(options, path, kHeaderOnlySize, 1);
}
