// Writes the seed corpora of the fuzz targets into DIR/<target>/: release
// images made with mkvelk's builders (behind the split bytes the image
// targets read first), the default hostconfig image, KORM and CSV texts,
// product lists and command lines. Kept small: the seeds are committed.
#include <cstdio>
#include <string>
#include <vector>

#include "base/fileutil.h"
#include "hostconfig/hostconfig.h"
#include "korl/korl.h"
#include "fuzz_signed.h"
#include "mkvelk.h"

namespace {

using mkvelk::bytes;

std::string g_dir;

bool put(const std::string& target, const std::string& name, const bytes& content)
{
    std::string path = g_dir + "/" + target + "/" + name;
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) {
        std::perror(path.c_str());
        return false;
    }
    bool ok = std::fwrite(content.data(), 1, content.size(), f) == content.size();
    return std::fclose(f) == 0 && ok;
}

bytes text(const std::string& s) { return bytes(s.begin(), s.end()); }

// Command-line arguments, NUL-separated as the options target splits them.
bytes args(const std::vector<std::string>& words)
{
    bytes b;
    for (const std::string& w : words) {
        if (!b.empty()) b.push_back(0);
        b.insert(b.end(), w.begin(), w.end());
    }
    return b;
}

// Split prefix: flags, the count of piece sizes, the sizes.
bytes split(uint8_t flags, const bytes& sizes, const bytes& image)
{
    bytes b{flags, static_cast<uint8_t>(sizes.size())};
    b.insert(b.end(), sizes.begin(), sizes.end());
    b.insert(b.end(), image.begin(), image.end());
    return b;
}

bytes with_flags(uint8_t flags, const bytes& image)
{
    bytes b{flags};
    b.insert(b.end(), image.begin(), image.end());
    return b;
}

std::vector<mkvelk::part> release(const std::string& korm)
{
    return {mkvelk::release_header(1, 0, 1, 0, "b1", "products=dev1,dev2\n"),
            mkvelk::korm(korm),
            mkvelk::software("kernel", 1, 0, 1, "k1", bytes(40, 0xAB)),
            mkvelk::software("root", 1, 0, 1, "r1", bytes(61, 0xCD))};
}

const char* const kKorm = "2,KNLS,0,-,-,-,-1.-1.-1,1\n3,ROOTS,0,/,squashfs,-,1.0.1,1\n";

bool image_seeds()
{
    bytes plain = mkvelk::build_image(release(kKorm));
    bytes late = mkvelk::build_image(release("2,KNLS,0,-,-,-,1.-2.0,2\n3,ROOTS,0,-,-,dev1,"
                                             "0x01000001,3\n-1,APPLS,0,-,-,-,-1.-1.-1,1\n"));
    bytes bad_body = plain;
    bad_body[bad_body.size() - 1] ^= 0xFF;  // last body byte: a CRC mismatch
    std::vector<mkvelk::part> many;
    for (int i = 0; i < 21; ++i) many.push_back(mkvelk::data("d" + std::to_string(i), bytes(3, 1)));
    bytes too_many = mkvelk::build_image(many);
    const bytes cuts{1, 7, 33, 0, 0x81};
    bool ok = true;
    ok &= put("velk_stream_parser", "one_piece", split(2, {}, plain));
    ok &= put("velk_stream_parser", "cuts", split(2, cuts, plain));
    ok &= put("velk_stream_parser", "skips", split(0xFF, {40}, plain));
    ok &= put("velk_stream_parser", "bad_body", split(0, {13}, bad_body));
    ok &= put("velk_stream_parser", "too_many_parts", split(2, {}, too_many));
    ok &= put("velkinfo", "all", with_flags(3, plain));
    ok &= put("velkinfo", "header_only", with_flags(2, late));
    ok &= put("velkinfo", "bad_body", with_flags(1, bad_body));
    ok &= put("install_receive", "file", split(0x28, {}, plain));
    ok &= put("install_receive", "file_cuts", split(0x30, cuts, late));
    ok &= put("install_receive", "url_range", split(0x2B, {120, 64, 3}, plain));
    ok &= put("install_receive", "url_late", split(0x2F, {9}, late));
    ok &= put("velk_pass_parser", "one_piece", split(2, {}, plain));
    ok &= put("velk_pass_parser", "cuts", split(2, cuts, plain));
    ok &= put("velk_pass_parser", "skips", split(0xFF, {40}, plain));
    ok &= put("velk_pass_parser", "bad_body", split(0, {13}, bad_body));
    ok &= put("velk_pass_parser", "too_many_parts", split(2, {}, too_many));
    ok &= put("install_stream", "file", split(0x24, {}, plain));
    ok &= put("install_stream", "file_cuts", split(0x24, cuts, late));
    ok &= put("install_stream", "no_ranges", split(0x25, {120, 64, 3}, plain));
    ok &= put("install_stream", "changed", split(0x64, {9}, plain));
    ok &= put("install_stream", "singleton",
              split(0x26, {}, mkvelk::build_image(release("2,SAFEKNLS,0,-,-,-,1.0.1,1\n3,ROOTS,0,-,-,-,1.0.1,1\n"))));
    ok &= put("install_stream", "held_too_big", split(0x36, {}, plain));
    ok &= put("install_receive", "korm_first",
              split(0x28, {}, mkvelk::build_image({mkvelk::korm(kKorm),
                                                   mkvelk::release_header(1, 0, 1, 0, "b", "")})));
    return ok;
}

// A saved hostconfig image behind the flags byte of the hostconfig target.
bool put_hostconfig(hostconfig* hc, const std::string& name, uint8_t flags)
{
    std::string path = g_dir + "/hostconfig_load/" + name;
    if (hostconfig_save(hc, path.c_str(), nullptr) != 1) return false;
    bytes b{flags};
    b.resize(1 + HOSTCONFIG_MAX);
    int n = fnread(path.c_str(), b.data() + 1, HOSTCONFIG_MAX);
    if (n <= 0) return false;
    b.resize(1 + static_cast<size_t>(n));
    return put("hostconfig_load", name, b);
}

bool hostconfig_seeds()
{
    hostconfig hc;
    if (hostconfig_new(&hc, HOSTCONFIG_MAX) != 1 || hostconfig_default(&hc) != 1) return false;
    if (!put_hostconfig(&hc, "default", 1)) return false;
    const char note[] = "second body";
    if (hostconfig_add_body(&hc, note, sizeof note, "note") != 1) return false;
    return put_hostconfig(&hc, "two_bodies", 0);
}

bool text_seeds()
{
    bool ok = true;
    ok &= put("kormd", "install", text(kKorm));
    ok &= put("kormd", "forms", text("# comment\n0,ROOTS,0,/,squashfs,-,2.1.37,1\n"
                                     "1,KNLS,0,-,-,-,0x0201000A,2\n-1,APPLS,0,-,-,-,1.-2.0,3\n"
                                     "\n5,DTS,0,-,-,-,1.0.0,1\n"));
    ok &= put("kormd", "bad_lines", text("0,,0,-,-,-,1.0.0,1\n1,ROOTS,0,-,-,-,FFFFFFFF,1\n"
                                         "2,AVERYLONGPOOLNAMEINDEED,0,-,-,-,1.0.0,1\n"));
    ok &= put("match_model", "list", text("\x04" "dev2" "products=dev1,dev2\nbuild=x\n"));
    ok &= put("match_model", "at_nul", text("\x01" "a" "key=v\nproducts=b,a"));
    ok &= put("match_model", "empty_model", args({"", "products=,\n"}));
    ok &= put("parse_csv", "two", text("a,b"));
    ok &= put("parse_csv", "trailing", text("SET1,SET2,"));
    ok &= put("parse_csv", "twenty", text("1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17,18,19,20"));
    ok &= put("http_header", "partial",
              text(std::string("\0", 1) + "HTTP/1.1 206 Partial Content\r\nContent-Length: 10\r\n"
                   "Content-Range: bytes 100-109/110\r\n\r\n"));
    ok &= put("http_header", "whole",
              text(std::string("\0", 1) + "HTTP/1.1 200 OK\r\nServer: x\r\n\r\n"));
    ok &= put("http_header", "ftp", text("\x01" "220 ready\r\n213 110\r\n150 Opening\r\n"));
    ok &= put("options", "install",
              args({"-v", "install", "/tmp/x.velk", "-1", "-product=dev1", "-minver=1.2.3"}));
    ok &= put("options", "paths",
              args({"-cfg=/dev/a", "-cfgbak=/dev/b", "-lockfile=/l", "-meta=0102000A", "info"}));
    ok &= put("options", "values", args({"-velksize=100", "-iptos=0x10", "-platform=plat",
                                         "-plugin=/p.so", "-f", "-meta=1.2.3", "getrh"}));
    return ok;
}

// Signature part bodies behind the algorithm id and the piece size: the
// body the fuzz target's key signed, one without signatures, the largest
// layout, and a reserved algorithm.
bool signature_seeds()
{
    const mkvelk::signing_key key = fuzz::signed_image_key();
    const auto seed = [](uint8_t algorithm, uint8_t piece, const bytes& body) {
        bytes b{algorithm, piece};
        b.insert(b.end(), body.begin(), body.end());
        return b;
    };
    const bytes body = fuzz::signed_image_parts(key)[1].body;
    std::vector<mkvelk::part> twenty(20, mkvelk::data("d", {}));
    bytes largest = mkvelk::manifest_of(twenty);
    largest.push_back(4), largest.resize(largest.size() + 3 + 4 * 72, 0);
    const bytes unsigned_body = mkvelk::signature_part(mkvelk::manifest_of(fuzz::signed_image_parts(key)), {}).body;
    bool ok = true;
    ok &= put("velk_sig", "signed", seed(1, 0, body));
    ok &= put("velk_sig", "signed_pieces", seed(1, 5, body));
    ok &= put("velk_sig", "no_signature", seed(1, 0, unsigned_body));
    ok &= put("velk_sig", "largest", seed(1, 0, largest));
    ok &= put("velk_sig", "algorithm_2", seed(2, 0, body));
    return ok;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: fuzz_make_seeds DIR\n");
        return 2;
    }
    g_dir = argv[1];
    bool ok = image_seeds() && hostconfig_seeds() && text_seeds() && signature_seeds();
    return ok ? 0 : 1;
}
