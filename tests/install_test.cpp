// The install action through the command line, on a sandboxed device:
// exit statuses and messages, the bytes each write type leaves on the
// partition, the recorded metadata, write failures and the hooks.
#include <gtest/gtest.h>

#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "mkvelk.h"
#include "support/sandbox.h"

using sandbox::bytes;
using sandbox::Device;
using sandbox::RunResult;

namespace {

const std::string kKorm = "2,KNLS,0,-,-,-,1.0.1,1\n3,ROOTS,0,-,-,-,1.0.1,1\n";

bytes pattern(size_t n, uint8_t seed)
{
    bytes b(n);
    for (size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>(seed + i * 7);
    return b;
}

// Release header, "korm", kernel (1001 bytes, not a multiple of 4), root.
std::vector<mkvelk::part> parts(const std::string& korm, bool kernel_as_data = false)
{
    bytes kernel = pattern(1001, 1);
    return {mkvelk::release_header(1, 0, 1, 0, "b1", "products=dev1\n"), mkvelk::korm(korm),
            kernel_as_data ? mkvelk::data("kernel", kernel)
                           : mkvelk::software("kernel", 1, 0, 1, "k1", kernel),
            mkvelk::software("root", 1, 0, 1, "r1", pattern(3001, 2))};
}

std::string put(Device& d, const bytes& img)
{
    d.write_file(d.workdir() + "/img.velk", std::string(img.begin(), img.end()));
    return d.workdir() + "/img.velk";
}

// kor install PATH, then the given words.
RunResult install(Device& d, const std::string& path, std::vector<std::string> args,
                  const std::string& first = "")
{
    if (!first.empty()) args.insert(args.begin(), first);
    args.insert(args.begin(), {"install", path});
    return d.kor(args);
}

// The "KOR data" body of the hostconfig on p3, found by walking the VELK
// layout (identification, 16-byte file header, content parts).
bytes kor_data(const Device& d)
{
    bytes img = d.read(Device::part(3), 0, 5120);
    auto u16 = [&](size_t o) { return uint32_t(img[o] | img[o + 1] << 8); };
    auto u32 = [&](size_t o) { return u16(o) | u16(o + 2) << 16; };
    size_t end = 8 + u16(14) + u32(16);
    for (size_t pos = 8 + u16(14); pos + 32 <= end && end <= img.size();) {
        size_t body = pos + u16(pos + 6);
        if (std::strncmp(reinterpret_cast<const char*>(&img[pos + 12]), "KOR data", 16) == 0)
            return bytes(img.begin() + body, img.begin() + body + 3240);
        pos = body + ((u32(pos + 8) + 3) & ~3u);
    }
    return {};
}
int actset(const bytes& kd) { return kd.empty() ? -1 : kd[0]; }
int ref(const bytes& kd, int set, int i) { return int8_t(kd[1 + 38 * set + 16 + i]); }
uint32_t meta_crc(const bytes& kd, int p)  // body_crc of pinfometa p
{
    return kd[1860 + 64 * p] | kd[1861 + 64 * p] << 8 | kd[1862 + 64 * p] << 16 |
           uint32_t(kd[1863 + 64 * p]) << 24;
}

// The kernel part's header in the image (part 2).
bytes kernel_header(const bytes& img)
{
    size_t pos = 24;
    for (int k = 0; k < 2; ++k)
        pos += (img[pos + 6] | img[pos + 7] << 8) + (((img[pos + 8] | img[pos + 9] << 8) + 3) & ~3);
    return bytes(img.begin() + pos, img.begin() + pos + (img[pos + 6] | img[pos + 7] << 8));
}

struct StatusRow {
    const char* name;
    std::vector<std::string> args;  // after "install IMG"
    std::string korm;
    int image;  // 0 normal, 1 kernel as a data part, 2 truncated, 3 empty, 4 missing
    int status;
    const char* message;  // a line expected on stderr
    int actset = 1;       // recorded afterwards; -1: hostconfig not saved
};

const StatusRow status_rows[] = {
    {"installs", {"1"}, kKorm, 0, 0, "install: release 1.0-1, 'products=dev1\n"},
    {"missing set idx", {}, kKorm, 0, 1, "install: missing set idx?\n"},
    {"set idx 3", {"3"}, kKorm, 0, 1, "install: invalid set idx?\n"},
    {"set idx -2", {"-2"}, kKorm, 0, 1, "install: invalid set idx?\n"},
    {"set idx 0x2", {"0x2"}, kKorm, 0, 0, "into set idx = 2\n", 2},
    {"no file", {"1"}, kKorm, 4, 8, "install: could not open VELK\n"},
    {"empty file", {"1"}, kKorm, 3, 9, "install: empty VELK\n"},
    {"file too big", {"1", "-velksize=1000"}, kKorm, 0, 9, "install: VELK too big\n"},
    {"truncated", {"1"}, kKorm, 2, 9, "install: incomplete VELK\n"},
    {"singleton without -f", {"1"}, "2,SAFEKNLS,0,-,-,-,1.0.1,1\n", 0, 9,
     "install: Can't install into singleton partitions without -f\n"},
    {"singleton with -f", {"1", "-f"}, "2,SAFEKNLS,0,-,-,-,1.0.1,1\n", 0, 0, ""},
    {"no such pool", {"1"}, "2,NOPOOL,0,-,-,-,1.0.1,1\n", 0, 9,
     "install: korl_meta_install_part1 failed: -4\n"},
    {"missing dependency", {"1"}, "-1,KNLS,0,-,-,-,1.0.1,1\n", 0, 9,
     "install: korl_meta_install_part1 failed: -2\n"},
    {"no element", {"1"}, "# nothing\n", 0, 9, "install: korl_parse_kormd failed: 0\n"},
    {"undecided element", {"1"}, "2,KNLS,0,-,-,-,1.-2.0,1\n", 1, 2,
     "install: partinfo korm match\n"},
    {"product mismatch", {"1", "-product=other"}, kKorm, 0, 6,
     "install: Release header does not contain model 'other'\n"},
    {"product mismatch with -f", {"1", "-product=other", "-f"}, kKorm, 0, 0, ""},
    {"product matches", {"1", "-product=dev1"}, kKorm, 0, 0, ""},
    {"minver above", {"1", "-minver=1.0.2", "-f"}, kKorm, 0, 7,
     "install: Version in release header lower than 1.0-2\n"},
    {"minver equal", {"1", "-minver=1.0.1"}, kKorm, 0, 0, ""},
    {"verbose plan lines", {"1", "-v"}, kKorm, 0, 0,
     "1: name=root action=1 velk_cidx=3 partinfo_idx=13 wts=1\n"
     "2: name=release action=0 velk_cidx=0 partinfo_idx=0 wts=0\n"},
};

TEST(Install, StatusesAndMessages)
{
    KOR_SANDBOX_OR_SKIP();
    for (const StatusRow& row : status_rows) {
        SCOPED_TRACE(row.name);
        Device d;
        d.with_default_layout();
        bytes img = mkvelk::build_image(parts(row.korm, row.image == 1));
        if (row.image == 2) img.resize(img.size() - 4);
        if (row.image == 3) img.clear();
        std::string path = row.image == 4 ? d.workdir() + "/none" : put(d, img);
        RunResult r = install(d, path, row.args);
        EXPECT_EQ(r.status, row.status) << r.err;
        EXPECT_NE(r.err.find(row.message), std::string::npos) << r.err;
        EXPECT_EQ(actset(kor_data(d)), row.status == 0 ? row.actset : -1);
    }
}

TEST(Install, WriteTypesLayOutThePartition)
{
    KOR_SANDBOX_OR_SKIP();
    for (int wts = 1; wts <= 3; ++wts) {
        SCOPED_TRACE(wts);
        Device d;
        d.with_default_layout();
        std::string korm = "2,KNLS,0,-,-,-,1.0.1," + std::to_string(wts) + "\n";
        bytes img = mkvelk::build_image(parts(korm));
        RunResult r = d.kor({"install", put(d, img), "1"});
        ASSERT_EQ(r.status, 0) << r.err;
        bytes header = kernel_header(img), body = pattern(1001, 1);
        bytes expect = wts == 2 ? header : body;
        const bytes& second = wts == 2 ? body : header;
        if (wts == 3) expect.resize((body.size() + 3) & ~size_t{3}, 0);
        if (wts != 1) expect.insert(expect.end(), second.begin(), second.end());
        expect.push_back(0);  // nothing written behind
        EXPECT_EQ(d.read(Device::part(11), 0, expect.size()), expect);
        bytes kd = kor_data(d);
        EXPECT_EQ(ref(kd, 1, 0), 11);
        EXPECT_EQ(ref(kd, 1, 1), -1);
        EXPECT_NE(meta_crc(kd, 11), 0u);
    }
}

// Partitions of the default layout, one of them of another size.
void layout(Device& d, int odd_pn, uint64_t odd_size)
{
    for (int pn : {3, 4, 5, 6, 7, 8, 11, 12, 13, 14, 15, 16, 17, 18}) {
        uint64_t size = pn <= 4 ? sandbox::kHostconfigPartSize : 4 << 20;
        d.add_partition(pn, pn == odd_pn ? odd_size : size);
    }
}

struct OptionRow {
    std::vector<std::string> args;
    int status;
    bool written;           // p11 holds the kernel
    int actset;             // -1: hostconfig not saved
    std::string activeset;  // afterwards; "2" was there before
    uint8_t set1_flags;
};

TEST(Install, OptionsChangeWhatIsWrittenAndRecorded)
{
    KOR_SANDBOX_OR_SKIP();
    const OptionRow rows[] = {
        {{}, 0, true, 1, "", 0},
        {{"-dryrun"}, 0, false, -1, "2", 0},
        {{"-onlymeta"}, 0, false, 1, "", 0},
        {{"-noactivate"}, 0, true, 0, "1", 0},
        {{"-test"}, 0, true, 1, "", 1},
        {{"-noactivate", "-test"}, 1, true, 0, "1", 0},  // set 0 has no test mode
    };
    for (const OptionRow& row : rows) {
        SCOPED_TRACE(row.args.empty() ? "plain" : row.args.back());
        Device d;
        d.with_default_layout();
        d.write_file("/tmp/kor.activeset", "2");
        bytes img = mkvelk::build_image(parts(kKorm));
        RunResult r = install(d, put(d, img), row.args, "1");
        EXPECT_EQ(r.status, row.status) << r.err;
        bytes body = pattern(1001, 1);  // the kernel
        EXPECT_EQ(d.read(Device::part(11), 0, body.size()) == body, row.written);
        EXPECT_EQ(r.out.find("Writing out 1001 bytes of data to /dev/mmcblk0p11\n") !=
                      std::string::npos,
                  row.written);
        EXPECT_EQ(actset(kor_data(d)), row.actset);
        EXPECT_EQ(d.exists("/tmp/kor.activeset") ? d.read_file("/tmp/kor.activeset") : "",
                  row.activeset);
        EXPECT_EQ(d.read(Device::part(3), 0x3FE00, 1)[0], row.set1_flags);
        EXPECT_EQ(r.log_text().find("install: entering critical region") == std::string::npos,
                  row.args == std::vector<std::string>{"-dryrun"});
    }
}

TEST(Install, AutomaticChoiceIsClaimedOnce)
{
    KOR_SANDBOX_OR_SKIP();
    Device d;
    d.with_default_layout();
    std::string img = put(d, mkvelk::build_image(parts(kKorm)));
    RunResult r = d.kor({"install", img, "-1"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.err.find("into autodetected set idx = 1\n"), std::string::npos);
    EXPECT_EQ(d.read_file("/tmp/kor.autoset"), std::string(1, '\0'));
    r = d.kor({"install", img, "-1", "-dryrun"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.err.find("into autodetected set idx = 2\n"), std::string::npos);
    r = d.kor({"install", img, "-1"});
    EXPECT_EQ(r.status, 5);
    EXPECT_NE(r.err.find("Autodetected set installation has already been tried by KOR with or "
                         "without success.\n"),
              std::string::npos);
}

struct KeptRow {
    const char* name;
    std::string korm;
    std::string set;
    std::vector<std::string> args;
    int status;
    std::vector<std::string> messages;
    int kernel_in;  // partition holding the kernel afterwards, 0 none
};

// Set 1 holds the kernel in p11 and the root in p13; p11 is then damaged.
TEST(Install, KeptPartitionsAreChecked)
{
    KOR_SANDBOX_OR_SKIP();
    const std::string any_knls = ",KNLS,0,-,-,-,-1.-1.-1,1\n3,ROOTS,0,-,-,-,1.0.1,1\n";
    const KeptRow rows[] = {
        {"partial image", "-1" + any_knls, "1", {}, 14,
         {"Handling partial VELK\n",
          "CRC32 validation of partition 11 failed. Only fixable with a non-partial VELK.\n"},
         0},
        {"rewritten in place", "2" + any_knls, "1", {}, 0,
         {"CRC32 validation for partition 11 failed marking it for reinstall\n"}, 11},
        {"shared, replaced", "2" + any_knls, "2", {}, 0,
         {"Other sets also refer to partition 11.\n", "Use free partition 15 instead\n"}, 15},
        {"-rewrite", kKorm, "1", {"-rewrite"}, 0, {"Mark partition 13 for rewrite\n"}, 0},
    };
    for (const KeptRow& row : rows) {
        SCOPED_TRACE(row.name);
        Device d;
        d.with_default_layout();
        bytes first = mkvelk::build_image(parts(kKorm));
        ASSERT_EQ(d.kor({"install", put(d, first), "1"}).status, 0);
        d.write(Device::part(11), 0, bytes(16, 0xEE));
        RunResult r = install(d, put(d, mkvelk::build_image(parts(row.korm))), row.args, row.set);
        EXPECT_EQ(r.status, row.status) << r.err;
        for (const std::string& m : row.messages)
            EXPECT_NE(r.err.find(m), std::string::npos) << m << r.err;
        bytes body = pattern(1001, 1);
        if (row.kernel_in) {
            EXPECT_EQ(d.read(Device::part(row.kernel_in), 0, body.size()), body);
        }
        if (row.kernel_in == 15) {
            EXPECT_EQ(ref(kor_data(d), 2, 0), 15);
        }
    }
}

struct FailRow {
    const char* name;
    int small_pn;
    uint64_t small_size;
    std::string korm;
    std::vector<std::string> args;
    int status;
    std::string message;
};

TEST(Install, FailedWritesAreRecorded)
{
    KOR_SANDBOX_OR_SKIP();
    const FailRow rows[] = {
        {"singleton", 5, 512, "2,SAFEKNLS,0,-,-,-,1.0.1,1\n", {"1", "-f"}, 11,
         "KOR_EXIT_FATAL_ERR_SINGLETON_WRITE"},
        {"multi pool", 11, 512, kKorm, {"1"}, 1, "FAILED TO INSTALL kernel INTO 11\n"},
        {"multi pool, automatic", 11, 512, kKorm, {"-1"}, 1, "Could not fwrite to"},
        {"hostconfig", 3, 2048, kKorm, {"1"}, 10, "KOR_EXIT_FATAL_ERR_HOSTCONFIG_WRITE\n"},
    };
    for (const FailRow& row : rows) {
        SCOPED_TRACE(row.name);
        Device d;
        layout(d, row.small_pn, row.small_size);
        RunResult r = install(d, put(d, mkvelk::build_image(parts(row.korm))), row.args);
        EXPECT_EQ(r.status, row.status) << r.err;
        EXPECT_NE(r.err.find(row.message), std::string::npos) << r.err;
        EXPECT_FALSE(d.exists("/tmp/kor.autoset"));
        if (row.small_pn == 3) continue;
        bytes kd = kor_data(d);
        ASSERT_FALSE(kd.empty()) << "hostconfig saved after the failed write";
        EXPECT_EQ(actset(kd), 0);
        EXPECT_EQ(meta_crc(kd, row.small_pn), 0u);
    }
}

struct HookRow {
    const char* env;  // KOR_TEST_HOOK_<env>=value
    int value;
    int status;
    std::string calls;  // hook calls after the data hooks, one per line
    bool saved;
};

TEST(Install, HooksAreCalledAtTheirSteps)
{
    KOR_SANDBOX_OR_SKIP();
    const std::string all = "pre_metainstall 1\npre_install 1\npost_write_out 1\n";
    const HookRow rows[] = {
        {"NONE", 0, 0, all + "post_activate 1\n", true},
        {"PRE_METAINSTALL", 3, 3, "pre_metainstall 1\n", false},
        {"PRE_INSTALL", 4, 4, "pre_metainstall 1\npre_install 1\n", false},
        {"POST_WRITE_OUT", 5, 5, all + "on_failure 1 5\n", false},
        {"POST_ACTIVATE", 6, 6, all + "post_activate 1\non_failure 1 6\n", true},
        {"DATA_RCVD", 7, 9, "", false},
    };
    for (const HookRow& row : rows) {
        SCOPED_TRACE(row.env);
        Device d;
        d.with_default_layout();
        std::string log = d.workdir() + "/hooks.log";
        sandbox::RunOptions o;
        o.env = {{"KOR_TEST_HOOK_LOG", log},
                 {std::string("KOR_TEST_HOOK_") + row.env, std::to_string(row.value)}};
        RunResult r = d.kor({"install", put(d, mkvelk::build_image(parts(kKorm))), "1",
                             "-plugin=" + d.stage(KOR_PLUGIN_test_plugin)},
                            o);
        EXPECT_EQ(r.status, row.status) << r.err;
        std::string calls, line, text = d.read_file(log);
        for (std::istringstream in(text); std::getline(in, line);)
            if (line.find("data_rcvd") == std::string::npos) calls += line.substr(17) + "\n";
        EXPECT_EQ(calls, row.calls);
        EXPECT_EQ(text.rfind("kor_install_hook_data_rcvd", 0), 0u);
        EXPECT_EQ(actset(kor_data(d)), row.saved ? 1 : -1);
    }
}

}  // namespace
