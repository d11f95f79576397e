// KORM descriptors (the "korm" part of a release image) and the release
// checks made on the release header.
#include <cstdio>
#include <cstring>

#include "base/console.h"
#include "korl/korl.h"

namespace {

constexpr uint32_t KORM_LINE_SIZE = 2000;  // a line holds at most 1999 characters
constexpr uint32_t RELEASE_BODY_OFFSET = sizeof(velk_release_header);
constexpr uint32_t PINFOMETA_SIZE = sizeof(korl_pinfometa);

// The widths in the conversions are the element's field sizes minus the NUL:
// a longer field stops the conversion at the width, the comma behind it does
// not match, and the line counts as wrong syntax instead of overrunning.
static_assert(sizeof(korm_element::poolname) == 18 && sizeof(korm_element::mountpnt) == 32 &&
              sizeof(korm_element::fstype) == 10 && sizeof(korm_element::platform) == 22);
constexpr const char* KORM_FORM_DOTTED = "%i,%17[^,],%i,%31[^,],%9[^,],%21[^,],%i.%i.%i,%i";
constexpr const char* KORM_FORM_HEX = "%i,%17[^,],%i,%31[^,],%9[^,],%21[^,],%X,%i";

struct korm_line_values {
    int cidx, extra, major, minor, build, wts;
    unsigned int hexver;
};

// Form 1 (dotted version), then form 2 (hexadecimal version). Returns the
// conversions of the form that was tried last; 10 or 8 means success.
int korm_scan_line(const char* line, korm_element* e, korm_line_values* v)
{
    int r = std::sscanf(line, KORM_FORM_DOTTED, &v->cidx, e->poolname, &v->extra, e->mountpnt,
                        e->fstype, e->platform, &v->major, &v->minor, &v->build, &v->wts);
    if (r == 10) return r;
    *e = korm_element{};
    r = std::sscanf(line, KORM_FORM_HEX, &v->cidx, e->poolname, &v->extra, e->mountpnt,
                    e->fstype, e->platform, &v->hexver, &v->wts);
    v->major = int(v->hexver >> 24);
    v->minor = int((v->hexver >> 16) & 0xFF);
    v->build = int(v->hexver & 0xFFFF);
    return r;
}

void korm_set_version(korm_element* e, const korm_line_values& v, bool dotted)
{
    const bool none = dotted && (v.major == -1 || v.minor == -1 || v.build == -1);
    const bool late = dotted && (v.major == -2 || v.minor == -2 || v.build == -2);
    if (none) {
        e->meta_valid = 0;
    } else if (late) {
        e->meta_valid = 2;
    } else {
        e->meta_valid = 1;
        e->ver_major = uint8_t(v.major);
        e->ver_minor = uint8_t(v.minor);
        e->ver_build = uint16_t(v.build);
    }
}

// Parses one descriptor line into *out. False for wrong syntax, with the
// conversion count to report in *r.
bool korm_parse_line(const char* line, korm_element* out, int* r)
{
    korm_element e{};
    korm_line_values v{};
    *r = korm_scan_line(line, &e, &v);
    if (*r != 10 && *r != 8) return false;

    e.cidx = int8_t(v.cidx);
    e.extra = v.extra;
    e.wts = uint8_t(v.wts);
    if (e.mountpnt[0] == '-') e.mountpnt[0] = '\0';
    if (e.fstype[0] == '-') e.fstype[0] = '\0';
    korm_set_version(&e, v, *r == 10);
    e.used = 1;
    e.partinfo_idx = -1;
    *out = e;
    return true;
}

// Copies the line at *pos into `line` and moves *pos behind it and its
// newline. Returns its length (0: end of text or an empty line); a line too
// long for the buffer is returned cut, with a length of KORM_LINE_SIZE.
uint32_t korm_next_line(const char** pos, char (&line)[KORM_LINE_SIZE])
{
    const char* p = *pos;
    const char* end = p;
    while (*end != '\0' && *end != '\n') ++end;
    const size_t len = size_t(end - p);
    const size_t kept = len < KORM_LINE_SIZE ? len : KORM_LINE_SIZE - 1;
    std::memset(line, 0, sizeof line);
    std::memcpy(line, p, kept);
    *pos = *end == '\n' ? end + 1 : end;
    return len < KORM_LINE_SIZE ? uint32_t(len) : KORM_LINE_SIZE;
}

}  // namespace

int korl_parse_kormd(korm_element* elements, int capacity, const char* text)
{
    KOR_ASSERT("korl", elements != nullptr);
    KOR_ASSERT("korl", text != nullptr);
    KOR_ASSERT("korl", capacity >= 0);
    std::memset(static_cast<void*>(elements), 0, sizeof(korm_element) * size_t(capacity));

    char line[KORM_LINE_SIZE];
    const char* pos = text;
    int count = 0;
    for (;;) {
        const uint32_t len = korm_next_line(&pos, line);
        if (len == 0) return count;
        if (line[0] == '#') continue;
        if (count >= capacity) {
            zb_printf("Wups, too many KORM elements, abort.\n");
            return -1;
        }
        int r = 0;  // a line too long for the buffer converts nothing
        if (len >= KORM_LINE_SIZE || !korm_parse_line(line, &elements[count], &r)) {
            zb_printf("Wrong syntax, skip (r=%i)\n", r);
            zb_printf("\n%s\n", line);
            continue;
        }
        ++count;
    }
}

void korl_meta_import_pinfometa(korl_data* d, const void* content_part, const korm_element* e)
{
    KOR_ASSERT("korl", d != nullptr && content_part != nullptr && e != nullptr);
    KOR_ASSERT("korl", e->partinfo_idx >= 0 && e->partinfo_idx < KORL_PARTINFOS);
    const auto* hdr = static_cast<const velk_content_header*>(content_part);
    // A header shorter than 64 bytes may be the last thing in the image:
    // take only the header and leave the rest of the record zero.
    const uint32_t n = hdr->hdr_length < PINFOMETA_SIZE ? hdr->hdr_length : PINFOMETA_SIZE;
    korl_pinfometa* meta = &d->pinfometa[e->partinfo_idx];
    std::memset(static_cast<void*>(meta), 0, sizeof *meta);
    std::memcpy(static_cast<void*>(meta), content_part, n);

    korl_partinfo* info = &d->partinfo[e->partinfo_idx];
    kor_str_copy(info->mountpnt, sizeof info->mountpnt, e->mountpnt);
    kor_str_copy(info->fstype, sizeof info->fstype, e->fstype);
}

int korl_korm_cidx_match(korm_element* const* elements, int cidx)
{
    KOR_ASSERT("korl", elements != nullptr);
    for (int i = 0; i < KORL_PARTINFOS && elements[i] != nullptr; ++i) {
        if (elements[i]->cidx == cidx) return i;
    }
    return -1;
}

int korl_match_model(const velk_content_header* release_header, const char* model)
{
    KOR_ASSERT("korl", release_header != nullptr && model != nullptr);
    if (model[0] == '\0') return 0;
    const char* body = reinterpret_cast<const char*>(release_header) + RELEASE_BODY_OFFSET;
    const size_t body_len = strnlen(body, release_header->body_length);

    static const char key[] = "products=";
    const size_t key_len = sizeof key - 1;
    size_t at = 0;
    while (at + key_len <= body_len && std::memcmp(body + at, key, key_len) != 0) ++at;
    if (at + key_len > body_len) return 0;

    const size_t model_len = std::strlen(model);
    size_t name = at + key_len;
    // A name counts only when a "," or the newline ends it; the text's NUL or
    // the body's end stop the scan without counting the name before them.
    for (size_t i = name; i < body_len; ++i) {
        if (body[i] != ',' && body[i] != '\n') continue;
        if (i - name == model_len && std::memcmp(body + name, model, model_len) == 0) return 1;
        if (body[i] == '\n') return 0;
        name = i + 1;
    }
    return 0;
}

int korl_check_minver(uint8_t major, uint8_t minor, uint16_t build, uint32_t want_major,
                      uint32_t want_minor, uint32_t want_build)
{
    if (major != want_major) return major > want_major ? 1 : 0;
    if (minor != want_minor) return minor > want_minor ? 1 : 0;
    return build >= want_build ? 1 : 0;
}

int korl_parse_csv(const char* text, char** table, int n, uint32_t buffer_size)
{
    KOR_ASSERT("korl", text != nullptr && table != nullptr && table[0] != nullptr);
    const size_t len = strnlen(text, buffer_size);
    if (len >= buffer_size) return -1;  // no room for the text and its NUL
    char* buf = table[0];
    std::memcpy(buf, text, len + 1);
    if (len == 0) return 0;
    if (n < 2) return -1;

    int count = 1;
    table[count] = buf;
    for (char* p = buf; *p != '\0'; ++p) {
        if (*p != ',') continue;
        *p = '\0';
        if (++count >= n) return -1;
        table[count] = p + 1;
        if (p[1] == '\0') return count;
    }
    return count;
}
