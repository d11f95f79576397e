// Library of the mkvelk tool: builds VELK release images. Tests make their
// images with it too.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

struct evp_pkey_st;

namespace mkvelk {

using bytes = std::vector<uint8_t>;

constexpr uint16_t KORM_TYPE_ID = 2;  // type id mkvelk gives the "korm" part

struct part {
    uint16_t type_id = 3;
    std::string name;           // at most 16 characters
    bytes header_extra;         // type-specific header bytes after the 32 fixed ones
    bytes body;
};

// Release header (type 1): version, date, build id (at most 36 characters
// are kept) and key=value body text (e.g. "products=a,b\n"); the body is the
// text and a NUL.
part release_header(uint8_t major, uint8_t minor, uint16_t build, int32_t date,
                    const std::string& build_id, const std::string& body_text,
                    const std::string& name = "release");
// Software content (type 4); the header is 36 bytes plus the build id text
// and its NUL, rounded up to a multiple of 4, at most 64.
part software(const std::string& name, uint8_t major, uint8_t minor, uint16_t build,
              const std::string& build_id, bytes body);
part data(const std::string& name, bytes body);                          // type 3
part signature(const std::string& name, uint8_t algorithm, bytes body);  // type 7
part korm(const std::string& text);  // "korm" part; the body is the text and a NUL

// Why a part cannot be laid out (name over 16 characters or with a NUL,
// header length not a multiple of 4, software header over 64 bytes, ...);
// nullptr when it can.
const char* part_problem(const part& p);

// A part as it stands in the file: header (CRCs filled in), body, padding.
bytes part_bytes(const part& p);

// The whole file: identification, 16-byte file header, the parts with their
// padding, every CRC filled in. Empty when a part has a problem or the image
// would not fit the 32-bit lengths.
bytes build_image(const std::vector<part>& parts);

// ---- signing (libcrypto, on the build host) ----

struct key_deleter {
    void operator()(evp_pkey_st* k) const;
};
using signing_key = std::unique_ptr<evp_pkey_st, key_deleter>;

// An Ed25519 private key from a PEM file as "openssl genpkey -algorithm
// ed25519" writes it (PKCS#8, not encrypted); null with the reason in `why`.
signing_key read_signing_key(const std::string& path, std::string* why);
// An Ed25519 private key from its 32 seed bytes (tests: fixed keys).
signing_key signing_key_from_seed(const bytes& seed);
bytes public_key_of(const signing_key& key);  // 32 bytes
// PEM "PUBLIC KEY" text of a raw Ed25519 public key, as "openssl pkey
// -pubout" writes it; from PEM text back to the raw key (empty: not one).
std::string public_key_pem(const bytes& public_key);
bytes public_key_from_pem(const std::string& pem);
bytes key_id_of(const bytes& public_key);  // 8 bytes: what an image names a key by
bytes sha256(const bytes& data);
bytes sign_message(const signing_key& key, const bytes& message);  // 64 bytes
bool verify_message(const bytes& public_key, const bytes& message, const bytes& signature);

// The manifest of a signed image's parts (parts[1], the signature part, is
// left out): what a key signs.
bytes manifest_of(const std::vector<part>& parts);
// The signature part (content part 1) for `manifest` with these signature
// entries (key id and signature, 72 bytes each).
part signature_part(const bytes& manifest, const std::vector<bytes>& entries);
// Key id and signature of `manifest` under `key`.
bytes signature_entry(const signing_key& key, const bytes& manifest);
// `parts` (release header first) with a signature part inserted as part 1,
// signed by every key (none: a signature part to be signed later).
std::vector<part> sign_parts(std::vector<part> parts, const std::vector<const signing_key*>& keys);

// The manifest of a signed image file (the bytes an offline signer signs);
// empty with the reason in `why`.
bytes image_manifest(const bytes& image, std::string* why);
// The image with one more signature in its signature part, checked against
// `public_key` first. Only part 1, its CRCs and the file header change;
// every other part stays byte for byte. Empty with the reason in `why`.
bytes add_signature(const bytes& image, const bytes& public_key, const bytes& signature,
                    std::string* why);

}  // namespace mkvelk
