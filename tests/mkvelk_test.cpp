// Images made by the mkvelk library and tool, judged by an independent
// decoder written from the byte tables and by kor's own validation and parser.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "mkvelk.h"
#include "velk/velk.h"
#include "velk/velk_stream_parser.h"

namespace {

using mkvelk::bytes;

uint32_t rd16(const bytes& b, size_t at) { return b[at] | b[at + 1] << 8; }
uint32_t rd32(const bytes& b, size_t at) { return rd16(b, at) | rd16(b, at + 2) << 16; }

struct decoded {
    size_t at;
    uint32_t type, hdr_len, body_len;
    std::string name;
    std::string text(const bytes& img) const  // body as text
    {
        return std::string(img.begin() + long(at + hdr_len), img.begin() + long(at + hdr_len + body_len));
    }
};

// Walks the image by offsets alone; every part must pass kor's checks and
// every padding byte must be zero.
std::vector<decoded> decode(const bytes& img)
{
    std::vector<decoded> parts;
    EXPECT_GE(img.size(), 24u);
    if (img.size() < 24) return parts;
    EXPECT_EQ(std::string(img.begin(), img.begin() + 8), "KLEVVELK");
    EXPECT_EQ(velk_validate_identification(img.data()), VELK_OK);
    const auto* h = reinterpret_cast<const velk_header*>(img.data() + 8);
    EXPECT_EQ(velk_validate_header(h), VELK_OK);
    EXPECT_EQ(velk_validate_body_from_hdr(h), VELK_OK);
    EXPECT_EQ(img[12], 1);
    EXPECT_EQ(rd16(img, 14), 16u);
    EXPECT_EQ(24u + rd32(img, 16), img.size());
    size_t at = 24;
    while (at + 32 <= img.size()) {
        decoded p{at, rd16(img, at + 4), rd16(img, at + 6), rd32(img, at + 8),
                  std::string(reinterpret_cast<const char*>(&img[at + 12]), strnlen(reinterpret_cast<const char*>(&img[at + 12]), 16))};
        EXPECT_EQ(velk_validate_content_part_from_hdr(reinterpret_cast<const velk_content_header*>(&img[at])), VELK_OK) << p.name;
        EXPECT_EQ(p.hdr_len % 4, 0u) << p.name;
        const size_t next = at + p.hdr_len + ((p.body_len + 3) & ~3u);
        for (size_t i = at + p.hdr_len + p.body_len; i < next && i < img.size(); ++i) EXPECT_EQ(img[i], 0) << p.name;
        parts.push_back(p);
        at = next;
    }
    EXPECT_EQ(at, img.size());
    return parts;
}

// kor's stream parser over the whole image in one piece.
void expect_parser_accepts(bytes img, size_t parts)
{
    velk_stream_parser p;
    velk_stream_parser_init(&p, img.data());
    ASSERT_EQ(velk_stream_parser_hdr(&p, 24), 1);
    EXPECT_EQ(velk_stream_parser_next(&p, uint32_t(img.size() - 24)), VELK_SP_COMPLETE);
    EXPECT_EQ(velk_stream_parser_get_status(&p), 3);
    EXPECT_EQ(velk_stream_parser_get_found_content_parts(&p), int(parts));
    EXPECT_EQ(velk_stream_parser_get_valid_content_parts(&p), int(parts));
}

bytes filled(size_t n, uint8_t v) { return bytes(n, v); }

TEST(MkvelkLibrary, ReleaseImageLayout)
{
    const std::string korm = "2,ROOTS,0,/,squashfs,-,2.1.37,1\n";
    const bytes img = mkvelk::build_image({
        mkvelk::release_header(2, 1, 37, 1700000000, "b42", "products=a,b\n"),
        mkvelk::korm(korm),
        mkvelk::software("rootfs", 2, 1, 0x1234, "g1234567", filled(5, 0xAB)),
        mkvelk::data("cfg", {}),
        mkvelk::signature("sig", 9, filled(3, 0xCD)),
    });
    const auto p = decode(img);
    ASSERT_EQ(p.size(), 5u);
    const uint32_t types[] = {1, 2, 4, 3, 7}, hdrs[] = {76, 32, 48, 32, 36}, bodies[] = {14, 33, 5, 0, 3};
    const char* names[] = {"release", "korm", "rootfs", "cfg", "sig"};
    for (size_t i = 0; i < 5; ++i) {
        EXPECT_EQ(p[i].type, types[i]) << i;
        EXPECT_EQ(p[i].hdr_len, hdrs[i]) << i;
        EXPECT_EQ(p[i].body_len, bodies[i]) << i;
        EXPECT_EQ(p[i].name, names[i]) << i;
    }
    const size_t r = p[0].at, s = p[2].at;
    EXPECT_EQ(img[r + 32], 2);
    EXPECT_EQ(img[r + 33], 1);
    EXPECT_EQ(rd16(img, r + 34), 37u);
    EXPECT_EQ(rd32(img, r + 36), 1700000000u);
    EXPECT_STREQ(reinterpret_cast<const char*>(&img[r + 40]), "b42");
    EXPECT_EQ(p[0].text(img), std::string("products=a,b\n") + '\0');
    EXPECT_EQ(p[1].text(img), korm + '\0');
    EXPECT_EQ(rd32(img, s + 32), 0x12340102u);
    EXPECT_STREQ(reinterpret_cast<const char*>(&img[s + 36]), "g1234567");
    EXPECT_EQ(img[p[4].at + 32], 9);
    expect_parser_accepts(img, 5);
}

TEST(MkvelkLibrary, PaddingPutsEveryPartOnAWordBoundary)
{
    const size_t sizes[] = {0, 1, 2, 3, 4, 5, 8};
    std::vector<mkvelk::part> parts;
    for (size_t n : sizes) parts.push_back(mkvelk::data("d" + std::to_string(n), filled(n, 0xFF)));
    const auto p = decode(mkvelk::build_image(parts));
    ASSERT_EQ(p.size(), 7u);
    const size_t step[] = {0, 4, 4, 4, 4, 8, 8};  // padded body of each size
    for (size_t i = 0; i + 1 < p.size(); ++i) EXPECT_EQ(p[i + 1].at - p[i].at, 32 + step[i]) << sizes[i];
}

TEST(MkvelkLibrary, SoftwareHeaderGrowsWithBuildIdUpTo64)
{
    const struct { size_t id_len; size_t hdr; } rows[] = {{0, 40}, {3, 40}, {4, 44}, {27, 64}, {28, 0}};
    for (const auto& row : rows) {
        const auto sw = mkvelk::software("s", 1, 2, 3, std::string(row.id_len, 'x'), {});
        const bytes img = mkvelk::build_image({sw});
        if (row.hdr == 0) {
            EXPECT_TRUE(img.empty()) << row.id_len;
            EXPECT_NE(mkvelk::part_problem(sw), nullptr);
        } else {
            ASSERT_EQ(decode(img).size(), 1u);
            EXPECT_EQ(rd16(img, 24 + 6), row.hdr) << row.id_len;
        }
    }
}

TEST(MkvelkLibrary, NamesFillTheFieldOrAreRefused)
{
    const bytes img = mkvelk::build_image({mkvelk::data("0123456789abcdef", {})});
    ASSERT_EQ(decode(img).size(), 1u);
    EXPECT_EQ(std::string(img.begin() + 36, img.begin() + 52), "0123456789abcdef");
    EXPECT_EQ(rd32(img, 52), 0u);  // body_crc of the empty body follows directly
    EXPECT_TRUE(mkvelk::build_image({mkvelk::data("0123456789abcdefg", {})}).empty());
    mkvelk::part odd = mkvelk::data("x", {});
    odd.header_extra = {1, 2, 3};
    EXPECT_TRUE(mkvelk::build_image({odd}).empty());
}

// --- the tool ---

struct tool_result {
    int status;
    std::string out, err;
};

class MkvelkTool : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::string tmpl = std::string(KOR_BUILD_DIR) + "/mkvelk_test.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl.data()), nullptr);
        dir_ = tmpl;
        put("root.img", "rootfs!");
        put("k.img", "kernel");
        put("s.bin", "sig");
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }

    std::string path(const std::string& name) const { return dir_ + "/" + name; }
    void put(const std::string& name, const std::string& text) const
    {
        std::ofstream(path(name), std::ios::binary) << text;
    }
    std::string get(const std::string& name) const
    {
        std::ifstream f(path(name), std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(f), {});
    }

    tool_result run(const std::vector<std::string>& args) const
    {
        const pid_t pid = fork();
        if (pid == 0) {
            if (chdir(dir_.c_str()) != 0) _exit(127);
            dup2(open("stdout", O_WRONLY | O_CREAT | O_TRUNC, 0644), 1);
            dup2(open("stderr", O_WRONLY | O_CREAT | O_TRUNC, 0644), 2);
            // A cross build runs mkvelk through KOR_TEST_EMULATOR ("qemu-arm -L ...").
            std::vector<std::string> words;
            const char* emu = std::getenv("KOR_TEST_EMULATOR");
            std::istringstream ws(emu ? emu : "");
            for (std::string w; ws >> w;) words.push_back(w);
            words.push_back(MKVELK_BINARY);
            words.insert(words.end(), args.begin(), args.end());
            std::vector<char*> argv;
            for (auto& w : words) argv.push_back(const_cast<char*>(w.c_str()));
            argv.push_back(nullptr);
            execvp(argv[0], argv.data());
            _exit(127);
        }
        int ws = 0;
        waitpid(pid, &ws, 0);
        return {WIFEXITED(ws) ? WEXITSTATUS(ws) : 128 + WTERMSIG(ws), get("stdout"), get("stderr")};
    }
    bytes image(const std::string& name) const
    {
        const std::string s = get(name);
        return bytes(s.begin(), s.end());
    }

    std::string dir_;
};

const std::vector<std::string> kRelease = {"-o", "out.velk", "--version", "2.1.37", "--date",
                                           "1700000000", "--build-id", "b42", "--products", "a,b"};

std::vector<std::string> with(std::vector<std::string> args)
{
    args.insert(args.begin(), kRelease.begin(), kRelease.end());
    return args;
}

TEST_F(MkvelkTool, GeneratesTheDescriptorInPartOrder)
{
    const auto r = run(with({"--info", "channel=beta", "--software", "rootfs:2.1.37:root.img:ROOTS:/:squashfs",
                             "--data", "cfg:k.img", "--software", "kernel:2.1.10+g1:k.img:KNLS::::2",
                             "--signature", "sig:1:s.bin"}));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    const bytes img = image("out.velk");
    EXPECT_EQ(r.out, "out.velk: " + std::to_string(img.size()) + " bytes, 6 content parts\n");
    const auto p = decode(img);
    ASSERT_EQ(p.size(), 6u);
    const char* names[] = {"release", "korm", "rootfs", "cfg", "kernel", "sig"};
    const uint32_t types[] = {1, 2, 4, 3, 4, 7};
    for (size_t i = 0; i < 6; ++i) {
        EXPECT_EQ(p[i].name, names[i]);
        EXPECT_EQ(p[i].type, types[i]);
    }
    EXPECT_EQ(p[0].text(img), std::string("products=a,b\nchannel=beta\n") + '\0');
    EXPECT_EQ(p[1].text(img), std::string("2,ROOTS,0,/,squashfs,-,2.1.37,1\n4,KNLS,0,-,-,-,2.1.10,2\n") + '\0');
    EXPECT_EQ(p[2].text(img), "rootfs!");
    EXPECT_STREQ(reinterpret_cast<const char*>(&img[p[2].at + 36]), "b42");  // the release's build id
    EXPECT_STREQ(reinterpret_cast<const char*>(&img[p[4].at + 36]), "g1");
    EXPECT_EQ(rd32(img, p[4].at + 32), 0x000A0102u);
    expect_parser_accepts(img, 6);
}

TEST_F(MkvelkTool, TakesAGivenDescriptorAsItStands)
{
    const std::string korm = "# partial release\n-1,APPLS,0,-,-,-,-1.-1.-1,1\n2,ROOTS,0,/,squashfs,-,0x02010025,1\n";
    put("release.korm", korm);
    const auto r = run(with({"--korm", "release.korm", "--software", "rootfs:2.1.37:root.img"}));
    ASSERT_EQ(r.status, 0) << r.err;
    const bytes img = image("out.velk");
    const auto p = decode(img);
    ASSERT_EQ(p.size(), 3u);
    EXPECT_EQ(p[1].text(img), korm + '\0');
}

TEST_F(MkvelkTool, HelpGoesToStdout)
{
    const auto r = run({"--help"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out.rfind("Usage: mkvelk", 0), 0u);
}

TEST_F(MkvelkTool, RefusesWhatKorCouldNotUse)
{
    std::string many;
    for (int i = 0; i < 45; ++i) many += "-1,P,0,-,-,-,1.2.3,1\n";
    put("many.korm", many);
    put("bad.korm", "2,ROOTS,,/,squashfs,-,1.2.3,1\n");
    put("range.korm", "3,ROOTS,0,/,squashfs,-,1.2.3,1\n");
    put("order.korm", "3,A,0,-,-,-,1.2.3,1\n2,B,0,-,-,-,1.2.3,1\n");
    put("empty.korm", "# nothing\n");
    std::vector<std::string> nineteen;
    for (int i = 0; i < 19; ++i) nineteen.insert(nineteen.end(), {"--data", "d" + std::to_string(i) + ":k.img"});
    nineteen.insert(nineteen.end(), {"--software", "s:1.2.3:k.img"});
    const std::string sw = "s:1.2.3:k.img";
    const struct { std::vector<std::string> args; const char* message; } rows[] = {
        {{}, "Usage: mkvelk"},
        {{"--bogus"}, "unknown argument"},
        {{"--version", "1.2.3", "--products", "a", "--software", sw}, "missing -o"},
        {{"-o", "x", "--products", "a", "--software", sw}, "missing --version"},
        {{"-o", "x", "--version", "1.2.3", "--software", sw}, "missing --products"},
        {{"-o", "x", "--version", "1.2"}, "--version wants"},
        {{"-o", "x", "--version", "256.0.0"}, "--version wants"},
        {{"-o", "x", "--version", "1.2.3", "--date", "-5"}, "--date wants"},
        {{"-o"}, "missing value"},
        {with({"--products", "0123456789abcdef", "--software", sw}), "product '0123456789abcdef'"},
        {with({"--products", "a,,b", "--software", sw}), "product ''"},
        {with({"--build-id", std::string(36, 'b'), "--software", sw}), "--build-id"},
        {with({"--info", "novalue", "--software", sw}), "KEY=VALUE"},
        {with({"--info", "products=c", "--software", sw}), "use --products"},
        {with({"--software", "0123456789abcdefg:1.2.3:k.img"}), "name longer than 16 characters"},
        {with({"--software", "s:1.2.3+" + std::string(28, 'x') + ":k.img"}), "header of 68 bytes is over 64"},
        {with({"--software", "s:1.2:k.img"}), "VERSION wants"},
        {with({"--software", "s:1.2.3:k.img:P:::-:4"}), "WTS wants"},
        {with({"--software", "s:1.2.3:k.img:0123456789abcdef"}), "POOL '0123456789abcdef'"},
        {with({"--software", "s:1.2.3:k.img:P:/a,b"}), "contains a comma"},
        {with({"--software", "korm:1.2.3:k.img"}), "kept for the KORM"},
        {with({"--software", "s:1.2.3:missing.img"}), "cannot open 'missing.img'"},
        {with({"--data", "d:k.img"}), "nothing to install"},
        {with({"--data", "d"}), "--data wants"},
        {with({"--signature", "g:256:s.bin", "--software", sw}), "--signature wants"},
        {with(nineteen), "too many content parts"},
        {with({"--korm", "many.korm", "--software", sw}), "more than 44 lines"},
        {with({"--korm", "bad.korm", "--software", sw}), "1 line(s) of wrong syntax"},
        {with({"--korm", "range.korm", "--software", sw}), "KORM line 1: content index 3"},
        {with({"--korm", "order.korm", "--software", sw, "--software", sw}), "KORM line 2: content index 2"},
        {with({"--korm", "empty.korm", "--software", sw}), "no install line"},
        {with({"--korm", "bad.korm", "--software", "s:1.2.3:k.img:ROOTS"}), "not used with --korm"},
    };
    for (const auto& row : rows) {
        const auto r = run(row.args);
        EXPECT_EQ(r.status, 1) << row.message;
        EXPECT_NE(r.err.find(row.message), std::string::npos) << "wanted: " << row.message << "\ngot: " << r.err;
        EXPECT_FALSE(std::filesystem::exists(path("out.velk"))) << row.message;
    }
}

}  // namespace
