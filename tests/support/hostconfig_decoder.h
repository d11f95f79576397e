// Reads a stored hostconfig image and its "KOR data" from byte offsets alone: kor's records do not judge themselves.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace hcdec {

using bytes = std::vector<uint8_t>;
struct Part { uint16_t type_id; std::string name; bytes body; bool crcs_ok; /* header and body */ };
struct Image { bool crcs_ok; /* identification words, file header and body */ std::vector<Part> parts; };

bool decode_image(const bytes& b, Image* out);  // false when the bytes cannot hold what headers say
std::string decode_kor_data(const bytes& body);  // its non-zero fields as "name=value" lines; "" below 3240 bytes

}  // namespace hcdec
