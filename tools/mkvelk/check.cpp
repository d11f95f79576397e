// Refuses what kor could not use: names and fields over their widths,
// software headers over 64 bytes, descriptors kor would read differently.
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "cli.h"
#include "korl/korl.h"
#include "mkvelk.h"

namespace mkvelk {
namespace {

constexpr size_t MAX_BUILD_ID = sizeof(velk_release_info::release_build_id) - 1;
constexpr size_t MAX_PRODUCT = 15;   // what KOR_PRODUCT and -product hold
constexpr size_t MAX_POOL = 15;      // a partition entry's pool name
constexpr size_t MAX_MOUNT = sizeof(korm_element::mountpnt) - 1;
constexpr size_t MAX_FSTYPE = sizeof(korm_element::fstype) - 1;
constexpr size_t MAX_PLATFORM = 15;  // matched against the platform or product

__attribute__((format(printf, 1, 2))) int refuse(const char* format, ...)
{
    std::fputs("mkvelk: ", stderr);
    va_list ap;
    va_start(ap, format);
    std::vfprintf(stderr, format, ap);
    va_end(ap);
    std::fputc('\n', stderr);
    return 1;
}

bool plain_text(const std::string& s, const char* also_forbidden)
{
    for (char c : s) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) return false;
        if (std::strchr(also_forbidden, c) != nullptr) return false;
    }
    return true;
}

// A text field of a KORM line or the product list.
int check_field(const std::string& value, size_t max, const char* what)
{
    if (value.empty() || value.size() > max)
        return refuse("%s '%s' must have 1 to %zu characters", what, value.c_str(), max);
    if (!plain_text(value, ",:"))
        return refuse("%s '%s' contains a comma or a control character", what, value.c_str());
    return 0;
}

int check_release(const cli_options& o)
{
    if (o.out.empty()) return refuse("missing -o OUT (see mkvelk --help)");
    if (!o.has_version) return refuse("missing --version MAJOR.MINOR.BUILD");
    if (!o.has_products) return refuse("missing --products NAME[,NAME]...");
    if (o.build_id.size() > MAX_BUILD_ID || !plain_text(o.build_id, ""))
        return refuse("--build-id '%s' must be at most 35 printable characters", o.build_id.c_str());
    for (const std::string& p : split_products(o.products)) {
        if (p.empty() || p.size() > MAX_PRODUCT || !plain_text(p, " ,"))
            return refuse("product '%s' in '%s' must have 1 to 15 characters, no blanks", p.c_str(),
                          o.products.c_str());
    }
    for (const std::string& line : o.info) {
        const size_t eq = line.find('=');
        if (eq == 0 || eq == std::string::npos || !plain_text(line, ""))
            return refuse("--info wants KEY=VALUE on one line: '%s'", line.c_str());
        if (line.compare(0, eq, "products") == 0)
            return refuse("--info '%s': use --products for the product list", line.c_str());
    }
    return 0;
}

int check_install_fields(const content_spec& c)
{
    if (check_field(c.pool, MAX_POOL, "POOL") || check_field(c.mount, MAX_MOUNT, "MOUNT") ||
        check_field(c.fstype, MAX_FSTYPE, "FSTYPE") ||
        check_field(c.platform, MAX_PLATFORM, "PLATFORM"))
        return refuse("in --software %s", c.name.c_str());
    return 0;
}

// The part as mkvelk would lay it out, without its body: the library says
// what it cannot lay out.
part shape_of(const content_spec& c, const cli_options& o)
{
    switch (c.kind) {
    case content_kind::software:
        return software(c.name, c.major, c.minor, c.build, c.has_build_id ? c.build_id : o.build_id, {});
    case content_kind::signature:
        return signature(c.name, c.algorithm, {});
    case content_kind::data:
        break;
    }
    return data(c.name, {});
}

int check_content(const content_spec& c, const cli_options& o)
{
    if (c.name.empty()) return refuse("a content part needs a name");
    if (c.name == "korm") return refuse("the name '%s' is kept for the KORM descriptor", c.name.c_str());
    if (c.file.empty()) return refuse("content part '%s' needs a file", c.name.c_str());
    const part shape = shape_of(c, o);
    const size_t header = VELK_CONTENT_HEADER_SIZE + shape.header_extra.size();
    if (c.kind == content_kind::software && header > VELK_SOFTWARE_HEADER_MAX)
        return refuse("software '%s': header of %zu bytes is over 64; its build id may have at "
                      "most 27 characters", c.name.c_str(), header);
    if (const char* why = part_problem(shape)) return refuse("content part '%s': %s", c.name.c_str(), why);
    if (c.kind != content_kind::software) return 0;
    if (c.has_install_fields && !o.korm_file.empty())
        return refuse("--software %s: POOL and the fields after it are not used with --korm", c.name.c_str());
    return o.korm_file.empty() ? check_install_fields(c) : 0;
}

// Descriptor lines as kor reads them: up to the first empty line, comments left out.
int count_korm_lines(const std::string& text)
{
    int lines = 0;
    size_t at = 0;
    while (at < text.size() && text[at] != '\n') {
        if (text[at] != '#') ++lines;
        const size_t nl = text.find('\n', at);
        if (nl == std::string::npos) break;
        at = nl + 1;
    }
    return lines;
}

}  // namespace

std::vector<std::string> split_products(const std::string& list)
{
    std::vector<std::string> names;
    size_t start = 0;
    for (;;) {
        const size_t end = list.find(',', start);
        names.push_back(list.substr(start, end == std::string::npos ? end : end - start));
        if (end == std::string::npos) return names;
        start = end + 1;
    }
}

int check_cli(const cli_options& o)
{
    if (check_release(o) != 0) return 1;
    bool any_software = false;
    for (const content_spec& c : o.contents) {
        if (check_content(c, o) != 0) return 1;
        any_software = any_software || c.kind == content_kind::software;
    }
    if (!any_software && o.korm_file.empty())
        return refuse("nothing to install: give a --software part or a --korm descriptor");
    if (o.sign_keys.size() > MAX_SIGNING_KEYS) return refuse("at most 4 --sign keys");
    if (o.sign_later && !o.sign_keys.empty()) return refuse("--sign-later and --sign exclude each other");
    for (size_t i = 0; i < o.sign_keys.size(); ++i)
        for (size_t k = 0; k < i; ++k)
            if (o.sign_keys[i] == o.sign_keys[k]) return refuse("--sign '%s' given twice", o.sign_keys[i].c_str());
    if (first_content_index(o) + o.contents.size() > size_t(MAX_PARTS))
        return refuse("too many content parts: kor reads at most %d besides the release header, the descriptor "
                      "and the signature", MAX_PARTS - first_content_index(o));
    return 0;
}

std::string generate_korm(const cli_options& o)
{
    std::string text;
    int cidx = first_content_index(o);
    for (const content_spec& c : o.contents) {
        if (c.kind == content_kind::software) {
            char line[160];
            std::snprintf(line, sizeof line, "%d,%s,0,%s,%s,%s,%u.%u.%u,%d\n", cidx, c.pool.c_str(),
                          c.mount.c_str(), c.fstype.c_str(), c.platform.c_str(), c.major, c.minor,
                          c.build, c.wts);
            text += line;
        }
        ++cidx;
    }
    return text;
}

int check_korm(const std::string& text, int first, int part_count)
{
    if (text.find('\0') != std::string::npos) return refuse("the KORM descriptor contains a NUL byte");
    static korm_element elements[KORL_KORM_ELEMENTS];
    const int n = korl_parse_kormd(elements, KORL_KORM_ELEMENTS, text.c_str());
    if (n < 0) return refuse("the KORM descriptor has more than 44 lines");
    const int lines = count_korm_lines(text);
    if (n != lines) {
        std::fprintf(stderr, "mkvelk: the KORM descriptor has %d line(s) of wrong syntax\n", lines - n);
        return 1;
    }
    if (n == 0) return refuse("the KORM descriptor has no install line");
    int last = first - 1;
    for (int i = 0; i < n; ++i) {
        const korm_element& e = elements[i];
        if (e.wts < 1 || e.wts > 3) {
            std::fprintf(stderr, "mkvelk: KORM line %d: write type %d is not 1, 2 or 3\n", i + 1, e.wts);
            return 1;
        }
        if (e.cidx == -1) continue;
        if (e.cidx <= last || e.cidx >= part_count) {
            std::fprintf(stderr,
                         "mkvelk: KORM line %d: content index %d must name a content part after "
                         "the descriptor (%d to %d), in rising order\n",
                         i + 1, e.cidx, first, part_count - 1);
            return 1;
        }
        last = e.cidx;
    }
    return 0;
}

}  // namespace mkvelk
