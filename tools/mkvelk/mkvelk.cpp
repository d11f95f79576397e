// Lays out VELK release images: identification, file header, content parts
// with their padding, every CRC filled in.
#include "mkvelk.h"

#include <cstring>

#include "base/fileutil.h"
#include "velk/velk.h"

namespace mkvelk {
namespace {

constexpr uint32_t MAX_NAME = sizeof(velk_content_header::name);
constexpr uint32_t MAX_HEADER = 0xFFFC;  // hdr_length is 16 bits, multiple of 4

void put(bytes& out, size_t at, const void* src, size_t n)
{
    if (n != 0) std::memcpy(out.data() + at, src, n);
}

}  // namespace

bytes part_bytes(const part& p)
{
    const uint32_t hdr_length = VELK_CONTENT_HEADER_SIZE + uint32_t(p.header_extra.size());
    const uint32_t body_length = uint32_t(p.body.size());
    bytes out(hdr_length + velk_pad4(body_length), 0);

    velk_content_header h{};
    h.type_id = p.type_id;
    h.hdr_length = uint16_t(hdr_length);
    h.body_length = body_length;
    std::memcpy(h.name, p.name.data(), p.name.size());  // size checked by part_problem
    h.body_crc = crc32_calc(0, p.body.data(), body_length);
    put(out, 0, &h, sizeof h);
    put(out, sizeof h, p.header_extra.data(), p.header_extra.size());
    // The header CRC covers body_crc and the type-specific fields, so it comes last.
    h.hdr_crc = crc32_calc(0, out.data() + 4, hdr_length - 4);
    put(out, 0, &h.hdr_crc, sizeof h.hdr_crc);
    put(out, hdr_length, p.body.data(), body_length);
    return out;
}

namespace {

bytes text_bytes(const std::string& text)
{
    bytes b(text.begin(), text.end());
    b.push_back(0);
    return b;
}

}  // namespace

const char* part_problem(const part& p)
{
    if (p.name.size() > MAX_NAME) return "name longer than 16 characters";
    if (p.name.find('\0') != std::string::npos) return "name contains a NUL byte";
    if (p.header_extra.size() % 4 != 0) return "header length not a multiple of 4";
    if (p.header_extra.size() > MAX_HEADER - VELK_CONTENT_HEADER_SIZE) return "header too long";
    if (p.type_id == VELK_TYPE_SOFTWARE &&
        VELK_CONTENT_HEADER_SIZE + p.header_extra.size() > VELK_SOFTWARE_HEADER_MAX)
        return "software header longer than 64 bytes";
    if (p.body.size() > 0xFFFFFFF0u) return "body too long";
    return nullptr;
}

part release_header(uint8_t major, uint8_t minor, uint16_t build, int32_t date,
                    const std::string& build_id, const std::string& body_text,
                    const std::string& name)
{
    velk_release_info info{};
    info.release_version_major = major;
    info.release_version_minor = minor;
    info.release_build_number = build;
    info.release_date = date;
    // Zero-padded field; a build id of 36 characters fills it without a NUL.
    std::memcpy(info.release_build_id, build_id.data(),
                build_id.size() < sizeof info.release_build_id ? build_id.size()
                                                               : sizeof info.release_build_id);
    part p;
    p.type_id = VELK_TYPE_RELEASE_HEADER;
    p.name = name;
    p.header_extra.resize(sizeof info);
    std::memcpy(p.header_extra.data(), &info, sizeof info);
    // kor prints the body as a C string, so it carries its NUL.
    p.body = text_bytes(body_text);
    return p;
}

part software(const std::string& name, uint8_t major, uint8_t minor, uint16_t build,
              const std::string& build_id, bytes body)
{
    part p;
    p.type_id = VELK_TYPE_SOFTWARE;
    p.name = name;
    // version (4 bytes) + build id + NUL, rounded up; an overlong build id
    // gives a header over 64 bytes, which part_problem and build_image refuse.
    p.header_extra.assign(velk_pad4(uint32_t(4 + build_id.size() + 1)), 0);
    p.header_extra[0] = major;
    p.header_extra[1] = minor;
    p.header_extra[2] = uint8_t(build & 0xFF);
    p.header_extra[3] = uint8_t(build >> 8);
    put(p.header_extra, 4, build_id.data(), build_id.size());
    p.body = std::move(body);
    return p;
}

part data(const std::string& name, bytes body)
{
    part p;
    p.type_id = VELK_TYPE_DATA;
    p.name = name;
    p.body = std::move(body);
    return p;
}

part signature(const std::string& name, uint8_t algorithm, bytes body)
{
    part p;
    p.type_id = VELK_TYPE_SIGNATURE;
    p.name = name;
    p.header_extra = {algorithm, 0, 0, 0};
    p.body = std::move(body);
    return p;
}

part korm(const std::string& text)
{
    part p;
    p.type_id = KORM_TYPE_ID;
    p.name = "korm";
    p.body = text_bytes(text);
    return p;
}

bytes build_image(const std::vector<part>& parts)
{
    bytes body;
    for (const part& p : parts) {
        if (part_problem(p) != nullptr) return {};
        bytes laid = part_bytes(p);
        if (laid.size() > 0xFFFFFFFFu - VELK_ID_SIZE - VELK_HEADER_SIZE - body.size()) return {};
        body.insert(body.end(), laid.begin(), laid.end());
    }

    bytes out(VELK_ID_SIZE + VELK_HEADER_SIZE + body.size(), 0);
    const uint32_t id[2] = {VELK_ID_WORD1, VELK_ID_WORD2};
    put(out, 0, id, sizeof id);

    velk_header h{};
    h.version = 1;
    h.hdr_length = VELK_HEADER_SIZE;
    h.body_length = uint32_t(body.size());
    h.body_crc = crc32_calc(0, body.data(), h.body_length);
    put(out, VELK_ID_SIZE, &h, sizeof h);
    h.hdr_crc = crc32_calc(0, out.data() + VELK_ID_SIZE + 4, VELK_HEADER_SIZE - 4);
    put(out, VELK_ID_SIZE, &h.hdr_crc, sizeof h.hdr_crc);
    put(out, VELK_ID_SIZE + VELK_HEADER_SIZE, body.data(), body.size());
    return out;
}

}  // namespace mkvelk
