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

// One field of a "KOR data" body, named as in "set[1].refs", "pinfometa[11].body_crc" or "actset". Integers in
// decimal, texts up to the first NUL, reference lists up to the first -1 ("11,13"; "" for none and for 22 zeros).
struct Field {
    std::string name;
    std::string value;
    bool zero;  // an integer 0, an empty text or an empty reference list
};

std::vector<Field> kor_data_fields(const bytes& body);  // every field in table order; none below 3240 bytes
bool is_kor_data_field(const std::string& name);        // a name kor_data_fields gives
std::string decode_kor_data(const bytes& body);  // its non-zero fields as "name=value" lines; "" below 3240 bytes

// The "KOR data" body of a stored image; false when the image does not decode or holds none.
bool stored_kor_data(const bytes& image, bytes* body);

}  // namespace hcdec
