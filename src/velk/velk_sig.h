// Signed release images. A signed image carries, as content part 1, a
// signature part (type 7, algorithm 1) whose body is a manifest of every
// other content part (its index, type, body length, the SHA-256 of its
// header and of its body) followed by up to four Ed25519 signatures of that
// manifest. The device trusts the public keys in its key directory; an image
// is accepted only when a trusted key signed its manifest and every part
// matches it. This module holds the layout, the key ring and the check of an
// image against its manifest while the image arrives.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/crypto.h"
#include "base/options.h"
#include "velk/velk_stream_parser.h"

constexpr uint8_t VELK_SIG_ALG_ED25519 = 1;     // Ed25519 over the manifest, SHA-256 digests
constexpr uint8_t VELK_SIG_ALG_ECDSA_P256 = 2;  // reserved, not accepted
constexpr int32_t VELK_SIG_PART = 1;            // index of the signature part
constexpr uint32_t VELK_SIG_MAX_ENTRIES = VELK_MAX_PARTS - 1;
constexpr uint32_t VELK_SIG_MAX_SIGNATURES = 4;
constexpr uint32_t VELK_SIG_KEY_ID_SIZE = 8;
constexpr uint32_t VELK_SIG_MAX_KEYS = 8;
constexpr char VELK_MANIFEST_MAGIC[] = "VELK-MF1";  // 8 bytes, no NUL in the image

struct velk_manifest_head {
    char magic[8];
    uint8_t algorithm_id;  // equals the part header's algorithm id: it is signed with it
    uint8_t entries;       // E: the image's content parts but this one
    uint8_t own_index;     // 1
    uint8_t reserved[5];
};
static_assert(sizeof(velk_manifest_head) == 16);
static_assert(offsetof(velk_manifest_head, algorithm_id) == 8);
static_assert(offsetof(velk_manifest_head, entries) == 9);
static_assert(offsetof(velk_manifest_head, own_index) == 10);

// One per other content part, in part order 0, 2, 3, ..., E.
struct velk_manifest_entry {
    uint8_t index;
    uint8_t reserved;
    uint16_t type_id;
    uint32_t body_length;
    uint8_t header_sha256[KOR_SHA256_SIZE];  // all hdr_length bytes, hdr_crc included
    uint8_t body_sha256[KOR_SHA256_SIZE];    // body_length bytes, no padding
};
static_assert(sizeof(velk_manifest_entry) == 72);
static_assert(offsetof(velk_manifest_entry, type_id) == 2);
static_assert(offsetof(velk_manifest_entry, body_length) == 4);
static_assert(offsetof(velk_manifest_entry, header_sha256) == 8);
static_assert(offsetof(velk_manifest_entry, body_sha256) == 40);

// Behind the manifest, outside the signed bytes: a signature can be added
// later without touching anything that was signed.
struct velk_signature_count {
    uint8_t count;  // S, 0 to 4
    uint8_t reserved[3];
};
static_assert(sizeof(velk_signature_count) == 4);

struct velk_signature_entry {
    uint8_t key_id[VELK_SIG_KEY_ID_SIZE];  // first 8 bytes of the SHA-256 of the public key
    uint8_t signature[KOR_ED25519_SIG_SIZE];
};
static_assert(sizeof(velk_signature_entry) == 72);
static_assert(offsetof(velk_signature_entry, signature) == 8);

constexpr uint32_t velk_manifest_size(uint32_t entries)
{
    return sizeof(velk_manifest_head) + entries * sizeof(velk_manifest_entry);
}
constexpr uint32_t velk_sig_body_size(uint32_t entries, uint32_t signatures)
{
    return velk_manifest_size(entries) + sizeof(velk_signature_count) +
           signatures * sizeof(velk_signature_entry);
}
constexpr uint32_t VELK_SIG_BODY_MAX = velk_sig_body_size(VELK_SIG_MAX_ENTRIES, VELK_SIG_MAX_SIGNATURES);
static_assert(VELK_SIG_BODY_MAX == 1676);

// A manifest as found in a signature part's body: pointers into the body.
struct velk_manifest {
    const uint8_t* bytes;  // the signed message
    uint32_t length;       // 16 + 72 E
    const velk_manifest_head* head;
    const velk_manifest_entry* entries;
    uint32_t entry_count;
    const velk_signature_entry* signatures;
    uint32_t signature_count;
};

// Why an image is refused (velk_sig_* results below 0).
constexpr int VELK_SIG_OK = 1;
constexpr int VELK_SIG_ERR_NOT_SIGNED = -1;  // part 1 is no signature part
constexpr int VELK_SIG_ERR_ALGORITHM = -2;   // its algorithm id is not 1
constexpr int VELK_SIG_ERR_MALFORMED = -3;   // its header or body breaks the layout
constexpr int VELK_SIG_ERR_UNTRUSTED = -4;   // no trusted key's signature verifies
constexpr int VELK_SIG_ERR_MISMATCH = -5;    // a part differs from its entry
constexpr int VELK_SIG_ERR_NOT_LISTED = -6;  // a part beyond the manifest's entries
constexpr int VELK_SIG_ERR_MISSING = -7;     // the image ends before the last entry
constexpr int VELK_SIG_ERR_CRYPTO = -8;      // the crypto library failed

// The header of part 1 as a signature part: VELK_SIG_OK, or NOT_SIGNED (not
// type 7), ALGORITHM (id not 1) or MALFORMED (header length, or a body length
// no manifest can have). Looked at before the body is fetched.
[[nodiscard]] int velk_sig_check_header(const velk_content_header* part);

// Reads a signature part's body strictly: magic, algorithm (`algorithm`, the
// header's), entry count 1 to 19, own index 1, entry indexes 0, 2, ..., E,
// reserved bytes 0, signature count 0 to 4, and a body of exactly
// 20 + 72 (E + S) bytes. VELK_SIG_OK with `m` filled, or MALFORMED.
[[nodiscard]] int velk_manifest_parse(const uint8_t* body, uint32_t length, uint8_t algorithm,
                                      velk_manifest* m);

// The entry of content part `part` (0, 2, 3, ...), or null when the manifest
// has none.
const velk_manifest_entry* velk_manifest_entry_of(const velk_manifest* m, int32_t part);

// ---- keys ----

struct velk_key {
    uint8_t id[VELK_SIG_KEY_ID_SIZE];
    uint8_t key[KOR_ED25519_KEY_SIZE];
    char file[200];  // where it came from, for messages
};

struct velk_keyring {
    velk_key keys[VELK_SIG_MAX_KEYS];
    uint32_t count;
    char source[KOR_PATH_SIZE];  // the key directory or file
};

// Results of velk_keyring_load besides the number of keys (0 or more).
constexpr int VELK_KEYS_ERR_FILE = -1;      // `what`: the key file (or path) that cannot be used
constexpr int VELK_KEYS_ERR_TOO_MANY = -2;  // `what`: the directory
constexpr int VELK_KEYS_ERR_CRYPTO = -3;    // `what`: why libcrypto cannot be used

// Loads every "*.pub" file of directory `path` (names beginning with a dot
// left out), or the one file `path` names. A path that does not exist gives
// 0 keys; one that exists and cannot be read, a key file that is not an
// Ed25519 public key, more than 8 keys or a crypto library that cannot be
// loaded give an error: a key that was meant to be there is never ignored.
// The crypto library is loaded only when a key file is found.
[[nodiscard]] int velk_keyring_load(velk_keyring* ring, const char* path, char* what,
                                    uint32_t what_size);

// An Ed25519 public key in PEM, as "openssl pkey -pubout" writes it. 1 with
// the 32 key bytes, or -1.
[[nodiscard]] int velk_key_from_pem(const char* text, size_t length,
                                    uint8_t key[KOR_ED25519_KEY_SIZE]);

// The index of the key with this id, or -1.
int velk_keyring_find(const velk_keyring* ring, const uint8_t id[VELK_SIG_KEY_ID_SIZE]);

// 16 lower-case hex digits and a NUL.
void velk_key_id_text(const uint8_t id[VELK_SIG_KEY_ID_SIZE], char text[2 * VELK_SIG_KEY_ID_SIZE + 1]);

// ---- checking an image ----

// The check of one image against its manifest, driven by the parser's
// progress: after every velk_stream_parser_next the caller calls
// velk_sig_check_step before it acts on any part (plans, skips, writes), and
// velk_sig_check_end once the image is complete. Headers are matched as soon
// as the parser validates them (before a skip can act on them), bodies are
// hashed as their bytes arrive and matched when complete. It sets the
// parser's covered_by_signature (header matches) and validated_by_signature
// (body matches too) flags.
struct velk_sig_check {
    const velk_keyring* keys;
    int32_t verdict;          // 0 manifest not yet verified, 1 verified, <0 refused
    int32_t part;             // the part a refusal names, else -1
    int32_t key;              // index of the key whose signature verified, else -1
    int32_t algorithm;        // part 1's algorithm id, once its header was seen
    velk_manifest manifest;   // filled once verified
    int32_t headers_checked;  // parts 0.. whose header was looked at
    int32_t bodies_checked;   // parts 0.. whose body was looked at (or left out)
    int32_t hash_part;        // the part whose body is in the running hash, else -1
    uint32_t hashed;          // bytes of that body hashed so far
    sha256_ctx sha;
};

// Results of velk_sig_check_step besides the refusals.
constexpr int VELK_SIG_GO_ON = 1;
constexpr int VELK_SIG_VERIFIED = 2;  // the manifest verified in this step

void velk_sig_check_init(velk_sig_check* c, const velk_keyring* keys);
// GO_ON, VERIFIED, or a refusal (also returned by every later call).
[[nodiscard]] int velk_sig_check_step(velk_sig_check* c, velk_stream_parser* p);
// The image is complete: every entry of the manifest was seen. VELK_SIG_OK
// or a refusal.
[[nodiscard]] int velk_sig_check_end(velk_sig_check* c, velk_stream_parser* p);
// The verified manifest's entry of part `part`, or null (not verified, or
// no such entry).
const velk_manifest_entry* velk_sig_entry(const velk_sig_check* c, int32_t part);
void velk_sig_check_release(velk_sig_check* c);

// The same check for an image that is never held whole (an install with
// -stream), driven by the caller part by part with GO_ON, VERIFIED or a
// refusal as above. A header as soon as it passed the parser's check (part
// 1's shape; part 0 waits for the manifest); part 1, held whole, verifies
// the manifest and matches part 0, held whole before it; a body's bytes as
// they pass, and its end before anything is done with it. stream_end once
// every header was read: the manifest verified, none of its parts missing.
[[nodiscard]] int velk_sig_stream_header(velk_sig_check* c, int32_t part, const velk_content_header* h);
[[nodiscard]] int velk_sig_stream_manifest(velk_sig_check* c, const velk_content_header* part1,
                                           const velk_content_header* part0);
[[nodiscard]] int velk_sig_stream_body(velk_sig_check* c, int32_t part, const uint8_t* data, uint32_t n);
[[nodiscard]] int velk_sig_stream_body_end(velk_sig_check* c, int32_t part);
[[nodiscard]] int velk_sig_stream_end(velk_sig_check* c, int32_t parts);
