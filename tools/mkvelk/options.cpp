// Reads the mkvelk command line into cli_options. Every value is checked
// where it is read, so a message can name the argument that is wrong.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "cli.h"

namespace mkvelk {
namespace {

int fail(const char* what, const char* value)
{
    std::fprintf(stderr, "mkvelk: %s: '%s'\n", what, value);
    return 1;
}

// Plain decimal, no sign, no blanks, at most `max`.
bool parse_number(const std::string& text, unsigned long max, unsigned long* out)
{
    if (text.empty() || text.size() > 10) return false;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
    }
    errno = 0;
    const unsigned long v = std::strtoul(text.c_str(), nullptr, 10);
    if (errno != 0 || v > max) return false;
    *out = v;
    return true;
}

// MAJOR.MINOR.BUILD, each in its field's range.
bool parse_version(const std::string& text, uint8_t* major, uint8_t* minor, uint16_t* build)
{
    const size_t a = text.find('.');
    const size_t b = a == std::string::npos ? a : text.find('.', a + 1);
    if (b == std::string::npos) return false;
    unsigned long v1, v2, v3;
    if (!parse_number(text.substr(0, a), 255, &v1) ||
        !parse_number(text.substr(a + 1, b - a - 1), 255, &v2) ||
        !parse_number(text.substr(b + 1), 65535, &v3))
        return false;
    *major = uint8_t(v1);
    *minor = uint8_t(v2);
    *build = uint16_t(v3);
    return true;
}

std::vector<std::string> split(const std::string& text, char sep)
{
    std::vector<std::string> fields;
    size_t start = 0;
    for (;;) {
        const size_t end = text.find(sep, start);
        fields.push_back(text.substr(start, end == std::string::npos ? end : end - start));
        if (end == std::string::npos) return fields;
        start = end + 1;
    }
}

int set_out(cli_options* o, const char* v)
{
    o->out = v;
    return o->out.empty() ? fail("empty output file name", v) : 0;
}

int set_version(cli_options* o, const char* v)
{
    o->has_version = true;
    return parse_version(v, &o->major, &o->minor, &o->build)
               ? 0
               : fail("--version wants MAJOR.MINOR.BUILD (0-255.0-255.0-65535)", v);
}

int set_date(cli_options* o, const char* v)
{
    unsigned long d = 0;
    if (std::strcmp(v, "now") == 0) {
        d = (unsigned long)std::time(nullptr);
    } else if (!parse_number(v, 0x7FFFFFFF, &d)) {
        return fail("--date wants seconds since 1970 (at most 2147483647) or 'now'", v);
    }
    o->has_date = true;
    o->date = int32_t(d);
    return 0;
}

int set_build_id(cli_options* o, const char* v)
{
    o->build_id = v;
    return 0;
}

int set_products(cli_options* o, const char* v)
{
    o->has_products = true;
    o->products = v;
    return 0;
}

int add_info(cli_options* o, const char* v)
{
    o->info.push_back(v);
    return 0;
}

int set_korm(cli_options* o, const char* v)
{
    o->korm_file = v;
    return o->korm_file.empty() ? fail("empty --korm file name", v) : 0;
}

// NAME:VERSION[+BUILDID]:FILE[:POOL[:MOUNT[:FSTYPE[:PLATFORM[:WTS]]]]]
int add_software(cli_options* o, const char* v)
{
    const std::vector<std::string> f = split(v, ':');
    if (f.size() < 3 || f.size() > 8)
        return fail("--software wants NAME:VERSION:FILE[:POOL[:MOUNT[:FSTYPE[:PLATFORM[:WTS]]]]]", v);
    content_spec c;
    c.kind = content_kind::software;
    c.name = f[0];
    const size_t plus = f[1].find('+');
    if (plus != std::string::npos) {
        c.has_build_id = true;
        c.build_id = f[1].substr(plus + 1);
    }
    if (!parse_version(f[1].substr(0, plus), &c.major, &c.minor, &c.build))
        return fail("--software VERSION wants MAJOR.MINOR.BUILD[+BUILDID]", v);
    c.file = f[2];
    c.has_install_fields = f.size() > 3;
    c.pool = f.size() > 3 && !f[3].empty() ? f[3] : c.name;
    c.mount = f.size() > 4 && !f[4].empty() ? f[4] : "-";
    c.fstype = f.size() > 5 && !f[5].empty() ? f[5] : "-";
    c.platform = f.size() > 6 && !f[6].empty() ? f[6] : "-";
    unsigned long wts = 1;
    if (f.size() > 7 && !f[7].empty() && !parse_number(f[7], 3, &wts)) wts = 0;
    if (wts == 0) return fail("--software WTS wants 1, 2 or 3", v);
    c.wts = int(wts);
    o->contents.push_back(c);
    return 0;
}

// NAME:FILE
int add_data(cli_options* o, const char* v)
{
    const std::vector<std::string> f = split(v, ':');
    if (f.size() != 2) return fail("--data wants NAME:FILE", v);
    content_spec c;
    c.kind = content_kind::data;
    c.name = f[0];
    c.file = f[1];
    o->contents.push_back(c);
    return 0;
}

// NAME:ALG:FILE
int add_signature(cli_options* o, const char* v)
{
    const std::vector<std::string> f = split(v, ':');
    unsigned long alg = 0;
    if (f.size() != 3 || !parse_number(f[1], 255, &alg))
        return fail("--signature wants NAME:ALG:FILE with ALG 0-255", v);
    content_spec c;
    c.kind = content_kind::signature;
    c.name = f[0];
    c.algorithm = uint8_t(alg);
    c.file = f[2];
    o->contents.push_back(c);
    return 0;
}

int add_sign_key(cli_options* o, const char* v)
{
    o->sign_keys.push_back(v);
    return o->sign_keys.back().empty() ? fail("empty --sign key file name", v) : 0;
}

struct option_def {
    const char* name;
    const char* alias;
    int (*apply)(cli_options*, const char*);
};

const option_def option_table[] = {
    {"--out", "-o", set_out},
    {"--version", nullptr, set_version},
    {"--date", nullptr, set_date},
    {"--build-id", nullptr, set_build_id},
    {"--products", nullptr, set_products},
    {"--info", nullptr, add_info},
    {"--korm", nullptr, set_korm},
    {"--software", nullptr, add_software},
    {"--data", nullptr, add_data},
    {"--signature", nullptr, add_signature},
    {"--sign", nullptr, add_sign_key},
};

const option_def* find_option(const char* arg)
{
    for (const option_def& d : option_table) {
        if (std::strcmp(arg, d.name) == 0 || (d.alias && std::strcmp(arg, d.alias) == 0))
            return &d;
    }
    return nullptr;
}

}  // namespace

int parse_cli(int argc, char** argv, cli_options* o)
{
    for (int i = 1; i < argc; ++i) {
        const char* arg = argv[i];
        if (std::strcmp(arg, "--help") == 0 || std::strcmp(arg, "-h") == 0) {
            o->help = true;
            continue;
        }
        if (std::strcmp(arg, "--sign-later") == 0) {
            o->sign_later = true;
            continue;
        }
        const option_def* d = find_option(arg);
        if (d == nullptr) return fail("unknown argument (see mkvelk --help)", arg);
        if (i + 1 >= argc) return fail("missing value after", arg);
        if (d->apply(o, argv[++i]) != 0) return 1;
    }
    return 0;
}

}  // namespace mkvelk
