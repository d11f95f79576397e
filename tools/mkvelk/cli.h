// The mkvelk command line: what a release engineer asks for, checked, and
// turned into an image file.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace mkvelk {

enum class content_kind { software, data, signature };

// One --software, --data or --signature argument.
struct content_spec {
    content_kind kind = content_kind::data;
    std::string name;
    std::string file;
    // software only
    uint8_t major = 0, minor = 0;
    uint16_t build = 0;
    std::string build_id;
    bool has_build_id = false;
    bool has_install_fields = false;  // any of POOL..WTS given
    std::string pool, mount, fstype, platform;
    int wts = 1;
    // signature only
    uint8_t algorithm = 0;
};

struct cli_options {
    bool help = false;
    std::string out;
    bool has_version = false;
    uint8_t major = 0, minor = 0;
    uint16_t build = 0;
    bool has_date = false;
    int32_t date = 0;
    std::string build_id;
    bool has_products = false;
    std::string products;
    std::vector<std::string> info;  // key=value lines of the release header
    std::string korm_file;
    std::vector<content_spec> contents;
    std::vector<std::string> sign_keys;  // --sign, at most 4
    bool sign_later = false;             // --sign-later
    bool is_signed() const { return sign_later || !sign_keys.empty(); }
};

extern const char usage_text[];

// Content parts of an image that the stream parser takes, release header
// and "korm" part included.
constexpr int MAX_PARTS = 20;
// Index of the first content part named on the command line: behind the
// release header, the signature part of a signed image, and the descriptor.
constexpr int FIRST_CONTENT_INDEX = 2;
inline int first_content_index(const cli_options& o) { return FIRST_CONTENT_INDEX + (o.is_signed() ? 1 : 0); }
constexpr size_t MAX_SIGNING_KEYS = 4;

// Each returns 0, or 1 after printing "mkvelk: ..." on stderr.
[[nodiscard]] int parse_cli(int argc, char** argv, cli_options* o);
[[nodiscard]] int check_cli(const cli_options& o);
// The names of a comma-separated product list, empty ones included.
std::vector<std::string> split_products(const std::string& list);
// One install line per software part, in the order of the parts.
std::string generate_korm(const cli_options& o);
// The descriptor as kor will read it: every line parses, and every content
// index is -1 or names a content part after the "korm" part (from `first`
// on), in rising order.
[[nodiscard]] int check_korm(const std::string& text, int first, int part_count);

// The offline signing commands: mkvelk --manifest IMG OUT and mkvelk
// --add-signature IMG PUB SIG. Exit status 0 or 1.
int run_manifest(const std::string& image, const std::string& out);
int run_add_signature(const std::string& image, const std::string& pub, const std::string& sig);

// The whole tool: exit status 0 or 1.
int run(int argc, char** argv);

}  // namespace mkvelk
