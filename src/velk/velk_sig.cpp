// The signature part's layout and the check of an image against its signed
// manifest while the image arrives.
//
// Nothing of an image may be acted on before it is matched: the manifest is
// verified when part 1 is complete, before the "korm" part behind it is
// parsed; every later header is matched as soon as the parser validated it,
// so that a skip is never decided on an unmatched header; every body when
// its last byte is in. Bodies are hashed while their bytes arrive, so that
// on a network the hashing overlaps the download.
#include "velk/velk_sig.h"

#include <cstring>

#include "base/console.h"

namespace {

constexpr const char* MODULE = "velk_sig";

bool all_zero(const uint8_t* p, size_t n)
{
    for (size_t i = 0; i < n; ++i)
        if (p[i] != 0) return false;
    return true;
}

const uint8_t* bytes_of(const velk_content_header* h) { return reinterpret_cast<const uint8_t*>(h); }

// The entry index a manifest gives content part i: part 1 has none.
uint8_t entry_part(uint32_t i) { return static_cast<uint8_t>(i == 0 ? 0 : i + 1); }

bool entries_well_formed(const velk_manifest_entry* e, uint32_t count)
{
    for (uint32_t i = 0; i < count; ++i)
        if (e[i].index != entry_part(i) || e[i].reserved != 0) return false;
    return true;
}

// A body length some manifest with its signatures has: 20 bytes and 1 to 23
// records of 72. (Compared, not divided: a division would pull libgcc_s
// into kor on ARMv7.)
bool plausible_body_length(uint32_t n)
{
    for (uint32_t records = 1; records <= VELK_SIG_MAX_ENTRIES + VELK_SIG_MAX_SIGNATURES; ++records)
        if (n == velk_sig_body_size(records, 0)) return true;
    return false;
}

bool active(const velk_sig_check* c) { return c->keys != nullptr && c->keys->count > 0; }

int refuse(velk_sig_check* c, int code, int32_t part)
{
    c->verdict = code;
    c->part = part;
    return code;
}

// Part k's header: in the table once its body is in, or the parser's
// current part while its body is pending; null for a part left out.
const velk_content_header* header_at(const velk_stream_parser* p, int32_t k)
{
    if (p->parts[k] != nullptr) return p->parts[k];
    bool pending = p->found_headers == p->found + 1 && k == p->found;
    return pending ? p->current : nullptr;
}

// Part 1, header and body in one piece: its manifest against the trusted keys.
int verify_manifest_part(velk_sig_check* c, const velk_content_header* h)
{
    const auto* sig = reinterpret_cast<const velk_signature_content*>(h);
    velk_manifest m{};
    if (velk_manifest_parse(bytes_of(h) + h->hdr_length, h->body_length, sig->algorithm_id, &m) !=
        VELK_SIG_OK)
        return refuse(c, VELK_SIG_ERR_MALFORMED, VELK_SIG_PART);
    for (uint32_t s = 0; s < m.signature_count && c->key < 0; ++s) {
        int k = velk_keyring_find(c->keys, m.signatures[s].key_id);
        if (k < 0) continue;
        int r = ed25519_verify(c->keys->keys[k].key, m.bytes, m.length, m.signatures[s].signature);
        if (r < 0) return refuse(c, VELK_SIG_ERR_CRYPTO, VELK_SIG_PART);
        if (r == 1) c->key = k;
    }
    c->manifest = m;  // kept either way: the refusal names the image's key ids
    if (c->key < 0) return refuse(c, VELK_SIG_ERR_UNTRUSTED, VELK_SIG_PART);
    c->verdict = 1;
    return VELK_SIG_VERIFIED;
}

int verify_manifest(velk_sig_check* c, velk_stream_parser* p)
{
    int r = verify_manifest_part(c, p->parts[VELK_SIG_PART]);
    if (r != VELK_SIG_VERIFIED) return r;
    p->info[VELK_SIG_PART].covered_by_signature = 1;
    p->info[VELK_SIG_PART].validated_by_signature = 1;
    return VELK_SIG_VERIFIED;
}

// Part 1's shape, as soon as its header is validated; then its body.
int check_signature_part(velk_sig_check* c, velk_stream_parser* p)
{
    if (p->found_headers <= VELK_SIG_PART) return VELK_SIG_GO_ON;
    const velk_content_header* h = header_at(p, VELK_SIG_PART);
    if (h == nullptr) return refuse(c, VELK_SIG_ERR_MALFORMED, VELK_SIG_PART);
    if (h->hdr_length >= sizeof(velk_signature_content))
        c->algorithm = reinterpret_cast<const velk_signature_content*>(h)->algorithm_id;
    int r = velk_sig_check_header(h);
    if (r != VELK_SIG_OK) return refuse(c, r, VELK_SIG_PART);
    if (p->found <= VELK_SIG_PART) return VELK_SIG_GO_ON;
    // A damaged body is the caller's to refuse, as for any other part.
    if (p->info[VELK_SIG_PART].valid < 0) return VELK_SIG_GO_ON;
    if (p->parts[VELK_SIG_PART] == nullptr) return refuse(c, VELK_SIG_ERR_MALFORMED, VELK_SIG_PART);
    return verify_manifest(c, p);
}

// Header k (null: left out) against its entry of the verified manifest.
int match_header(velk_sig_check* c, int32_t k, const velk_content_header* h)
{
    const velk_manifest_entry* e = velk_manifest_entry_of(&c->manifest, k);
    if (e == nullptr) return refuse(c, VELK_SIG_ERR_NOT_LISTED, k);
    if (h == nullptr || h->type_id != e->type_id || h->body_length != e->body_length)
        return refuse(c, VELK_SIG_ERR_MISMATCH, k);
    uint8_t digest[KOR_SHA256_SIZE];
    if (!sha256_of(h, h->hdr_length, digest)) return refuse(c, VELK_SIG_ERR_CRYPTO, k);
    if (std::memcmp(digest, e->header_sha256, sizeof digest) != 0)
        return refuse(c, VELK_SIG_ERR_MISMATCH, k);
    return VELK_SIG_OK;
}

int check_header(velk_sig_check* c, velk_stream_parser* p, int32_t k)
{
    c->headers_checked = k + 1;
    if (k == VELK_SIG_PART) return VELK_SIG_OK;
    if (match_header(c, k, header_at(p, k)) != VELK_SIG_OK) return c->verdict;
    p->info[k].covered_by_signature = 1;
    return VELK_SIG_OK;
}

// Adds bytes [hashed, upto) of part k's body to the running hash.
int hash_body(velk_sig_check* c, int32_t k, const uint8_t* body, uint32_t upto)
{
    if (c->hash_part != k) {
        if (!sha256_init(&c->sha)) return refuse(c, VELK_SIG_ERR_CRYPTO, k);
        c->hash_part = k;
        c->hashed = 0;
    }
    if (upto <= c->hashed) return VELK_SIG_OK;
    if (!sha256_update(&c->sha, body + c->hashed, upto - c->hashed)) return refuse(c, VELK_SIG_ERR_CRYPTO, k);
    c->hashed = upto;
    return VELK_SIG_OK;
}

// The running hash, which holds the whole body of part k, against its entry.
int match_body(velk_sig_check* c, int32_t k)
{
    const velk_manifest_entry* e = velk_manifest_entry_of(&c->manifest, k);
    if (e == nullptr) return refuse(c, VELK_SIG_ERR_NOT_LISTED, k);
    if (c->hash_part != k && hash_body(c, k, nullptr, 0) != VELK_SIG_OK) return c->verdict;
    uint8_t digest[KOR_SHA256_SIZE];
    c->hash_part = -1;
    if (!sha256_final(&c->sha, digest)) return refuse(c, VELK_SIG_ERR_CRYPTO, k);
    if (std::memcmp(digest, e->body_sha256, sizeof digest) != 0) return refuse(c, VELK_SIG_ERR_MISMATCH, k);
    return VELK_SIG_OK;
}

int check_body(velk_sig_check* c, velk_stream_parser* p, int32_t k)
{
    c->bodies_checked = k + 1;
    const velk_content_header* h = p->parts[k];
    // Part 1 is the manifest itself. A part left out by a skip is matched by
    // its header now and by the partition that holds it later; a damaged one
    // is refused by the caller.
    if (k == VELK_SIG_PART || h == nullptr || p->info[k].valid < 0) {
        c->hash_part = -1;
        return VELK_SIG_OK;
    }
    if (velk_manifest_entry_of(&c->manifest, k) == nullptr) return refuse(c, VELK_SIG_ERR_NOT_LISTED, k);
    if (hash_body(c, k, bytes_of(h) + h->hdr_length, h->body_length) != VELK_SIG_OK) return c->verdict;
    if (match_body(c, k) != VELK_SIG_OK) return c->verdict;
    p->info[k].validated_by_signature = 1;
    return VELK_SIG_OK;
}

// The pending part's body, as far as it has arrived.
int hash_pending(velk_sig_check* c, const velk_stream_parser* p, int32_t k)
{
    if (k == VELK_SIG_PART) return VELK_SIG_OK;
    const velk_content_header* h = p->current;
    const uint8_t* body = bytes_of(h) + h->hdr_length;
    uint64_t at = static_cast<uint64_t>(body - p->buffer);
    uint64_t have = p->available > at ? p->available - at : 0;
    return hash_body(c, k, body, static_cast<uint32_t>(have < h->body_length ? have : h->body_length));
}

}  // namespace

int velk_sig_check_header(const velk_content_header* part)
{
    KOR_ASSERT(MODULE, part != nullptr);
    if (part->type_id != VELK_TYPE_SIGNATURE) return VELK_SIG_ERR_NOT_SIGNED;
    if (part->hdr_length != sizeof(velk_signature_content)) return VELK_SIG_ERR_MALFORMED;
    const auto* s = reinterpret_cast<const velk_signature_content*>(part);
    if (s->algorithm_id != VELK_SIG_ALG_ED25519) return VELK_SIG_ERR_ALGORITHM;
    if (!all_zero(s->reserved, sizeof s->reserved)) return VELK_SIG_ERR_MALFORMED;
    return plausible_body_length(part->body_length) ? VELK_SIG_OK : VELK_SIG_ERR_MALFORMED;
}

int velk_manifest_parse(const uint8_t* body, uint32_t length, uint8_t algorithm, velk_manifest* m)
{
    KOR_ASSERT(MODULE, body != nullptr && m != nullptr);
    *m = velk_manifest{};
    // The records are read in place: a body off the 4-byte grid of a VELK
    // file is no body a writer made.
    if (reinterpret_cast<uintptr_t>(body) % 4 != 0 || length < sizeof(velk_manifest_head))
        return VELK_SIG_ERR_MALFORMED;
    const auto* head = reinterpret_cast<const velk_manifest_head*>(body);
    const uint32_t e = head->entries;
    if (std::memcmp(head->magic, VELK_MANIFEST_MAGIC, sizeof head->magic) != 0 ||
        head->algorithm_id != algorithm || e < 1 || e > VELK_SIG_MAX_ENTRIES ||
        head->own_index != VELK_SIG_PART || !all_zero(head->reserved, sizeof head->reserved))
        return VELK_SIG_ERR_MALFORMED;
    if (length < velk_sig_body_size(e, 0)) return VELK_SIG_ERR_MALFORMED;
    const auto* entries = reinterpret_cast<const velk_manifest_entry*>(body + sizeof *head);
    const auto* count = reinterpret_cast<const velk_signature_count*>(body + velk_manifest_size(e));
    if (!entries_well_formed(entries, e) || count->count > VELK_SIG_MAX_SIGNATURES ||
        !all_zero(count->reserved, sizeof count->reserved) ||
        length != velk_sig_body_size(e, count->count))
        return VELK_SIG_ERR_MALFORMED;
    m->bytes = body;
    m->length = velk_manifest_size(e);
    m->head = head;
    m->entries = entries;
    m->entry_count = e;
    m->signatures = reinterpret_cast<const velk_signature_entry*>(body + velk_sig_body_size(e, 0));
    m->signature_count = count->count;
    return VELK_SIG_OK;
}

const velk_manifest_entry* velk_manifest_entry_of(const velk_manifest* m, int32_t part)
{
    KOR_ASSERT(MODULE, m != nullptr);
    if (m->entries == nullptr || part < 0 || part == VELK_SIG_PART) return nullptr;
    uint32_t i = part == 0 ? 0 : static_cast<uint32_t>(part) - 1;
    return i < m->entry_count ? &m->entries[i] : nullptr;
}

void velk_sig_check_init(velk_sig_check* c, const velk_keyring* keys)
{
    KOR_ASSERT(MODULE, c != nullptr);
    *c = velk_sig_check{};
    c->keys = keys;
    c->part = -1;
    c->key = -1;
    c->hash_part = -1;
}

int velk_sig_check_step(velk_sig_check* c, velk_stream_parser* p)
{
    KOR_ASSERT(MODULE, c != nullptr && p != nullptr);
    if (!active(c)) return VELK_SIG_GO_ON;
    if (c->verdict < 0) return c->verdict;
    if (p->status != 2 && p->status != 3) return VELK_SIG_GO_ON;
    int result = VELK_SIG_GO_ON;
    if (c->verdict == 0) {
        result = check_signature_part(c, p);
        if (result < 0 || c->verdict == 0) return result;
    }
    // Part 0 came before the manifest; it is matched now, with the rest.
    for (int32_t k = c->bodies_checked; k < p->found; ++k) {
        if (c->headers_checked <= k && check_header(c, p, k) != VELK_SIG_OK) return c->verdict;
        if (check_body(c, p, k) != VELK_SIG_OK) return c->verdict;
    }
    if (p->found_headers == p->found + 1) {
        const int32_t k = p->found;
        if (c->headers_checked <= k && check_header(c, p, k) != VELK_SIG_OK) return c->verdict;
        if (hash_pending(c, p, k) != VELK_SIG_OK) return c->verdict;
    }
    return result;
}

int velk_sig_check_end(velk_sig_check* c, velk_stream_parser* p)
{
    KOR_ASSERT(MODULE, c != nullptr && p != nullptr);
    if (!active(c)) return VELK_SIG_OK;
    int r = velk_sig_check_step(c, p);
    if (r < 0) return r;
    if (c->verdict != 1) return refuse(c, VELK_SIG_ERR_NOT_SIGNED, -1);
    const int32_t parts = static_cast<int32_t>(c->manifest.entry_count) + 1;
    if (p->found < parts) return refuse(c, VELK_SIG_ERR_MISSING, p->found);
    return VELK_SIG_OK;
}

const velk_manifest_entry* velk_sig_entry(const velk_sig_check* c, int32_t part)
{
    KOR_ASSERT(MODULE, c != nullptr);
    return c->verdict == 1 ? velk_manifest_entry_of(&c->manifest, part) : nullptr;
}

void velk_sig_check_release(velk_sig_check* c)
{
    if (c != nullptr) sha256_release(&c->sha);
}

int velk_sig_stream_header(velk_sig_check* c, int32_t part, const velk_content_header* h)
{
    KOR_ASSERT(MODULE, c != nullptr && h != nullptr && part >= 0);
    if (!active(c)) return VELK_SIG_GO_ON;
    if (c->verdict < 0) return c->verdict;
    if (part == VELK_SIG_PART) {
        if (h->hdr_length >= sizeof(velk_signature_content))
            c->algorithm = reinterpret_cast<const velk_signature_content*>(h)->algorithm_id;
        int r = velk_sig_check_header(h);
        return r == VELK_SIG_OK ? VELK_SIG_GO_ON : refuse(c, r, VELK_SIG_PART);
    }
    if (c->verdict == 0) return part == 0 ? VELK_SIG_GO_ON : refuse(c, VELK_SIG_ERR_NOT_SIGNED, part);
    return match_header(c, part, h) == VELK_SIG_OK ? VELK_SIG_GO_ON : c->verdict;
}

int velk_sig_stream_manifest(velk_sig_check* c, const velk_content_header* part1,
                             const velk_content_header* part0)
{
    KOR_ASSERT(MODULE, c != nullptr && part1 != nullptr && part0 != nullptr);
    if (!active(c)) return VELK_SIG_GO_ON;
    if (c->verdict != 0) return c->verdict < 0 ? c->verdict : VELK_SIG_GO_ON;
    int r = verify_manifest_part(c, part1);
    if (r != VELK_SIG_VERIFIED) return r;
    // Part 0 came before the manifest; it is matched now.
    if (match_header(c, 0, part0) != VELK_SIG_OK) return c->verdict;
    if (hash_body(c, 0, bytes_of(part0) + part0->hdr_length, part0->body_length) != VELK_SIG_OK ||
        match_body(c, 0) != VELK_SIG_OK)
        return c->verdict;
    return VELK_SIG_VERIFIED;
}

int velk_sig_stream_body(velk_sig_check* c, int32_t part, const uint8_t* data, uint32_t n)
{
    KOR_ASSERT(MODULE, c != nullptr && (data != nullptr || n == 0));
    if (!active(c) || part == VELK_SIG_PART) return VELK_SIG_GO_ON;
    if (c->verdict < 0) return c->verdict;
    if (c->hash_part != part && hash_body(c, part, nullptr, 0) != VELK_SIG_OK) return c->verdict;
    if (n > 0 && !sha256_update(&c->sha, data, n)) return refuse(c, VELK_SIG_ERR_CRYPTO, part);
    c->hashed += n;
    return VELK_SIG_GO_ON;
}

int velk_sig_stream_body_end(velk_sig_check* c, int32_t part)
{
    KOR_ASSERT(MODULE, c != nullptr);
    if (!active(c) || part == VELK_SIG_PART) return VELK_SIG_GO_ON;
    if (c->verdict < 0) return c->verdict;
    if (c->verdict == 0) return refuse(c, VELK_SIG_ERR_NOT_SIGNED, part);
    return match_body(c, part) == VELK_SIG_OK ? VELK_SIG_GO_ON : c->verdict;
}

int velk_sig_stream_end(velk_sig_check* c, int32_t parts)
{
    KOR_ASSERT(MODULE, c != nullptr);
    if (!active(c)) return VELK_SIG_OK;
    if (c->verdict < 0) return c->verdict;
    if (c->verdict != 1) return refuse(c, VELK_SIG_ERR_NOT_SIGNED, -1);
    if (parts < static_cast<int32_t>(c->manifest.entry_count) + 1) return refuse(c, VELK_SIG_ERR_MISSING, parts);
    return VELK_SIG_OK;
}
