#include "support/signing.h"

#include <array>
#include <random>

#include "base/fileutil.h"
#include "velk/velk_sig.h"

namespace signing {

Key::Key(uint8_t seed) : priv(mkvelk::signing_key_from_seed(bytes(32, seed)))
{
    pub = mkvelk::public_key_of(priv), id = mkvelk::key_id_of(pub), pem = mkvelk::public_key_pem(pub);
    char hex[17];
    velk_key_id_text(id.data(), hex), id_hex = hex;
}

const Key& old_key() { static const Key k(0x11); return k; }
const Key& new_key() { static const Key k(0x22); return k; }
const Key& other_key() { static const Key k(0x33); return k; }

Release::Release(const std::vector<const Key*>& keys, const std::string& version, uint8_t seed,
                 const std::vector<size_t>& sizes)
{
    unsigned maj = 0, min = 0, build = 0;
    sscanf(version.c_str(), "%u.%u.%u", &maj, &min, &build);
    std::mt19937 gen(seed);
    const auto body = [&](size_t n) { bytes b(n); for (auto& x : b) x = uint8_t(gen()); return b; };
    const std::string v = std::to_string(maj) + "." + std::to_string(min) + "." + std::to_string(build);
    const auto korm = [&](int first) {
        std::string k;
        for (const char* pool : {"KNLS", "ROOTS", "APPLS"}) k += std::to_string(first++) + "," + pool + ",0,-,-,-," + v + ",1\n";
        return mkvelk::korm(k);
    };
    const auto sw = [&](const char* name, size_t n) {
        return mkvelk::software(name, uint8_t(maj), uint8_t(min), uint16_t(build), "b" + v, body(n));
    };
    unsigned_parts = {mkvelk::release_header(uint8_t(maj), uint8_t(min), uint16_t(build), 1700000000, "build-" + v,
                                             "products=dev1\n"),
                      korm(2), sw("kernel", sizes.at(0)), sw("root", sizes.at(1)), sw("appl", sizes.at(2))};
    parts shifted = unsigned_parts;
    shifted[1] = korm(3);
    std::vector<const mkvelk::signing_key*> signers;
    for (const Key* k : keys) signers.push_back(&k->priv);
    signed_parts = mkvelk::sign_parts(shifted, signers);
}

// CRC32 (reflected, 0xEDB88320) run backwards: a 4-byte block is processed like 4 zero bytes from the state XORed with
// the block, and each table entry has a top byte of its own, which names the entry a step used.
bytes forge_crc(bytes data, size_t at, uint32_t crc)
{
    std::array<uint32_t, 256> table{};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t r = i;
        for (int k = 0; k < 8; ++k) r = r & 1 ? (r >> 1) ^ 0xEDB88320u : r >> 1;
        table[i] = r;
    }
    const auto back = [&](uint32_t r, uint8_t b) {  // the state before a step that took byte b and ended in r
        uint32_t i = 0;
        while (table[i] >> 24 != r >> 24) ++i;
        return ((r ^ table[i]) << 8) | (i ^ b);
    };
    const uint32_t before = ~crc32_calc(0, data.data(), uint32_t(at));  // the register in front of the block
    uint32_t r = ~crc;                                                  // the register at the end
    for (size_t k = data.size(); k > at + 4; --k) r = back(r, data[k - 1]);
    for (int k = 0; k < 4; ++k) r = back(r, 0);
    const uint32_t block = r ^ before;
    for (int k = 0; k < 4; ++k) data[at + size_t(k)] = uint8_t(block >> (8 * k));
    return data;
}

std::string text(const bytes& b) { return std::string(b.begin(), b.end()); }

}  // namespace signing
