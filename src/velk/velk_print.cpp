// Printers of one content part of a parser's table.
//
// Text fields of a part need not end in a NUL inside the part (a 16-character
// name fills its field), so each is copied into a terminated local first.
#include <cstring>

#include "base/console.h"
#include "velk/velkinfo.h"

namespace {

constexpr const char* kNullHeader = "WARNING: CONTENT HEADER IS NULL? Skipping.\n";
constexpr const char* kNullPart = "WARNING: CONTENT PART IS NULL! Skipping.\n";

const velk_content_header* part_at(const velk_stream_parser* p, int i)
{
    if (!p || i < 0 || i >= static_cast<int>(VELK_MAX_PARTS)) return nullptr;
    return p->parts[i];
}

const uint8_t* bytes_of(const velk_content_header* h) { return reinterpret_cast<const uint8_t*>(h); }

// Up to `size` bytes of text at `src`, stopped by a NUL, as a terminated copy.
template <size_t N>
const char* text_of(char (&dst)[N], const void* src, size_t size)
{
    size_t n = size < N - 1 ? size : N - 1;
    std::memcpy(dst, src, n);
    dst[n] = '\0';
    return dst;
}

// `n` bytes of the part from offset `at` into `dst`. The part's own bytes
// (header and body) end the copy and the rest reads as zero: a part whose
// header is shorter than its type's may be the last thing in the buffer.
void copy_field(void* dst, const velk_content_header* h, size_t at, size_t n)
{
    size_t length = size_t{h->hdr_length} + h->body_length;
    size_t have = length > at ? length - at : 0;
    std::memset(dst, 0, n);
    std::memcpy(dst, bytes_of(h) + at, n < have ? n : have);
}

}  // namespace

int velk_content_info_print(const velk_stream_parser* p, int i)
{
    if (!p || i < 0 || i >= static_cast<int>(VELK_MAX_PARTS)) return 0;
    const velk_part_info& info = p->info[i];
    zb_printf("valid...................: %i\n", info.valid);
    zb_printf("covered_by_signature....: %i\n", info.covered_by_signature);
    return zb_printf("validated_by_signature..: %i\n", info.validated_by_signature);
}

int velk_content_header_print(const velk_stream_parser* p, int i)
{
    const velk_content_header* h = part_at(p, i);
    if (!h) return zb_printf("%s", kNullHeader);
    char name[sizeof h->name + 1];
    zb_printf("type_id......: %i\n", h->type_id);
    zb_printf("hdr_length...: %i\n", h->hdr_length);
    zb_printf("body_length..: %i\n", static_cast<int>(h->body_length));
    zb_printf("name.........: %s\n", text_of(name, h->name, sizeof h->name));
    zb_printf("body_crc.....: %lu\n", static_cast<unsigned long>(h->body_crc));
    return zb_printf("hdr_crc......: %lu\n", static_cast<unsigned long>(h->hdr_crc));
}

int velk_release_header_print(const velk_stream_parser* p, int i)
{
    const velk_content_header* h = part_at(p, i);
    if (!h) return zb_printf("%s", kNullPart);
    velk_release_info r;
    copy_field(&r, h, sizeof *h, sizeof r);
    char build_id[sizeof r.release_build_id + 1];
    zb_printf("release_version_major..: %i\n", r.release_version_major);
    zb_printf("release_version_minor..: %i\n", r.release_version_minor);
    zb_printf("release_build_number...: %i\n", r.release_build_number);
    zb_printf("release_date...........: %i\n", r.release_date);
    return zb_printf("release_build_id.......: %s\n",
                     text_of(build_id, r.release_build_id, sizeof r.release_build_id));
}

int velk_content_software_print(const velk_stream_parser* p, int i)
{
    const velk_content_header* h = part_at(p, i);
    if (!h) return zb_printf("%s", kNullPart);
    uint8_t b[VELK_SOFTWARE_HEADER_MAX];
    copy_field(b, h, 0, sizeof b);
    // The build id runs from offset 36 to the header's end (at most 64).
    constexpr uint32_t id_at = offsetof(velk_software_content, sw_build_id);
    uint32_t hdr_end = h->hdr_length < VELK_SOFTWARE_HEADER_MAX ? h->hdr_length : VELK_SOFTWARE_HEADER_MAX;
    uint32_t id_len = hdr_end > id_at ? hdr_end - id_at : 0;
    uint16_t build;
    std::memcpy(&build, b + offsetof(velk_software_content, sw_build_number), sizeof build);
    char build_id[sizeof velk_software_content::sw_build_id + 1];
    zb_printf("sw_version_major..: %i\n", b[offsetof(velk_software_content, sw_version_major)]);
    zb_printf("sw_version_minor..: %i\n", b[offsetof(velk_software_content, sw_version_minor)]);
    zb_printf("sw_build_number...: %i\n", build);
    return zb_printf("sw_build_id.......: %s\n", text_of(build_id, b + id_at, id_len));
}

int velk_content_signature_print(const velk_stream_parser* p, int i)
{
    const velk_content_header* h = part_at(p, i);
    if (!h) return zb_printf("%s", kNullPart);
    if (h->type_id != VELK_TYPE_SIGNATURE)
        return zb_printf("WARNING: Can not signature display content[%i] as it is not a VELK Content Signature\n", i);
    const uint8_t* b = bytes_of(h);
    constexpr uint32_t sig_at = sizeof(velk_signature_content);
    // The signature bytes start at 36; they must not run past the part's body.
    int32_t length = static_cast<int32_t>(h->body_length);
    uint64_t part_end = uint64_t{h->hdr_length} + h->body_length;
    uint64_t sig_end = length > 0 ? uint64_t{sig_at} + static_cast<uint32_t>(length) : sig_at;
    if (sig_end > part_end) sig_end = part_end > sig_at ? part_end : sig_at;
    uint8_t algorithm = 0;
    copy_field(&algorithm, h, offsetof(velk_signature_content, algorithm_id), 1);
    zb_printf("signature algorithm id: %i\n", algorithm);
    zb_printf("signature:\n");
    for (uint64_t k = sig_at; k < sig_end; k++) zb_printf("%x", b[k]);
    return zb_printf("\n");
}

int velk_content_catalog_print(const velk_stream_parser* p, int i)
{
    const velk_content_header* h = part_at(p, i);
    if (!h) return zb_printf("%s", kNullHeader);
    int r = zb_printf("catalog: body_length...: %i\n", static_cast<int>(h->body_length));
    const uint8_t* body = bytes_of(h) + VELK_CONTENT_HEADER_SIZE;
    constexpr uint32_t name_at = offsetof(velk_catalog_entry, name);
    uint32_t at = 0;
    // Entries must lie inside the body; a zero length would never end the listing.
    while (at + name_at <= h->body_length) {
        velk_catalog_entry e;
        std::memcpy(&e, body + at, name_at);
        uint32_t room = h->body_length - at;
        uint32_t len = e.length < room ? e.length : room;
        char name[64];
        zb_printf("  found..: %i\n", e.found);
        r = zb_printf("  name...: %s\n", text_of(name, body + at + name_at, len > name_at ? len - name_at : 0));
        if (e.length == 0) break;
        at += e.length;
    }
    return r;
}
