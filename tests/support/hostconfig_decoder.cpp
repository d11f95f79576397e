#include "support/hostconfig_decoder.h"

#include <zlib.h>

#include <sstream>

using hcdec::bytes;

static uint32_t le(const bytes& b, size_t at, size_t n) { return n ? b.at(at) | le(b, at + 1, n - 1) << 8 : 0; }
static uint32_t crc(const bytes& b, size_t at, size_t n) { return uint32_t(::crc32(0, b.data() + at, uInt(n))); }

// `count` records of `size` bytes at `base`; fields "name offset width+kind" (u/s integer, t text, r references).
struct FieldTable { const char* name; size_t base, size, count; const char* fields; };
const FieldTable kRecords[] = {
    {"set", 1, 38, 3, "bootable 0 1u name 1 15t refs 16 22r"},
    {"partinfo", 116, 72, 22, "poolname 0 16t pn 16 1u offset 20 4u size 24 4u mountpnt 28 32t fstype 60 10t"},
    {"rhdr", 1700, 44, 3, "major 0 1u minor 1 1u build 2 2u date 4 4s id 8 36t"},
    {"pinfometa", 1832, 64, 22, "hdr_crc 0 4u type_id 4 2u hdr_length 6 2u body_length 8 4u name 12 16t body_crc 28 4u "
                                "sw_major 32 1u sw_minor 33 1u sw_build 34 2u sw_build_id 36 28t"}};

// Texts up to the first NUL, references up to the first -1; "" for zero and for 22 zero references.
static std::string value(const bytes& b, size_t at, size_t width, char kind)
{
    const uint32_t v = le(b, at, width < 4 ? width : 4);
    if (kind == 'u' || kind == 's') return v == 0 ? "" : kind == 's' ? std::to_string(int32_t(v)) : std::to_string(v);
    std::string s;
    for (size_t i = 0; i < width && b.at(at + i) != (kind == 't' ? 0 : 0xFF); i++)
        s += kind == 't' ? std::string(1, char(b[at + i])) : (i ? "," : "") + std::to_string(b[at + i]);
    return kind == 'r' && s.size() == 43 && s.find_first_not_of("0,") == s.npos ? "" : s;
}

bool hcdec::decode_image(const bytes& b, Image* out)
{
    const uint32_t end = b.size() < 24 ? ~0u : 24 + le(b, 16, 4);
    if (end > b.size() || le(b, 14, 2) != 16) return false;
    *out = {le(b, 0, 4) == 0x56454C4B && le(b, 4, 4) == 0x4B4C4556 && b[12] == 1 && crc(b, 12, 12) == le(b, 8, 4) &&
                crc(b, 24, end - 24) == le(b, 20, 4), {}};
    for (uint32_t at = 24, hdr, len; at + 32 <= end; at += hdr + ((len + 3u) & ~3u)) {
        if ((hdr = le(b, at + 6, 2)) < 32 || at + hdr + (len = le(b, at + 8, 4)) > end) return false;
        const uint8_t* body = b.data() + at + hdr;
        out->parts.push_back({uint16_t(le(b, at + 4, 2)), value(b, at + 12, 16, 't'), bytes(body, body + len),
                              crc(b, at + 4, hdr - 4u) == le(b, at, 4) && crc(b, at + hdr, len) == le(b, at + 28, 4)});
    }
    return true;
}

std::string hcdec::decode_kor_data(const bytes& b)
{
    std::string out = b.size() < 3240 ? "" : "actset=" + std::to_string(b[0]) + "\n", name, v;
    for (const FieldTable& r : kRecords)
        for (size_t i = 0, at, width; i < r.count && !out.empty(); i++)
            for (std::istringstream in(r.fields); in >> name >> at >> width;)
                if (!(v = value(b, r.base + r.size * i + at, width, char(in.get()))).empty())
                    out += std::string(r.name) + "[" + std::to_string(i) + "]." + name + "=" + v + "\n";
    return out;
}
