#include "support/hostconfig_decoder.h"

#include <zlib.h>

namespace hcdec {
namespace {

using bytes = std::vector<uint8_t>;

uint32_t u16(const bytes& b, size_t at) { return b.at(at) | b.at(at + 1) << 8; }
uint32_t u32(const bytes& b, size_t at) { return u16(b, at) | u16(b, at + 2) << 16; }
uint32_t crc(const bytes& b, size_t at, size_t n) { return uint32_t(::crc32(0, b.data() + at, uInt(n))); }

std::string text(const bytes& b, size_t at, size_t width)
{
    std::string s;
    for (size_t i = 0; i < width && b.at(at + i) != 0; i++) s += char(b[at + i]);
    return s;
}

// One stored field: offset within its record, width, kind (u/s integer, t text, r references).
struct Field { const char* name; size_t at, width; char kind; };

const Field kSet[] = {{"bootable", 0, 1, 'u'}, {"name", 1, 15, 't'}, {"refs", 16, 22, 'r'}};
const Field kInfo[] = {{"poolname", 0, 16, 't'}, {"pn", 16, 1, 'u'}, {"offset", 20, 4, 'u'},
                       {"size", 24, 4, 'u'}, {"mountpnt", 28, 32, 't'}, {"fstype", 60, 10, 't'}};
const Field kRhdr[] = {{"major", 0, 1, 'u'}, {"minor", 1, 1, 'u'}, {"build", 2, 2, 'u'}, {"date", 4, 4, 's'},
                       {"id", 8, 36, 't'}};
const Field kMeta[] = {{"hdr_crc", 0, 4, 'u'}, {"type_id", 4, 2, 'u'}, {"hdr_length", 6, 2, 'u'}, {"body_length", 8, 4, 'u'},
                       {"name", 12, 16, 't'}, {"body_crc", 28, 4, 'u'}, {"sw_major", 32, 1, 'u'}, {"sw_minor", 33, 1, 'u'},
                       {"sw_build", 34, 2, 'u'}, {"sw_build_id", 36, 28, 't'}};

std::string value(const bytes& b, size_t at, const Field& f)
{
    if (f.kind == 't') return text(b, at, f.width);
    std::string s;  // a reference list up to its first -1 (0xFF); all zero reads as empty
    for (size_t r = 0; f.kind == 'r' && r < 22 && b.at(at + r) != 0xFF; r++)
        s += (r ? "," : "") + std::to_string(b[at + r]);
    if (f.kind == 'r') return s.find_first_not_of("0,") == std::string::npos && s.size() == 43 ? "" : s;
    uint32_t v = f.width == 1 ? b.at(at) : f.width == 2 ? u16(b, at) : u32(b, at);
    return f.kind == 's' ? std::to_string(int32_t(v)) : std::to_string(v);
}

template <size_t N>
void records(const bytes& b, const char* what, size_t base, size_t size, size_t count, const Field (&fields)[N],
             std::string* out)
{
    for (size_t i = 0; i < count; i++)
        for (const Field& f : fields) {
            std::string v = value(b, base + size * i + f.at, f);
            if (v != "0" && !v.empty())
                *out += std::string(what) + "[" + std::to_string(i) + "]." + f.name + "=" + v + "\n";
        }
}

}  // namespace

bool decode_image(const bytes& b, Image* out)
{
    const uint32_t end = b.size() < 24 ? 0 : 24 + u32(b, 16);
    if (end == 0 || u16(b, 14) != 16 || end > b.size()) return false;
    out->ident_ok = u32(b, 0) == 0x56454C4B && u32(b, 4) == 0x4B4C4556;
    out->crcs_ok = b[12] == 1 && crc(b, 12, 12) == u32(b, 8) && crc(b, 24, end - 24) == u32(b, 20);
    out->parts.clear();
    for (uint32_t at = 24; at + 32 <= end;) {
        Part p{uint16_t(u16(b, at + 4)), uint16_t(u16(b, at + 6)), u32(b, at + 8), text(b, at + 12, 16), {}, false};
        if (p.hdr_length < 32 || at + p.hdr_length + p.body_length > end) return false;
        p.body.assign(b.begin() + at + p.hdr_length, b.begin() + at + p.hdr_length + p.body_length);
        p.crcs_ok = crc(b, at + 4, p.hdr_length - 4u) == u32(b, at) &&
                    crc(b, at + p.hdr_length, p.body_length) == u32(b, at + 28);
        out->parts.push_back(p);
        at += p.hdr_length + ((p.body_length + 3u) & ~3u);
    }
    return true;
}

std::string decode_kor_data(const bytes& b)
{
    if (b.size() < 3240) return "";
    std::string out = "actset=" + std::to_string(b[0]) + "\n";
    records(b, "set", 1, 38, 3, kSet, &out);
    records(b, "partinfo", 116, 72, 22, kInfo, &out);
    records(b, "rhdr", 1700, 44, 3, kRhdr, &out);
    records(b, "pinfometa", 1832, 64, 22, kMeta, &out);
    return out;
}

}  // namespace hcdec
