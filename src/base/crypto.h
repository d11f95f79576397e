// SHA-256 and Ed25519 verification: the only cryptography kor needs, behind
// a seam of three operations (a running SHA-256, a one-shot SHA-256 built on
// it, and an Ed25519 check). The backend is the system's libcrypto, opened at
// run time only when signing keys are configured, so that kor's own binary
// links nothing but libz and libc. Another backend (libsodium, for an image
// without OpenSSL) would implement this header and nothing else.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr uint32_t KOR_SHA256_SIZE = 32;
constexpr uint32_t KOR_ED25519_KEY_SIZE = 32;
constexpr uint32_t KOR_ED25519_SIG_SIZE = 64;

// Opens the library once per process. 1 when it can be used; -1 when not,
// with the reason (the loader's text) in `why`.
[[nodiscard]] int crypto_load(char* why, uint32_t size);

// A running SHA-256. Zero-filled before the first init; init starts a new
// digest and may be called again on the same record; release frees what the
// backend holds. Each returns false when the backend fails (out of memory).
struct sha256_ctx {
    void* state;
};
[[nodiscard]] bool sha256_init(sha256_ctx* c);
[[nodiscard]] bool sha256_update(sha256_ctx* c, const void* data, size_t length);
[[nodiscard]] bool sha256_final(sha256_ctx* c, uint8_t digest[KOR_SHA256_SIZE]);
void sha256_release(sha256_ctx* c);

// The SHA-256 of one block of bytes.
[[nodiscard]] bool sha256_of(const void* data, size_t length, uint8_t digest[KOR_SHA256_SIZE]);

// Pure Ed25519 (RFC 8032, no pre-hash) of `message` under a raw 32-byte
// public key: 1 the signature is good, 0 it is not, -1 the backend failed.
[[nodiscard]] int ed25519_verify(const uint8_t key[KOR_ED25519_KEY_SIZE], const void* message,
                                 size_t length, const uint8_t signature[KOR_ED25519_SIG_SIZE]);
