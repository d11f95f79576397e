// Signed releases for tests: fixed keys, a small signed release as a list of parts (so that a test can change a part
// and lay the image out again, every CRC right), and a CRC32 forger.
#pragma once

#include <string>
#include <vector>

#include "mkvelk.h"

namespace signing {

using bytes = mkvelk::bytes;
using parts = std::vector<mkvelk::part>;

// A key made from a fixed seed, with what a device and an image know of it.
struct Key {
    explicit Key(uint8_t seed);
    mkvelk::signing_key priv;
    bytes pub, id;
    std::string pem;     // as "openssl pkey -pubout" writes it
    std::string id_hex;  // as kor prints it
};
const Key& old_key();
const Key& new_key();
const Key& other_key();

// Release `version` (M.N.B, software parts too): release header (0), signature (1), "korm" (2) for set 1's KNLS,
// ROOTS and APPLS, their software parts "kernel" (3), "root" (4), "appl" (5) with bodies of `sizes` (odd by
// default), made from `seed`. Signed by `keys` (none: a signature part without signatures). Bodies of a megabyte and
// more arrive in pieces of their own by http, so that a re-install can skip them.
struct Release {
    Release(const std::vector<const Key*>& keys, const std::string& version = "1.0.1", uint8_t seed = 1,
            const std::vector<size_t>& sizes = {5001, 12003, 3002});
    parts unsigned_parts;  // the same release without a signature part ("korm" is part 1, indexes from 2)
    parts signed_parts;
    bytes image() const { return mkvelk::build_image(signed_parts); }
    bytes unsigned_image() const { return mkvelk::build_image(unsigned_parts); }
    const bytes& body(int part) const { return signed_parts[size_t(part)].body; }
};

// `data` with the 4 bytes at `at` chosen so that its CRC32 (crc32_calc from 0) is `crc`.
bytes forge_crc(bytes data, size_t at, uint32_t crc);

std::string text(const bytes& b);

}  // namespace signing
