// Signature part bodies from the fuzzer. The body is read by the manifest
// reader on its own, and checked as part 1 of a fixed image (release
// header, signature part, "korm", one data part) by the stream check with
// one trusted key, the image fed in pieces. Whatever the body: the reader
// keeps every record inside the body, and an image passes the check only
// when its manifest is the one that key signed and every part matched it.
//
// Input: byte 0 the part header's algorithm id, byte 1 the piece size (0:
// one piece), then the body.
#include <cstdlib>
#include <cstring>
#include <vector>

#include "fuzz_check.h"
#include "fuzz_signed.h"
#include "velk/velk_sig.h"

namespace {

struct fixture {
    mkvelk::signing_key key = fuzz::signed_image_key();
    std::vector<mkvelk::part> parts;
    mkvelk::bytes manifest;  // what the key signed
    velk_keyring ring{};
};

const fixture& fixed()
{
    static fixture* f = [] {
        auto* x = new fixture;
        char why[200];
        check(crypto_load(why, sizeof why) == 1);
        x->parts = fuzz::signed_image_parts(x->key);
        x->manifest = mkvelk::manifest_of(x->parts);
        const mkvelk::bytes pub = mkvelk::public_key_of(x->key), id = mkvelk::key_id_of(pub);
        std::memcpy(x->ring.keys[0].key, pub.data(), pub.size());
        std::memcpy(x->ring.keys[0].id, id.data(), id.size());
        x->ring.count = 1;
        return x;
    }();
    return *f;
}

void read_alone(uint8_t algorithm, const uint8_t* body, size_t size)
{
    std::vector<uint32_t> aligned(size / 4 + 1);
    std::memcpy(aligned.data(), body, size);
    const auto* at = reinterpret_cast<const uint8_t*>(aligned.data());
    velk_manifest m{};
    if (velk_manifest_parse(at, uint32_t(size), algorithm, &m) != VELK_SIG_OK) return;
    check(m.entry_count >= 1 && m.entry_count <= VELK_SIG_MAX_ENTRIES && m.signature_count <= VELK_SIG_MAX_SIGNATURES);
    check(m.bytes == at && m.length == velk_manifest_size(m.entry_count));
    check(size == velk_sig_body_size(m.entry_count, m.signature_count));
    const auto* end = at + size;
    check(reinterpret_cast<const uint8_t*>(m.signatures + m.signature_count) == end);
    for (int32_t part = 0; part < int32_t(VELK_MAX_PARTS) + 2; ++part) {
        const velk_manifest_entry* e = velk_manifest_entry_of(&m, part);
        check((e != nullptr) == (part != VELK_SIG_PART && part <= int32_t(m.entry_count)));
        if (e) check(e->index == part && reinterpret_cast<const uint8_t*>(e + 1) <= at + m.length);
    }
}

void check_in_image(uint8_t algorithm, uint32_t piece, const uint8_t* body, size_t size)
{
    const fixture& f = fixed();
    std::vector<mkvelk::part> parts = f.parts;
    parts[VELK_SIG_PART].body.assign(body, body + size);
    parts[VELK_SIG_PART].header_extra[0] = algorithm;
    const mkvelk::bytes image = mkvelk::build_image(parts);
    std::vector<uint32_t> storage(image.size() / 4 + 1, 0);
    auto* buf = reinterpret_cast<uint8_t*>(storage.data());
    velk_stream_parser p;
    velk_stream_parser_init(&p, buf);
    std::memcpy(buf, image.data(), 24);
    check(velk_stream_parser_hdr(&p, 24) == 1);
    velk_sig_check c;
    velk_sig_check_init(&c, &f.ring);
    int r = VELK_SIG_GO_ON;
    for (uint32_t at = 24; at < image.size() && r >= 0 && p.status == 2;) {
        const uint32_t n = piece == 0 || image.size() - at < piece ? uint32_t(image.size() - at) : piece;
        std::memcpy(buf + at, image.data() + at, n);
        if (velk_stream_parser_next(&p, n) < 0) break;
        at += n;
        r = velk_sig_check_step(&c, &p);
        check(r == VELK_SIG_GO_ON || r == VELK_SIG_VERIFIED || (r <= VELK_SIG_ERR_NOT_SIGNED && r >= VELK_SIG_ERR_CRYPTO));
    }
    if (r >= 0 && p.status == 3) r = velk_sig_check_end(&c, &p);
    if (r == VELK_SIG_OK && p.status == 3) {
        // Passed: the key's own manifest, every part matched.
        check(size >= f.manifest.size() && std::memcmp(body, f.manifest.data(), f.manifest.size()) == 0);
        for (int32_t k = 0; k < p.found; ++k) check(p.info[k].covered_by_signature && p.info[k].validated_by_signature);
    }
    velk_sig_check_release(&c);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2 || size > 4096) return 0;
    read_alone(data[0], data + 2, size - 2);
    check_in_image(data[0], data[1], data + 2, size - 2);
    return 0;
}
