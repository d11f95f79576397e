#include "support/hostconfig_decoder.h"

#include <zlib.h>

namespace hcdec {
namespace {

using bytes = std::vector<uint8_t>;

uint32_t u8(const bytes& b, size_t at) { return b.at(at); }
uint32_t u16(const bytes& b, size_t at) { return u8(b, at) | u8(b, at + 1) << 8; }
uint32_t u32(const bytes& b, size_t at) { return u16(b, at) | u16(b, at + 2) << 16; }

std::string text(const bytes& b, size_t at, size_t width)
{
    std::string s;
    for (size_t i = 0; i < width && b.at(at + i) != 0; i++) s += static_cast<char>(b[at + i]);
    return s;
}

uint32_t crc(const bytes& b, size_t at, size_t n)
{
    return static_cast<uint32_t>(::crc32(0, b.data() + at, static_cast<uInt>(n)));
}

// One stored field: offset within its record, width, kind.
struct Field { const char* name; size_t at, width; char kind; };  // u/s integer, t text, r refs

const Field kSet[] = {{"bootable", 0, 1, 'u'}, {"name", 1, 15, 't'}, {"refs", 16, 22, 'r'}};
const Field kInfo[] = {{"poolname", 0, 16, 't'}, {"pn", 16, 1, 'u'}, {"offset", 20, 4, 'u'},
                       {"size", 24, 4, 'u'}, {"mountpnt", 28, 32, 't'}, {"fstype", 60, 10, 't'}};
const Field kRhdr[] = {{"major", 0, 1, 'u'}, {"minor", 1, 1, 'u'}, {"build", 2, 2, 'u'},
                       {"date", 4, 4, 's'}, {"id", 8, 36, 't'}};
const Field kMeta[] = {{"hdr_crc", 0, 4, 'u'}, {"type_id", 4, 2, 'u'}, {"hdr_length", 6, 2, 'u'},
                       {"body_length", 8, 4, 'u'}, {"name", 12, 16, 't'}, {"body_crc", 28, 4, 'u'},
                       {"sw_major", 32, 1, 'u'}, {"sw_minor", 33, 1, 'u'},
                       {"sw_build", 34, 2, 'u'}, {"sw_build_id", 36, 28, 't'}};

// A reference list up to its first -1 (0xFF); an all-zero list reads as empty.
std::string refs(const bytes& b, size_t at)
{
    std::string s;
    for (size_t r = 0; r < 22 && b.at(at + r) != 0xFF; r++) s += (r ? "," : "") + std::to_string(b[at + r]);
    return s.find_first_not_of("0,") == std::string::npos && s.size() == 43 ? "" : s;
}

std::string value(const bytes& b, size_t at, const Field& f)
{
    if (f.kind == 't') return text(b, at, f.width);
    if (f.kind == 'r') return refs(b, at);
    uint32_t v = f.width == 1 ? u8(b, at) : f.width == 2 ? u16(b, at) : u32(b, at);
    return f.kind == 's' ? std::to_string(static_cast<int32_t>(v)) : std::to_string(v);
}

template <size_t N>
void records(const bytes& b, const char* what, size_t base, size_t size, size_t count,
             const Field (&fields)[N], std::string* out)
{
    for (size_t i = 0; i < count; i++) {
        for (const Field& f : fields) {
            std::string v = value(b, base + size * i + f.at, f);
            if (v != "0" && !v.empty())
                *out += std::string(what) + "[" + std::to_string(i) + "]." + f.name + "=" + v + "\n";
        }
    }
}

}  // namespace

bool decode_image(const bytes& b, Image* out)
{
    if (b.size() < 24) return false;
    uint32_t end = 24 + u32(b, 16);
    if (u16(b, 14) != 16 || end > b.size()) return false;
    out->ident_ok = u32(b, 0) == 0x56454C4B && u32(b, 4) == 0x4B4C4556;
    out->crcs_ok = u8(b, 12) == 1 && crc(b, 12, 12) == u32(b, 8) && crc(b, 24, end - 24) == u32(b, 20);
    out->parts.clear();
    for (uint32_t at = 24; at + 32 <= end;) {
        Part p{static_cast<uint16_t>(u16(b, at + 4)), static_cast<uint16_t>(u16(b, at + 6)),
               u32(b, at + 8), text(b, at + 12, 16), {}, false};
        if (p.hdr_length < 32 || at + p.hdr_length + p.body_length > end) return false;
        p.body.assign(b.begin() + at + p.hdr_length, b.begin() + at + p.hdr_length + p.body_length);
        p.crcs_ok = crc(b, at + 4, p.hdr_length - 4u) == u32(b, at) &&
                    crc(b, at + p.hdr_length, p.body_length) == u32(b, at + 28);
        out->parts.push_back(p);
        at += p.hdr_length + ((p.body_length + 3u) & ~3u);
    }
    return true;
}

// Only fields that are not zero or empty are listed, so a record with a
// few values set reads as a short text.
std::string decode_kor_data(const bytes& b)
{
    if (b.size() < 3240) return "";
    std::string out = "actset=" + std::to_string(u8(b, 0)) + "\n";
    records(b, "set", 1, 38, 3, kSet, &out);
    records(b, "partinfo", 116, 72, 22, kInfo, &out);
    records(b, "rhdr", 1700, 44, 3, kRhdr, &out);
    records(b, "pinfometa", 1832, 64, 22, kMeta, &out);
    return out;
}

}  // namespace hcdec
