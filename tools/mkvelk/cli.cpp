// mkvelk's run: read the inputs, lay out the image, write it in one go.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "cli.h"
#include "base/fileutil.h"
#include "mkvelk.h"
#include "velk/velk_sig.h"

namespace mkvelk {

const char usage_text[] =
    "Usage: mkvelk -o OUT --version MAJ.MIN.BUILD --products NAME[,NAME]...\n"
    "              [--date EPOCH|now] [--build-id ID] [--info KEY=VALUE]...\n"
    "              [--korm FILE] [--sign KEY.pem]... [--sign-later] CONTENT...\n"
    "       mkvelk --manifest IMAGE OUT\n"
    "       mkvelk --add-signature IMAGE PUBLIC.pem SIGNATURE\n"
    "Writes a VELK release image for kor: the release header (part 0), the\n"
    "KORM descriptor \"korm\" (part 1), then the content parts in the order given\n"
    "(the first one is content index 2). A signed image has its signature part\n"
    "as part 1: the descriptor is part 2 and the first content index 3.\n"
    "\n"
    "  -o, --out OUT        image file to write\n"
    "  --version M.N.B      release version (0-255.0-255.0-65535)\n"
    "  --products LIST      device models the release is for, e.g. a,b\n"
    "  --date EPOCH|now     release date in seconds since 1970\n"
    "                       (default: $SOURCE_DATE_EPOCH, else now)\n"
    "  --build-id ID        release build id, at most 35 characters\n"
    "  --info KEY=VALUE     one more line of the release header text\n"
    "  --korm FILE          use this KORM descriptor instead of generating one\n"
    "  --sign KEY.pem       sign with this Ed25519 private key (openssl genpkey\n"
    "                       -algorithm ed25519); up to 4 times, one signature each\n"
    "  --sign-later         make the signature part without a signature, for\n"
    "                       --manifest and --add-signature (offline or HSM signing)\n"
    "  --manifest IMAGE OUT write the bytes a key signs (the manifest) to OUT\n"
    "  --add-signature IMAGE PUBLIC.pem SIGNATURE\n"
    "                       check the raw 64-byte Ed25519 SIGNATURE of IMAGE's\n"
    "                       manifest against PUBLIC.pem and add it to IMAGE\n"
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
    return check_korm(*text, first_content_index(o), first_content_index(o) + int(o.contents.size()));
}

int read_keys(const cli_options& o, std::vector<signing_key>* keys)
{
    for (const std::string& path : o.sign_keys) {
        std::string why;
        keys->push_back(read_signing_key(path, &why));
        if (!keys->back()) {
            std::fprintf(stderr, "mkvelk: --sign '%s': %s\n", path.c_str(), why.c_str());
            return 1;
        }
    }
    return 0;
}

// ", signed by KEYID,KEYID" for the summary line.
std::string signers_text(const cli_options& o, const std::vector<signing_key>& keys)
{
    if (!o.is_signed()) return "";
    if (keys.empty()) return ", to be signed (--sign-later)";
    std::string ids;
    for (const signing_key& k : keys) {
        char hex[2 * VELK_SIG_KEY_ID_SIZE + 1];
        velk_key_id_text(key_id_of(public_key_of(k)).data(), hex);
        ids += (ids.empty() ? "" : ",") + std::string(hex);
    }
    return ", signed by " + ids;
}

int make_image(const cli_options& o, bytes* image, std::string* note)
{
    int32_t date = o.date;
    if (!o.has_date && default_date(&date) != 0) return 1;
    std::string korm_descriptor;
    if (korm_text(o, &korm_descriptor) != 0) return 1;

    std::vector<signing_key> keys;
    if (read_keys(o, &keys) != 0) return 1;
    std::vector<part> parts;
    parts.push_back(release_header(o.major, o.minor, o.build, date, o.build_id, release_text(o)));
    parts.push_back(korm(korm_descriptor));
    for (const content_spec& c : o.contents) {
        parts.emplace_back();
        if (content_part(c, o, &parts.back()) != 0) return 1;
    }
    if (o.is_signed()) {
        std::vector<const signing_key*> signers;
        for (const signing_key& k : keys) signers.push_back(&k);
        parts = sign_parts(std::move(parts), signers);
    }
    *image = build_image(parts);
    if (image->empty()) {
        std::fputs("mkvelk: the image would be larger than 4 GiB\n", stderr);
        return 1;
    }
    *note = signers_text(o, keys);
    return 0;
}

// Writes `path` anew through a file beside it: an interrupted run leaves the
// old image, never half of the new one.
int replace_file(const std::string& path, const bytes& content)
{
    const std::string tmp = path + ".mkvelk-tmp";
    if (write_image(tmp, content) != 0) return 1;
    if (std::rename(tmp.c_str(), path.c_str()) != 0) {
        std::fprintf(stderr, "mkvelk: cannot replace '%s': %s\n", path.c_str(), std::strerror(errno));
        std::remove(tmp.c_str());
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
    const std::string command = argv[1];
    if (command == "--manifest" || command == "--add-signature") {
        const int want = command == "--manifest" ? 4 : 5;
        if (argc != want) {
            std::fprintf(stderr, "mkvelk: %s wants %s (see mkvelk --help)\n", command.c_str(),
                         want == 4 ? "IMAGE OUT" : "IMAGE PUBLIC.pem SIGNATURE");
            return 1;
        }
        return want == 4 ? run_manifest(argv[2], argv[3]) : run_add_signature(argv[2], argv[3], argv[4]);
    }
    cli_options o;
    if (parse_cli(argc, argv, &o) != 0) return 1;
    if (o.help) {
        std::fputs(usage_text, stdout);
        return 0;
    }
    bytes image;
    std::string note;
    if (check_cli(o) != 0 || make_image(o, &image, &note) != 0) return 1;
    if (write_image(o.out, image) != 0) return 1;
    std::printf("%s: %zu bytes, %zu content parts%s\n", o.out.c_str(), image.size(),
                o.contents.size() + size_t(first_content_index(o)), note.c_str());
    return 0;
}

int run_manifest(const std::string& image_path, const std::string& out)
{
    bytes image;
    if (read_file(image_path, &image) != 0) return 1;
    std::string why;
    const bytes manifest = image_manifest(image, &why);
    if (manifest.empty()) {
        std::fprintf(stderr, "mkvelk: '%s': %s\n", image_path.c_str(), why.c_str());
        return 1;
    }
    return write_image(out, manifest);
}

int run_add_signature(const std::string& image_path, const std::string& pub, const std::string& sig)
{
    bytes image, pem, signature;
    if (read_file(image_path, &image) != 0 || read_file(pub, &pem) != 0 || read_file(sig, &signature) != 0)
        return 1;
    const bytes key = public_key_from_pem(std::string(pem.begin(), pem.end()));
    if (key.empty()) {
        std::fprintf(stderr, "mkvelk: '%s' is not an Ed25519 public key in PEM\n", pub.c_str());
        return 1;
    }
    if (signature.size() != KOR_ED25519_SIG_SIZE) {
        std::fprintf(stderr, "mkvelk: '%s' holds %zu bytes, not a raw 64-byte Ed25519 signature\n",
                     sig.c_str(), signature.size());
        return 1;
    }
    std::string why;
    const bytes out = add_signature(image, key, signature, &why);
    if (out.empty()) {
        std::fprintf(stderr, "mkvelk: '%s': %s\n", image_path.c_str(), why.c_str());
        return 1;
    }
    if (replace_file(image_path, out) != 0) return 1;
    char hex[2 * VELK_SIG_KEY_ID_SIZE + 1];
    velk_key_id_text(key_id_of(key).data(), hex);
    std::printf("%s: %zu bytes, signed by %s too\n", image_path.c_str(), out.size(), hex);
    return 0;
}

}  // namespace mkvelk
