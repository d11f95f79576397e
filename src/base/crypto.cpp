// The crypto seam's backend: OpenSSL's libcrypto 3, opened with dlopen on the
// first use. It is the fastest SHA-256 on the device (NEON assembly) and on
// build hosts (SHA extensions), and a device that fetches over HTTPS carries
// it already. Only its headers are needed to build.
#include "base/crypto.h"

#include <dlfcn.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>

#include "base/console.h"

namespace {

struct libcrypto_api {
    decltype(&OPENSSL_init_crypto) init_crypto;
    decltype(&EVP_MD_CTX_new) md_ctx_new;
    decltype(&EVP_MD_CTX_free) md_ctx_free;
    decltype(&EVP_sha256) sha256;
    decltype(&EVP_DigestInit_ex) digest_init;
    decltype(&EVP_DigestUpdate) digest_update;
    decltype(&EVP_DigestFinal_ex) digest_final;
    decltype(&EVP_PKEY_new_raw_public_key) pkey_new_raw_public;
    decltype(&EVP_PKEY_free) pkey_free;
    decltype(&EVP_DigestVerifyInit) verify_init;
    decltype(&EVP_DigestVerify) verify;
};
libcrypto_api api;
bool loaded = false;

template <typename F>
bool bind(void* lib, F& fn, const char* name)
{
    fn = reinterpret_cast<F>(dlsym(lib, name));
    return fn != nullptr;
}

bool bind_all(void* lib, libcrypto_api* a)
{
    return bind(lib, a->init_crypto, "OPENSSL_init_crypto") &&
           bind(lib, a->md_ctx_new, "EVP_MD_CTX_new") &&
           bind(lib, a->md_ctx_free, "EVP_MD_CTX_free") && bind(lib, a->sha256, "EVP_sha256") &&
           bind(lib, a->digest_init, "EVP_DigestInit_ex") &&
           bind(lib, a->digest_update, "EVP_DigestUpdate") &&
           bind(lib, a->digest_final, "EVP_DigestFinal_ex") &&
           bind(lib, a->pkey_new_raw_public, "EVP_PKEY_new_raw_public_key") &&
           bind(lib, a->pkey_free, "EVP_PKEY_free") &&
           bind(lib, a->verify_init, "EVP_DigestVerifyInit") &&
           bind(lib, a->verify, "EVP_DigestVerify");
}

EVP_MD_CTX* md_of(sha256_ctx* c) { return static_cast<EVP_MD_CTX*>(c->state); }

}  // namespace

int crypto_load(char* why, uint32_t size)
{
    if (loaded) return 1;
    void* lib = dlopen("libcrypto.so.3", RTLD_NOW | RTLD_LOCAL);
    libcrypto_api a{};
    if (lib == nullptr) {
        const char* e = dlerror();
        kor_str_copy(why, size, e ? e : "cannot be loaded");
        return -1;
    }
    if (!bind_all(lib, &a)) {
        kor_str_copy(why, size, "a function is missing (not OpenSSL 3?)");
        return -1;
    }
    // The system's openssl.cnf must not change what a signature check does.
    if (a.init_crypto(OPENSSL_INIT_NO_LOAD_CONFIG, nullptr) != 1) {
        kor_str_copy(why, size, "OPENSSL_init_crypto failed");
        return -1;
    }
    api = a;
    loaded = true;
    return 1;
}

bool sha256_init(sha256_ctx* c)
{
    KOR_ASSERT("crypto", loaded && c != nullptr);
    if (c->state == nullptr) c->state = api.md_ctx_new();
    return c->state != nullptr && api.digest_init(md_of(c), api.sha256(), nullptr) == 1;
}

bool sha256_update(sha256_ctx* c, const void* data, size_t length)
{
    KOR_ASSERT("crypto", loaded && c != nullptr && c->state != nullptr);
    return length == 0 || api.digest_update(md_of(c), data, length) == 1;
}

bool sha256_final(sha256_ctx* c, uint8_t digest[KOR_SHA256_SIZE])
{
    KOR_ASSERT("crypto", loaded && c != nullptr && c->state != nullptr);
    unsigned int n = 0;
    return api.digest_final(md_of(c), digest, &n) == 1 && n == KOR_SHA256_SIZE;
}

void sha256_release(sha256_ctx* c)
{
    if (c == nullptr || c->state == nullptr) return;
    api.md_ctx_free(md_of(c));
    c->state = nullptr;
}

bool sha256_of(const void* data, size_t length, uint8_t digest[KOR_SHA256_SIZE])
{
    sha256_ctx c{};
    bool ok = sha256_init(&c) && sha256_update(&c, data, length) && sha256_final(&c, digest);
    sha256_release(&c);
    return ok;
}

int ed25519_verify(const uint8_t key[KOR_ED25519_KEY_SIZE], const void* message, size_t length,
                   const uint8_t signature[KOR_ED25519_SIG_SIZE])
{
    KOR_ASSERT("crypto", loaded);
    EVP_PKEY* pkey = api.pkey_new_raw_public(EVP_PKEY_ED25519, nullptr, key, KOR_ED25519_KEY_SIZE);
    EVP_MD_CTX* md = api.md_ctx_new();
    int r = -1;
    // Pure Ed25519 takes no digest: the message goes to the one-shot call
    // whole. Whatever the check itself answers other than 1 is a bad
    // signature: the signature comes from the image, not from the device.
    if (pkey != nullptr && md != nullptr && api.verify_init(md, nullptr, nullptr, nullptr, pkey) == 1)
        r = api.verify(md, signature, KOR_ED25519_SIG_SIZE, static_cast<const unsigned char*>(message),
                       length) == 1;
    if (md != nullptr) api.md_ctx_free(md);
    if (pkey != nullptr) api.pkey_free(pkey);
    return r;
}
