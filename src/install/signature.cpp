// The install's side of signed images: which keys it trusts, the check of
// the image while it arrives and what a refusal tells the operator. A
// refusal happens inside the receiver, before anything is written; the
// install then ends with 15 whether the image came from a file or a URL.
#include <cstring>

#include "base/console.h"
#include "base/options.h"
#include "install/install.h"

namespace {

// The image's own key ids, for a refusal: the operator compares them with
// the keys the device has.
struct key_id_list {
    char text[VELK_SIG_MAX_SIGNATURES * (2 * VELK_SIG_KEY_ID_SIZE + 2) + 8];
};

key_id_list image_key_ids(const velk_manifest& m)
{
    key_id_list out{};
    if (m.signature_count == 0) kor_str_copy(out.text, sizeof out.text, "none");
    for (uint32_t i = 0; i < m.signature_count; ++i) {
        char id[2 * VELK_SIG_KEY_ID_SIZE + 1];
        velk_key_id_text(m.signatures[i].key_id, id);
        if (i > 0) std::strcat(out.text, ", ");
        std::strcat(out.text, id);
    }
    return out;
}

void log_refusal(const install_ctx* c)
{
    const velk_sig_check& s = c->sig;
    switch (s.verdict) {
    case VELK_SIG_ERR_NOT_SIGNED:
        log_console(LOG_ERR, "install: image is not signed; keys in %s require a signature\n",
                    c->keys->source);
        break;
    case VELK_SIG_ERR_ALGORITHM:
        log_console(LOG_ERR, "install: signature algorithm %i is not supported\n", s.algorithm);
        break;
    case VELK_SIG_ERR_MALFORMED:
        log_console(LOG_ERR, "install: signature part is malformed\n");
        break;
    case VELK_SIG_ERR_UNTRUSTED:
        log_console(LOG_ERR, "install: no trusted key signed this image (key ids %s)\n",
                    image_key_ids(s.manifest).text);
        break;
    case VELK_SIG_ERR_MISMATCH:
        log_console(LOG_ERR, "install: content part %i does not match the signed manifest\n", s.part);
        break;
    case VELK_SIG_ERR_NOT_LISTED:
        log_console(LOG_ERR, "install: content part %i is not in the signed manifest\n", s.part);
        break;
    case VELK_SIG_ERR_MISSING:
        log_console(LOG_ERR, "install: image lacks content part %i of the signed manifest\n", s.part);
        break;
    default:
        log_console(LOG_ERR, "install: the signature check failed in libcrypto\n");
        break;
    }
}

}  // namespace

int install_load_keys(install_ctx* ctx, velk_keyring* ring)
{
    KOR_ASSERT("kor", ctx != nullptr && ctx->options != nullptr && ring != nullptr);
    const kor_options* o = ctx->options;
    const bool given = o->keys[0] != '\0';
    const char* path = given ? o->keys : kor_key_dir;
    char what[256];
    const int n = velk_keyring_load(ring, path, what, sizeof what);
    if (n == VELK_KEYS_ERR_FILE) {
        log_console(LOG_ERR, "install: cannot use key file %s\n", what);
        return KOR_EXIT_SIGNATURE_UNUSABLE;
    }
    if (n == VELK_KEYS_ERR_TOO_MANY) {
        log_console(LOG_ERR, "install: more than %u keys in %s\n", VELK_SIG_MAX_KEYS, what);
        return KOR_EXIT_SIGNATURE_UNUSABLE;
    }
    if (n == VELK_KEYS_ERR_CRYPTO) {
        log_console(LOG_ERR, "install: signature checks need libcrypto.so.3: %s\n", what);
        return KOR_EXIT_SIGNATURE_UNUSABLE;
    }
    // Keys named on the command line, or required by the build, that are not
    // there: checking nothing is not what was asked for.
    if (n == 0 && (given || kor_require_signature)) {
        log_console(LOG_ERR, "install: no keys in %s\n", path);
        return KOR_EXIT_SIGNATURE_UNUSABLE;
    }
    ctx->keys = n > 0 ? ring : nullptr;
    velk_sig_check_init(&ctx->sig, ctx->keys);
    return 0;
}

bool install_check_signature(install_ctx* ctx)
{
    if (ctx->keys == nullptr) return true;
    return install_signature_verdict(ctx, velk_sig_check_step(&ctx->sig, ctx->parser));
}

bool install_signature_verdict(install_ctx* ctx, int r)
{
    if (ctx->keys == nullptr) return true;
    if (r == VELK_SIG_VERIFIED) {
        char id[2 * VELK_SIG_KEY_ID_SIZE + 1];
        const velk_key& k = ctx->keys->keys[ctx->sig.key];
        velk_key_id_text(k.id, id);
        log_always(LOG_NOTICE, "install: signed by key %s (%s)\n", id, k.file);
    }
    if (r >= 0) return true;
    log_refusal(ctx);
    return false;
}

bool install_check_signature_end(install_ctx* ctx)
{
    if (ctx->keys == nullptr) return true;
    if (velk_sig_check_end(&ctx->sig, ctx->parser) == VELK_SIG_OK) return true;
    log_refusal(ctx);
    return false;
}

int install_signature_status(const install_ctx* ctx)
{
    if (ctx->keys == nullptr || ctx->sig.verdict >= 0) return 0;
    return ctx->sig.verdict == VELK_SIG_ERR_CRYPTO ? KOR_EXIT_SIGNATURE_UNUSABLE
                                                   : KOR_EXIT_SIGNATURE_REFUSED;
}
