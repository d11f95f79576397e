// Reads a stored hostconfig image and its "KOR data" body from the byte tables alone (numeric
// offsets, little-endian reads), so that kor's own records are not both the writer and the judge.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace hcdec {

struct Part { uint16_t type_id; std::string name; std::vector<uint8_t> body; bool crcs_ok; /* header and body */ };
struct Image { bool crcs_ok; /* identification words, file header and body */ std::vector<Part> parts; };

bool decode_image(const std::vector<uint8_t>& b, Image* out);  // false when the bytes cannot hold what headers say

// The non-zero fields of the 3240-byte body as "name=value" lines in stored order; "" when it is shorter.
std::string decode_kor_data(const std::vector<uint8_t>& body);

}  // namespace hcdec
