// mkvelk's run: read the inputs, lay out the image, write it in one go.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "cli.h"
#include "base/fileutil.h"
#include "mkvelk.h"

namespace mkvelk {

const char usage_text[] =
    "Usage: mkvelk -o OUT --version MAJ.MIN.BUILD --products NAME[,NAME]...\n"
    "              [--date EPOCH|now] [--build-id ID] [--info KEY=VALUE]...\n"
    "              [--korm FILE] CONTENT...\n"
    "Writes a VELK release image for kor: the release header (part 0), the\n"
    "KORM descriptor \"korm\" (part 1), then the content parts in the order given\n"
    "(the first one is content index 2).\n"
    "\n"
    "  -o, --out OUT        image file to write\n"
    "  --version M.N.B      release version (0-255.0-255.0-65535)\n"
    "  --products LIST      device models the release is for, e.g. a,b\n"
    "  --date EPOCH|now     release date in seconds since 1970\n"
    "                       (default: $SOURCE_DATE_EPOCH, else now)\n"
    "  --build-id ID        release build id, at most 35 characters\n"
    "  --info KEY=VALUE     one more line of the release header text\n"
    "  --korm FILE          use this KORM descriptor instead of generating one\n"
    "\n"
    "CONTENT (fields separated by ':'; empty or left-out fields take defaults):\n"
    "  --software NAME:VERSION[+BUILDID]:FILE[:POOL[:MOUNT[:FSTYPE[:PLATFORM[:WTS]]]]]\n"
    "        software (type 4). BUILDID defaults to --build-id and may have at\n"
    "        most 27 characters (the header holds 64 bytes). POOL defaults to\n"
    "        NAME; MOUNT, FSTYPE, PLATFORM to \"-\"; WTS (write type 1, 2 or 3) to 1.\n"
    "  --data NAME:FILE               opaque data (type 3), not installed\n"
    "  --signature NAME:ALG:FILE      signature (type 7), ALG 0-255, not installed\n"
    "\n"
    "Without --korm, mkvelk writes one descriptor line per software part:\n"
    "  CIDX,POOL,0,MOUNT,FSTYPE,PLATFORM,MAJ.MIN.BUILD,WTS\n"
    "Names have at most 16 characters. Exit status 0, or 1 with a message.\n";

namespace {

int read_file(const std::string& path, bytes* out)
{
    unique_file f(std::fopen(path.c_str(), "rb"));
    if (!f) {
        std::fprintf(stderr, "mkvelk: cannot open '%s': %s\n", path.c_str(), std::strerror(errno));
        return 1;
    }
    uint8_t chunk[65536];
    size_t n;
    while ((n = std::fread(chunk, 1, sizeof chunk, f.get())) > 0) out->insert(out->end(), chunk, chunk + n);
    if (std::ferror(f.get())) {
        std::fprintf(stderr, "mkvelk: cannot read '%s'\n", path.c_str());
        return 1;
    }
    return 0;
}

int write_image(const std::string& path, const bytes& image)
{
    unique_file f(std::fopen(path.c_str(), "wb"));
    if (!f) {
        std::fprintf(stderr, "mkvelk: cannot create '%s': %s\n", path.c_str(), std::strerror(errno));
        return 1;
    }
    const bool written = std::fwrite(image.data(), 1, image.size(), f.get()) == image.size();
    if (!written || f.reset() != 0) {
        std::fprintf(stderr, "mkvelk: cannot write '%s': %s\n", path.c_str(), std::strerror(errno));
        std::remove(path.c_str());  // no half image left behind
        return 1;
    }
    return 0;
}

int default_date(int32_t* date)
{
    const char* env = std::getenv("SOURCE_DATE_EPOCH");
    if (env == nullptr) {
        *date = int32_t(std::time(nullptr));
        return 0;
    }
    char* end = nullptr;
    errno = 0;
    const long long v = std::strtoll(env, &end, 10);
    if (errno != 0 || end == env || *end != '\0' || v < 0 || v > 0x7FFFFFFF) {
        std::fprintf(stderr, "mkvelk: SOURCE_DATE_EPOCH '%s' is not a date (seconds since 1970)\n", env);
        return 1;
    }
    *date = int32_t(v);
    return 0;
}

std::string release_text(const cli_options& o)
{
    std::string text = "products=" + o.products + "\n";
    for (const std::string& line : o.info) text += line + "\n";
    return text;
}

int content_part(const content_spec& c, const cli_options& o, part* p)
{
    bytes body;
    if (read_file(c.file, &body) != 0) return 1;
    switch (c.kind) {
    case content_kind::software:
        *p = software(c.name, c.major, c.minor, c.build, c.has_build_id ? c.build_id : o.build_id,
                      std::move(body));
        break;
    case content_kind::data:
        *p = data(c.name, std::move(body));
        break;
    case content_kind::signature:
        *p = signature(c.name, c.algorithm, std::move(body));
        break;
    }
    return 0;
}

int korm_text(const cli_options& o, std::string* text)
{
    if (o.korm_file.empty()) {
        *text = generate_korm(o);
    } else {
        bytes raw;
        if (read_file(o.korm_file, &raw) != 0) return 1;
        text->assign(raw.begin(), raw.end());
    }
    return check_korm(*text, FIRST_CONTENT_INDEX + int(o.contents.size()));
}

int make_image(const cli_options& o, bytes* image)
{
    int32_t date = o.date;
    if (!o.has_date && default_date(&date) != 0) return 1;
    std::string korm_descriptor;
    if (korm_text(o, &korm_descriptor) != 0) return 1;

    std::vector<part> parts;
    parts.push_back(release_header(o.major, o.minor, o.build, date, o.build_id, release_text(o)));
    parts.push_back(korm(korm_descriptor));
    for (const content_spec& c : o.contents) {
        parts.emplace_back();
        if (content_part(c, o, &parts.back()) != 0) return 1;
    }
    *image = build_image(parts);
    if (image->empty()) {
        std::fputs("mkvelk: the image would be larger than 4 GiB\n", stderr);
        return 1;
    }
    return 0;
}

}  // namespace

int run(int argc, char** argv)
{
    if (argc < 2) {
        std::fputs(usage_text, stderr);
        return 1;
    }
    cli_options o;
    if (parse_cli(argc, argv, &o) != 0) return 1;
    if (o.help) {
        std::fputs(usage_text, stdout);
        return 0;
    }
    bytes image;
    if (check_cli(o) != 0 || make_image(o, &image) != 0) return 1;
    if (write_image(o.out, image) != 0) return 1;
    std::printf("%s: %zu bytes, %zu content parts\n", o.out.c_str(), image.size(),
                o.contents.size() + FIRST_CONTENT_INDEX);
    return 0;
}

}  // namespace mkvelk
