// Signing release images on the build host: the manifest of an image's
// parts, Ed25519 signatures of it made with libcrypto, and the offline flow
// (extract the bytes to sign, put a signature made elsewhere back in).
#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include <cstring>

#include "base/fileutil.h"
#include "mkvelk.h"
#include "velk/velk_sig.h"
#include "velk/velk_stream_parser.h"

namespace mkvelk {
namespace {

struct md_ctx_deleter {
    void operator()(EVP_MD_CTX* c) const { EVP_MD_CTX_free(c); }
};
struct bio_deleter {
    void operator()(BIO* b) const { BIO_free(b); }
};
using md_ctx = std::unique_ptr<EVP_MD_CTX, md_ctx_deleter>;
using bio = std::unique_ptr<BIO, bio_deleter>;

// No passphrase prompt: a build script must not hang on an encrypted key.
int no_passphrase(char*, int, int, void*) { return 0; }

void append(bytes& out, const void* p, size_t n)
{
    const auto* b = static_cast<const uint8_t*>(p);
    out.insert(out.end(), b, b + n);
}

bytes header_of(const part& p)
{
    bytes laid = part_bytes(p);
    laid.resize(VELK_CONTENT_HEADER_SIZE + p.header_extra.size());
    return laid;
}

// The parser's view of a complete image; null parts table when it is not one.
struct parsed_image {
    bytes buffer;  // the parser points into it
    velk_stream_parser parser{};
    bool ok = false;
};

void parse(const bytes& image, parsed_image* out)
{
    out->buffer = image;
    out->buffer.push_back(0);  // never empty
    velk_stream_parser& p = out->parser;
    velk_stream_parser_init(&p, out->buffer.data());
    const uint32_t head = VELK_ID_SIZE + VELK_HEADER_SIZE;
    out->ok = image.size() > head && velk_stream_parser_hdr(&p, head) == 1 &&
              velk_stream_parser_next(&p, uint32_t(image.size() - head)) == VELK_SP_COMPLETE &&
              p.invalid == 0;
}

// The signature part of a parsed image and its manifest; false with `why`.
bool find_manifest(const parsed_image& img, velk_manifest* m, std::string* why)
{
    if (!img.ok) return *why = "not a complete VELK image with good CRCs", false;
    const velk_content_header* h = img.parser.parts[VELK_SIG_PART];
    if (img.parser.found <= VELK_SIG_PART || velk_sig_check_header(h) != VELK_SIG_OK)
        return *why = "content part 1 is not an Ed25519 signature part (made without --sign?)", false;
    const auto* body = reinterpret_cast<const uint8_t*>(h) + h->hdr_length;
    if (velk_manifest_parse(body, h->body_length, VELK_SIG_ALG_ED25519, m) != VELK_SIG_OK)
        return *why = "the signature part is malformed", false;
    if (m->entry_count + 1 != uint32_t(img.parser.found))
        return *why = "the manifest does not list the image's parts", false;
    return true;
}

}  // namespace

void key_deleter::operator()(evp_pkey_st* k) const { EVP_PKEY_free(k); }

signing_key read_signing_key(const std::string& path, std::string* why)
{
    bio in(BIO_new_file(path.c_str(), "r"));
    if (!in) return *why = "cannot open it", nullptr;
    signing_key key(PEM_read_bio_PrivateKey(in.get(), nullptr, no_passphrase, nullptr));
    if (!key) return *why = "not a PEM private key without passphrase", nullptr;
    if (!EVP_PKEY_is_a(key.get(), "ED25519")) return *why = "not an Ed25519 key", nullptr;
    return key;
}

signing_key signing_key_from_seed(const bytes& seed)
{
    return signing_key(EVP_PKEY_new_raw_private_key(EVP_PKEY_ED25519, nullptr, seed.data(), seed.size()));
}

bytes public_key_of(const signing_key& key)
{
    bytes pub(KOR_ED25519_KEY_SIZE);
    size_t n = pub.size();
    if (EVP_PKEY_get_raw_public_key(key.get(), pub.data(), &n) != 1 || n != pub.size()) return {};
    return pub;
}

std::string public_key_pem(const bytes& public_key)
{
    signing_key k(EVP_PKEY_new_raw_public_key(EVP_PKEY_ED25519, nullptr, public_key.data(), public_key.size()));
    bio out(BIO_new(BIO_s_mem()));
    if (!k || !out || PEM_write_bio_PUBKEY(out.get(), k.get()) != 1) return {};
    char* text = nullptr;
    long n = BIO_get_mem_data(out.get(), &text);
    return std::string(text, size_t(n));
}

bytes public_key_from_pem(const std::string& pem)
{
    bio in(BIO_new_mem_buf(pem.data(), int(pem.size())));
    signing_key k(in ? PEM_read_bio_PUBKEY(in.get(), nullptr, no_passphrase, nullptr) : nullptr);
    if (!k || !EVP_PKEY_is_a(k.get(), "ED25519")) return {};
    return public_key_of(k);
}

bytes sha256(const bytes& data)
{
    bytes d(KOR_SHA256_SIZE);
    unsigned int n = 0;
    if (EVP_Digest(data.data(), data.size(), d.data(), &n, EVP_sha256(), nullptr) != 1) return {};
    return d;
}

bytes key_id_of(const bytes& public_key)
{
    bytes id = sha256(public_key);
    id.resize(VELK_SIG_KEY_ID_SIZE);
    return id;
}

bytes sign_message(const signing_key& key, const bytes& message)
{
    md_ctx c(EVP_MD_CTX_new());
    bytes sig(KOR_ED25519_SIG_SIZE);
    size_t n = sig.size();
    if (!c || EVP_DigestSignInit(c.get(), nullptr, nullptr, nullptr, key.get()) != 1 ||
        EVP_DigestSign(c.get(), sig.data(), &n, message.data(), message.size()) != 1 || n != sig.size())
        return {};
    return sig;
}

bool verify_message(const bytes& public_key, const bytes& message, const bytes& signature)
{
    signing_key k(EVP_PKEY_new_raw_public_key(EVP_PKEY_ED25519, nullptr, public_key.data(), public_key.size()));
    md_ctx c(EVP_MD_CTX_new());
    return k && c && signature.size() == KOR_ED25519_SIG_SIZE &&
           EVP_DigestVerifyInit(c.get(), nullptr, nullptr, nullptr, k.get()) == 1 &&
           EVP_DigestVerify(c.get(), signature.data(), signature.size(), message.data(), message.size()) == 1;
}

bytes manifest_of(const std::vector<part>& parts)
{
    velk_manifest_head head{};
    std::memcpy(head.magic, VELK_MANIFEST_MAGIC, sizeof head.magic);
    head.algorithm_id = VELK_SIG_ALG_ED25519;
    head.entries = uint8_t(parts.size() - 1);
    head.own_index = VELK_SIG_PART;
    bytes out;
    append(out, &head, sizeof head);
    for (size_t i = 0; i < parts.size(); ++i) {
        if (i == size_t(VELK_SIG_PART)) continue;
        velk_manifest_entry e{};
        e.index = uint8_t(i);
        e.type_id = parts[i].type_id;
        e.body_length = uint32_t(parts[i].body.size());
        const bytes h = sha256(header_of(parts[i])), b = sha256(parts[i].body);
        std::memcpy(e.header_sha256, h.data(), h.size());
        std::memcpy(e.body_sha256, b.data(), b.size());
        append(out, &e, sizeof e);
    }
    return out;
}

part signature_part(const bytes& manifest, const std::vector<bytes>& entries)
{
    bytes body = manifest;
    const velk_signature_count count{uint8_t(entries.size()), {}};
    append(body, &count, sizeof count);
    for (const bytes& e : entries) append(body, e.data(), e.size());
    part p = signature("signature", VELK_SIG_ALG_ED25519, std::move(body));
    return p;
}

bytes signature_entry(const signing_key& key, const bytes& manifest)
{
    bytes entry = key_id_of(public_key_of(key));
    const bytes sig = sign_message(key, manifest);
    entry.insert(entry.end(), sig.begin(), sig.end());
    return entry;
}

std::vector<part> sign_parts(std::vector<part> parts, const std::vector<const signing_key*>& keys)
{
    // The manifest is over the final part order: the signature part is in
    // place (its content does not count) before the entries are taken.
    parts.insert(parts.begin() + VELK_SIG_PART, signature_part({}, {}));
    const bytes manifest = manifest_of(parts);
    std::vector<bytes> entries;
    for (const signing_key* k : keys) entries.push_back(signature_entry(*k, manifest));
    parts[VELK_SIG_PART] = signature_part(manifest, entries);
    return parts;
}

bytes image_manifest(const bytes& image, std::string* why)
{
    parsed_image img;
    parse(image, &img);
    velk_manifest m{};
    if (!find_manifest(img, &m, why)) return {};
    return bytes(m.bytes, m.bytes + m.length);
}

bytes add_signature(const bytes& image, const bytes& public_key, const bytes& signature, std::string* why)
{
    parsed_image img;
    parse(image, &img);
    velk_manifest m{};
    if (!find_manifest(img, &m, why)) return {};
    const bytes id = key_id_of(public_key);
    if (!verify_message(public_key, bytes(m.bytes, m.bytes + m.length), signature))
        return *why = "the signature does not verify with this public key over the image's manifest", bytes{};
    if (m.signature_count == VELK_SIG_MAX_SIGNATURES) return *why = "the image has 4 signatures already", bytes{};
    for (uint32_t i = 0; i < m.signature_count; ++i)
        if (std::memcmp(m.signatures[i].key_id, id.data(), id.size()) == 0)
            return *why = "the image is signed by this key already", bytes{};

    // Part 1 laid out anew with the longer body; the bytes around it kept.
    const uint8_t* base = img.buffer.data();
    const auto* h = img.parser.parts[VELK_SIG_PART];
    const size_t start = size_t(reinterpret_cast<const uint8_t*>(h) - base);
    const size_t end = start + h->hdr_length + velk_pad4(h->body_length);
    std::vector<bytes> entries;
    for (uint32_t i = 0; i < m.signature_count; ++i)
        entries.emplace_back(m.signatures[i].key_id, m.signatures[i].key_id + sizeof(velk_signature_entry));
    entries.push_back(id);
    entries.back().insert(entries.back().end(), signature.begin(), signature.end());
    const part sig = signature_part(bytes(m.bytes, m.bytes + m.length), entries);
    const bytes laid = part_bytes(sig);

    const velk_header* fh = img.parser.header;
    const size_t body_at = VELK_ID_SIZE + fh->hdr_length, velk_end = img.parser.end;
    bytes out(image.begin(), image.begin() + ptrdiff_t(start));
    out.insert(out.end(), laid.begin(), laid.end());
    out.insert(out.end(), image.begin() + ptrdiff_t(end), image.end());
    velk_header nh = *fh;
    nh.body_length = uint32_t(velk_end - body_at + laid.size() - (end - start));
    nh.body_crc = crc32_calc(0, out.data() + body_at, nh.body_length);
    std::memcpy(out.data() + VELK_ID_SIZE, &nh, sizeof nh);
    nh.hdr_crc = crc32_calc(0, out.data() + VELK_ID_SIZE + 4, fh->hdr_length - 4);
    std::memcpy(out.data() + VELK_ID_SIZE, &nh.hdr_crc, sizeof nh.hdr_crc);
    return out;
}

}  // namespace mkvelk
