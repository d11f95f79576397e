// Every bound and refusal through the command line: the message, the exit
// status, and that nothing was written (hostconfig copies, flags area,
// content partitions, no lock file left). Rows at a bound that must be
// accepted run with -dryrun or only read.
#include <gtest/gtest.h>
#include <zlib.h>

#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "mkvelk.h"
#include "support/sandbox.h"

using sandbox::bytes;
using sandbox::Device;
using sandbox::RunOptions;
using sandbox::RunResult;

namespace {

constexpr size_t kKorData = 3240;
const std::string kKernel = "2,KNLS,0,-,-,-,1.0.1,1\n";

bytes pattern(size_t n) { return bytes(n, 0x5A); }

// Release 1.0.1 with the given descriptor and `extra` more data parts.
bytes release(const std::string& korm, int extra = 0)
{
    std::vector<mkvelk::part> parts = {
        mkvelk::release_header(1, 0, 1, 0, "b1", "products=dev1\n"), mkvelk::korm(korm),
        mkvelk::software("kernel", 1, 0, 1, "k", pattern(700))};
    for (int i = 0; i < extra; ++i) parts.push_back(mkvelk::data("d" + std::to_string(i), pattern(4)));
    return mkvelk::build_image(parts);
}

std::string repeat(const std::string& s, int n)
{
    std::string out;
    for (int i = 0; i < n; ++i) out += s;
    return out;
}

std::string list(int n)  // "11,11,...": n numbers
{
    std::string s = "11";
    for (int i = 1; i < n; ++i) s += ",11";
    return s;
}

// A hostconfig image written from the byte tables (file header, parts of
// type 3 with 32-byte headers, CRCs), so images kor never makes can be had.
bytes hostconfig_image(const std::vector<std::pair<std::string, bytes>>& parts)
{
    bytes b(24, 0);
    auto put = [&b](size_t at, uint32_t v) {
        for (int i = 0; i < 4; i++) b[at + i] = uint8_t(v >> 8 * i);
    };
    for (const auto& [name, body] : parts) {
        size_t at = b.size();
        b.resize(at + 32 + ((body.size() + 3) & ~size_t(3)), 0);
        b[at + 4] = 3, b[at + 6] = 32;
        put(at + 8, uint32_t(body.size()));
        std::copy(name.begin(), name.end(), b.begin() + long(at) + 12);
        std::copy(body.begin(), body.end(), b.begin() + long(at) + 32);
        put(at + 28, uint32_t(crc32(0, body.data(), uInt(body.size()))));
        put(at, uint32_t(crc32(0, &b[at + 4], 28)));
    }
    put(0, 0x56454C4B), put(4, 0x4B4C4556), b[12] = 1, b[14] = 16;
    put(16, uint32_t(b.size() - 24));
    put(20, uint32_t(crc32(0, &b[24], uInt(b.size() - 24))));
    put(8, uint32_t(crc32(0, &b[12], 12)));
    return b;
}

bytes with_small_parts(const bytes& kd, int n)  // "KOR data" and n small bodies
{
    std::vector<std::pair<std::string, bytes>> parts = {{"KOR data", kd}};
    for (int i = 0; i < n; ++i) parts.push_back({"x" + std::to_string(i), bytes(4, 1)});
    return hostconfig_image(parts);
}

bytes all_in_one_pool(bytes kd)  // all 22 partition entries name pool KNLS
{
    for (size_t i = 0; i < 22; ++i) {
        std::fill_n(kd.begin() + long(116 + 72 * i), 16, 0);
        std::copy_n("KNLS", 4, kd.begin() + long(116 + 72 * i));
    }
    return hostconfig_image({{"KOR data", kd}});
}

struct Row {
    const char* name;
    std::vector<std::string> args;  // IMG and CFG name the row's image and file
    int status;
    std::string message;  // expected on stderr or stdout; "" for none
    std::function<bytes()> image = nullptr;
    std::function<bytes(const bytes& image)> cfg_file = nullptr;  // from the stored image
    std::function<bytes(const bytes& kd)> stored = nullptr;       // on p3 and p4
    bool default_layout = false;  // info reports the default layout
    std::string env = "";         // NAME=value
    bool primary_only = false;    // `stored` goes on p3 only; p4 keeps the good copy
};

std::string golden_default()
{
    std::ifstream in(std::string(KOR_SOURCE_DIR) + "/tests/golden/info_default.txt");
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// What a refused run must leave as it was.
bytes device_state(const Device& d)
{
    bytes all = d.read(Device::part(3), 0, 8192);
    for (const bytes& b : {d.read(Device::part(3), 0x3FE00, 2), d.read(Device::part(4), 0, 8192)})
        all.insert(all.end(), b.begin(), b.end());
    for (int n : {5, 6, 7, 8, 11, 12, 13, 14, 15, 16, 17, 18}) {
        bytes b = d.read(Device::part(n), 0, 4096);
        all.insert(all.end(), b.begin(), b.end());
    }
    return all;
}

const std::string kLong99(99, 'p'), kLong100(100, 'p');

TEST(BadInput, RefusedClearlyAndNothingWritten)
{
    KOR_SANDBOX_OR_SKIP();
    const std::string pif99 = repeat("pidx,", 18) + "pidxxxxxx", pif100 = pif99 + "x";  // 19 fields
    const std::string widths = "2,KNLS,0,";  // then mount, fstype, platform, version, wts
    const Row rows[] = {
        {"20 words", {"info", repeat("w ", 19)}, 1,
         "Too many words on the command line (at most 19).\n"},
        {"19 words", {"info", repeat("w ", 18)}, 0, ""},
        {"-cfg= of 100 characters", {"info", "-cfg=/" + kLong100.substr(1)}, 1,
         "-cfg value too long (at most 99 characters).\n"},
        {"-cfg= of 99 characters", {"info", "-cfg=/" + kLong99.substr(1)}, 0, "", nullptr,
         nullptr, nullptr, true},
        {"-cfgbak= of 100", {"info", "-cfgbak=" + kLong100}, 1,
         "-cfgbak value too long (at most 99 characters).\n"},
        {"-lockfile= of 100", {"info", "-lockfile=" + kLong100}, 1,
         "-lockfile value too long (at most 99 characters).\n"},
        {"-autosetfile= of 100", {"info", "-autosetfile=" + kLong100}, 1,
         "-autosetfile value too long (at most 99 characters).\n"},
        {"-activesetfile= of 100", {"info", "-activesetfile=" + kLong100}, 1,
         "-activesetfile value too long (at most 99 characters).\n"},
        {"KOR_PRODUCT of 16", {"info"}, 1, "KOR_PRODUCT too long: " + std::string(16, 'm') + "\n",
         nullptr, nullptr, nullptr, false, "KOR_PRODUCT=" + std::string(16, 'm')},
        {"KOR_PLATFORM of 8", {"info"}, 1, "KOR_PLATFORM too long: 12345678\n", nullptr, nullptr,
         nullptr, false, "KOR_PLATFORM=12345678"},
        {"PIF of 100 (getpartset)", {"getpartset", "2", "-pif=" + pif100}, 1,
         "getpartset action: PIF could not parse or too long.\n"},
        {"PIF of 99 (getpartset)", {"getpartset", "2", "-pif=" + pif99}, 0, "11,11,11,11"},
        {"PIF of 100 (getrh)", {"getrh", "2", "-pif=" + pif100}, 1,
         "getpartset action: PIF could not parse or too long.\n"},
        {"21 content parts", {"install", "IMG", "1"}, 9, "velk_stream_parser failed (r=-6).\n",
         [] { return release(kKernel, 18); }},
        {"20 content parts", {"install", "IMG", "1", "-dryrun"}, 0, "",
         [] { return release(kKernel, 17); }},
        {"KORM line of 2000 characters", {"install", "IMG", "1"}, 9,
         "install: korl_parse_kormd failed: 0\n",
         [] { return release(kKernel.substr(0, 22) + std::string(1978, ' ') + "\n"); }},
        {"KORM line of 1999 characters", {"install", "IMG", "1", "-dryrun"}, 0, "",
         [] { return release(kKernel.substr(0, 22) + std::string(1977, ' ') + "\n"); }},
        {"KORM pool name of 18", {"install", "IMG", "1"}, 9, "install: korl_parse_kormd failed: 0\n",
         [] { return release("2," + std::string(18, 'K') + ",0,-,-,-,1.0.1,1\n"); }},
        {"KORM mount point of 32", {"install", "IMG", "1"}, 9,
         "install: korl_parse_kormd failed: 0\n",
         [=] { return release(widths + std::string(32, 'm') + ",-,-,1.0.1,1\n"); }},
        {"KORM mount point of 31", {"install", "IMG", "1", "-dryrun"}, 0, "",
         [=] { return release(widths + std::string(31, 'm') + ",-,-,1.0.1,1\n"); }},
        {"KORM fstype of 10", {"install", "IMG", "1"}, 9, "install: korl_parse_kormd failed: 0\n",
         [=] { return release(widths + "-," + std::string(10, 'f') + ",-,1.0.1,1\n"); }},
        {"KORM fstype of 9", {"install", "IMG", "1", "-dryrun"}, 0, "",
         [=] { return release(widths + "-," + std::string(9, 'f') + ",-,1.0.1,1\n"); }},
        {"KORM platform of 22", {"install", "IMG", "1"}, 9, "install: korl_parse_kormd failed: 0\n",
         [=] { return release(widths + "-,-," + std::string(22, 'p') + ",1.0.1,1\n"); }},
        {"45 KORM elements", {"install", "IMG", "1"}, 9, "install: korl_parse_kormd failed: -1\n",
         [] { return release(repeat(kKernel, 45)); }},
        {"23 kept elements in a plan", {"install", "IMG", "1"}, 2, "install: partinfo korm match\n",
         [] { return release(repeat("-1,KNLS,0,-,-,-,1.0.1,1\n", 23)); }},
        {"22 kept elements in a plan", {"install", "IMG", "1", "-dryrun"}, 0, "",
         [] { return release(repeat("-1,KNLS,0,-,-,-,1.0.1,1\n", 22)); }},
        {"-refs= of 23", {"partset", "1", "SET1", "-refs=" + list(23)}, 1,
         "partset action: -refs= holds more than 22 references.\n"},
        {"-refs= of 22", {"partset", "1", "SET1", "-refs=" + list(22), "-dryrun"}, 0, ""},
        {"hostconfig file of 23 bytes", {"info", "-cfg=CFG"}, 0, "", nullptr,
         [](const bytes& img) { return bytes(img.begin(), img.begin() + 23); }, nullptr, true},
        {"hostconfig file of 5121 bytes", {"info", "-cfg=CFG"}, 0, "", nullptr,
         [](const bytes& img) { bytes b(img.begin(), img.begin() + 5120); b.push_back(0); return b; },
         nullptr, true},
        {"hostconfig file of 5120 bytes", {"info", "-cfg=CFG"}, 0, "1.00 1     11    ACTIVE SET", nullptr,
         [](const bytes& img) { return bytes(img.begin(), img.begin() + 5120); }},
        {"21 parts stored", {"info"}, 0, "", nullptr, nullptr,
         [](const bytes& kd) { return with_small_parts(kd, 20); }, true},
        {"20 parts stored", {"info"}, 0, "1.00 1     11    ACTIVE SET", nullptr, nullptr,
         [](const bytes& kd) { return with_small_parts(kd, 19); }},
        {"short KOR data body", {"info"}, 1, "info action: loading hostcfg failed.\n", nullptr,
         nullptr, [](const bytes& kd) { return hostconfig_image({{"KOR data", bytes(kd.begin(), kd.begin() + 100)}}); }},
        {"short KOR data body, good backup", {"info"}, 0, "1.00 1     11    ACTIVE SET", nullptr, nullptr,
         [](const bytes& kd) { return hostconfig_image({{"KOR data", bytes(kd.begin(), kd.begin() + 100)}}); },
         false, "", true},
        {"22 members in one pool", {"info"}, 0, "korl: pool KNLS is full; partition entry 21 is in no pool\n",
         nullptr, nullptr, all_in_one_pool},
        {"partinfo -pn=256", {"partinfo", "4", "TESTPOOL", "0x100", "-pn=256"}, 1,
         "partinfo action: pn invalid.\n"},
        {"partinfo -pn=255", {"partinfo", "4", "TESTPOOL", "0x100", "-pn=255", "-dryrun"}, 0, ""},
        {"partinfo index 22", {"partinfo", "22"}, 1, "partinfo action: wrong syntax.\n"},
        {"partset index 3", {"partset", "3", "SETX"}, 1, "partset action: wrong syntax.\n"},
    };
    Device d;
    d.with_default_layout(64 << 10);
    std::string first = d.workdir() + "/first.velk";
    bytes img = release(kKernel);
    d.write_file(first, std::string(img.begin(), img.end()));
    ASSERT_EQ(d.kor({"install", first, "2"}).status, 0);
    const bytes good = d.read(Device::part(3), 0, 5120);
    const bytes good_kd(good.begin() + 24 + 32, good.begin() + 24 + 32 + kKorData);
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        d.write(Device::part(3), 0, good);
        d.write(Device::part(4), 0, good);
        if (row.stored) {
            bytes s = row.stored(good_kd);
            s.resize(5120, 0);
            d.write(Device::part(3), 0, s);
            if (!row.primary_only) d.write(Device::part(4), 0, s);
        }
        std::vector<std::string> args;
        for (const std::string& a : row.args) {
            std::string path = d.workdir() + "/row.bin";
            bytes content = a == "IMG" ? row.image() : a == "-cfg=CFG" ? row.cfg_file(good) : bytes{};
            if (a == "IMG" || a == "-cfg=CFG") d.write_file(path, std::string(content.begin(), content.end()));
            std::string word = a == "IMG" ? path : a == "-cfg=CFG" ? "-cfg=" + path : a;
            for (size_t at = 0, next; at < word.size(); at = next + 1) {  // "w w" is two words
                next = word.find(' ', at);
                if (next == std::string::npos) next = word.size();
                args.push_back(word.substr(at, next - at));
            }
        }
        RunOptions o;
        if (!row.env.empty()) o.set(row.env.substr(0, row.env.find('=')), row.env.substr(row.env.find('=') + 1));
        bytes before = device_state(d);
        RunResult r = d.kor(args, o);
        EXPECT_EQ(r.status, row.status) << r.err << r.out.substr(0, 400);
        EXPECT_NE((r.err + r.out).find(row.message), std::string::npos) << r.err << r.out.substr(0, 400);
        EXPECT_TRUE(device_state(d) == before) << "device written";
        EXPECT_FALSE(d.exists("/tmp/kor.lock")) << "lock file left";
        if (row.default_layout) {
            EXPECT_EQ(r.out, golden_default());
        }
    }
}

}  // namespace
