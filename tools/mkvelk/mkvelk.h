// Library of the mkvelk tool: builds VELK release images. Tests make their
// images with it too.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

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

// The whole file: identification, 16-byte file header, the parts with their
// padding, every CRC filled in. Empty when a part has a problem or the image
// would not fit the 32-bit lengths.
bytes build_image(const std::vector<part>& parts);

}  // namespace mkvelk
