// Reads a stored hostconfig image and its "KOR data" body from the byte tables alone (numeric
// offsets, little-endian reads), so that kor's own records are not both the writer and the judge.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace hcdec {

struct Part {
    uint16_t type_id, hdr_length;
    uint32_t body_length;
    std::string name;
    std::vector<uint8_t> body;
    bool crcs_ok;  // header and body CRC
};
struct Image {
    bool ident_ok, crcs_ok;  // identification words; file header and body CRC
    std::vector<Part> parts;
};

// False when the bytes cannot hold what the headers say.
bool decode_image(const std::vector<uint8_t>& b, Image* out);

// The fields of the 3240-byte body that are not zero or empty, one per line as "name=value" in stored
// order (numbers in decimal, texts up to their first NUL); empty when the body is shorter.
std::string decode_kor_data(const std::vector<uint8_t>& body);

}  // namespace hcdec
