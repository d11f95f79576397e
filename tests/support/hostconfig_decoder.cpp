#include "support/hostconfig_decoder.h"

#include <zlib.h>

#include <sstream>

using hcdec::bytes;

namespace {

// Little-endian unsigned integer of `n` bytes at `at`.
uint32_t le(const bytes& b, size_t at, size_t n)
{
    uint32_t v = 0;
    for (size_t i = n; i > 0; i--) v = v << 8 | b.at(at + i - 1);
    return v;
}

uint32_t crc(const bytes& b, size_t at, size_t n) { return uint32_t(::crc32(0, b.data() + at, uInt(n))); }

constexpr size_t kKorDataSize = 3240;

// `count` records of `size` bytes at `base`; fields "name offset width+kind" (u/s integer, t text, r references).
struct FieldTable {
    const char* name;
    size_t base, size, count;
    const char* fields;
};

const FieldTable kRecords[] = {
    {"set", 1, 38, 3, "bootable 0 1u name 1 15t refs 16 22r"},
    {"partinfo", 116, 72, 22, "poolname 0 16t pn 16 1u offset 20 4u size 24 4u mountpnt 28 32t fstype 60 10t"},
    {"rhdr", 1700, 44, 3, "major 0 1u minor 1 1u build 2 2u date 4 4s id 8 36t"},
    {"pinfometa", 1832, 64, 22,
     "hdr_crc 0 4u type_id 4 2u hdr_length 6 2u body_length 8 4u name 12 16t body_crc 28 4u "
     "sw_major 32 1u sw_minor 33 1u sw_build 34 2u sw_build_id 36 28t"},
};

struct FieldSpec {
    std::string name;
    size_t offset, width;
    char kind;
};

std::vector<FieldSpec> field_specs(const FieldTable& t)
{
    std::vector<FieldSpec> specs;
    std::istringstream in(t.fields);
    FieldSpec f;
    while (in >> f.name >> f.offset >> f.width) {
        f.kind = char(in.get());
        specs.push_back(f);
    }
    return specs;
}

// Texts up to the first NUL, references up to the first -1; "" for 22 zero references.
hcdec::Field value(const std::string& name, const bytes& b, size_t at, size_t width, char kind)
{
    if (kind == 'u' || kind == 's') {
        const uint32_t v = le(b, at, width < 4 ? width : 4);
        return {name, kind == 's' ? std::to_string(int32_t(v)) : std::to_string(v), v == 0};
    }
    std::string s;
    for (size_t i = 0; i < width; i++) {
        const uint8_t c = b.at(at + i);
        if (c == (kind == 't' ? 0 : 0xFF)) break;
        if (kind == 't') s += char(c);
        else s += (i ? "," : "") + std::to_string(c);
    }
    const bool all_zero_refs = kind == 'r' && s.size() == 43 && s.find_first_not_of("0,") == std::string::npos;
    if (all_zero_refs) s.clear();
    return {name, s, s.empty()};
}

}  // namespace

bool hcdec::decode_image(const bytes& b, Image* out)
{
    const uint32_t end = b.size() < 24 ? ~0u : 24 + le(b, 16, 4);
    if (end > b.size() || le(b, 14, 2) != 16) return false;
    const bool ident_ok = le(b, 0, 4) == 0x56454C4B && le(b, 4, 4) == 0x4B4C4556 && b[12] == 1;
    *out = {ident_ok && crc(b, 12, 12) == le(b, 8, 4) && crc(b, 24, end - 24) == le(b, 20, 4), {}};
    uint32_t at = 24;
    while (at + 32 <= end) {
        const uint32_t hdr = le(b, at + 6, 2), len = le(b, at + 8, 4);
        if (hdr < 32 || at + hdr + len > end) return false;
        const uint8_t* body = b.data() + at + hdr;
        const bool crcs_ok = crc(b, at + 4, hdr - 4u) == le(b, at, 4) && crc(b, at + hdr, len) == le(b, at + 28, 4);
        out->parts.push_back({uint16_t(le(b, at + 4, 2)), value("", b, at + 12, 16, 't').value,
                              bytes(body, body + len), crcs_ok});
        at += hdr + ((len + 3u) & ~3u);
    }
    return true;
}

std::vector<hcdec::Field> hcdec::kor_data_fields(const bytes& b)
{
    std::vector<Field> out;
    if (b.size() < kKorDataSize) return out;
    out.push_back({"actset", std::to_string(b[0]), b[0] == 0});
    for (const FieldTable& r : kRecords)
        for (size_t i = 0; i < r.count; i++)
            for (const FieldSpec& f : field_specs(r)) {
                const std::string name = std::string(r.name) + "[" + std::to_string(i) + "]." + f.name;
                out.push_back(value(name, b, r.base + r.size * i + f.offset, f.width, f.kind));
            }
    return out;
}

bool hcdec::is_kor_data_field(const std::string& name)
{
    for (const Field& f : kor_data_fields(bytes(kKorDataSize, 0)))
        if (f.name == name) return true;
    return false;
}

std::string hcdec::decode_kor_data(const bytes& b)
{
    std::string out;
    for (const Field& f : kor_data_fields(b))
        if (!f.zero || f.name == "actset") out += f.name + "=" + f.value + "\n";
    return out;
}

bool hcdec::stored_kor_data(const bytes& image, bytes* body)
{
    Image img;
    if (!decode_image(image, &img)) return false;
    for (const Part& p : img.parts)
        if (p.name == "KOR data") {
            *body = p.body;
            return true;
        }
    return false;
}
