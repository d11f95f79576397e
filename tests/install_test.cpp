// The install action through the command line, on a sandboxed device: statuses, messages, the plan,
// the bytes each write type leaves on the partition, the recorded metadata, write failures, hooks.
#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <sstream>
#include <string>
#include <vector>

#include "mkvelk.h"
#include "support/hostconfig_decoder.h"
#include "support/sandbox.h"

using sandbox::bytes, sandbox::Device;

namespace {

const std::string kKorm = "2,KNLS,0,-,-,-,1.0.1,1\n3,ROOTS,0,-,-,-,1.0.1,1\n",
                  kKorm2 = "2,KNLS,0,-,-,-,1.0.2,1\n3,ROOTS,0,-,-,-,1.0.2,1\n";

const bytes kKernel = [] { bytes b(1001); std::iota(b.begin(), b.end(), uint8_t(1)); return b; }();  // not 4n

// Release header, "korm", kernel and root (versions 1.0.`build`).
std::string put(Device& d, const std::string& korm, bool kernel_as_data = false, uint16_t build = 1)
{
    bytes img = mkvelk::build_image(
        {mkvelk::release_header(1, 0, 1, 0, "b1", "products=dev1\n"), mkvelk::korm(korm),
         kernel_as_data ? mkvelk::data("kernel", kKernel) : mkvelk::software("kernel", 1, 0, build, "k1", kKernel),
         mkvelk::software("root", 1, 0, build, "r1", bytes(3001, 2))});
    d.write_file(d.workdir() + "/img.velk", std::string(img.begin(), img.end()));
    return d.workdir() + "/img.velk";
}

// The stored "KOR data" of p3 as the independent decoder lists it; "" when nothing was saved.
std::string kor_data(const Device& d)
{
    hcdec::Image img;
    if (!hcdec::decode_image(d.read(Device::part(3), 0, 5120), &img)) return "";
    for (const hcdec::Part& p : img.parts)
        if (p.name == "KOR data") return "\n" + hcdec::decode_kor_data(p.body);
    return "";
}

struct Row {
    const char* name;
    std::vector<std::string> args;  // after "install IMG"
    std::string korm;
    // preS (install into set S first, versions 1.0.S), bad11 (then damage p11), smallN (pN too small),
    std::string setup;  // data/trunc/empty/none (the image), KOR_TEST_HOOK_X=N (test plugin)
    int status;
    // Texts in stderr or, so prefixed, in stdout, syslog, kor_data, the state line or the hook calls
    std::vector<std::string> expect;  // (data_rcvd once when first); "!": absent.
};

const std::string kAnyKnls = ",KNLS,0,-,-,-,-1.-1.-1,1\n3,ROOTS,0,-,-,-,1.0.1,1\n";
const std::string kSafe = "2,SAFEKNLS,0,-,-,-,1.0.1,1\n", kHooks = "[data_rcvd\npre_metainstall 1\n",
                  kAll = kHooks + "pre_install 1\npost_write_out 1\n";
const char* const kTried = "Autodetected set installation has already been tried by KOR with or without success.\n";

const std::string kNo = "!hc:\n", kAct0 = "hc:\nactset=0\n", kAct1 = "hc:\nactset=1\n";  // kNo: not saved
const Row rows[] = {
    {"into SET1", {"1", "-v"}, kKorm, "", 0,
     {"install: release 1.0-1, 'products=dev1\n", kAct1, "hc:\nset[1].refs=11,13\n", "dev: kernel=11, ",
      "0: name=kernel action=1 velk_cidx=2 partinfo_idx=11 wts=1\n1: name=root action=1 velk_cidx=3 partinfo_idx=13 "
      "wts=1\n2: name=release action=0 velk_cidx=0 partinfo_idx=0 wts=0\n"}},
    {"SET2 holds 11..14", {"1"}, kKorm, "pre2", 0, {"hc:\nset[1].refs=15,17\n", "dev: kernel=11,15, "}},
    {"SAFESET finds none free", {"0"}, "2,KNLS,0,-,-,-,1.0.9,1\n", "pre1 pre2", 9,
     {"install: korl_meta_install_part1 failed: -5\n", "hc:\nactset=2\n"}},
    {"no version: highest", {"1", "-v"}, "2" + kAnyKnls, "pre1 pre2", 0,
     {"0: name=kernel action=2 velk_cidx=2 partinfo_idx=15", "hc:\nset[1].refs=15,13\n"}},
    {"other platform", {"1", "-v", "-platform=p1"}, "2,KNLS,0,-,-,p2" + kKorm.substr(14), "", 0,
     {"0: name=kernel action=0", "hc:\nset[1].refs=13\n", "dev: kernel= "}},
    {"this platform", {"1", "-v", "-platform=p1"}, "2,KNLS,0,-,-,p1" + kKorm.substr(14), "", 0,
     {"0: name=kernel action=1", "hc:\nset[1].refs=11,13\n"}},
    {"set idx 0x2", {"0x2"}, kKorm, "", 0, {"into set idx = 2\n", "hc:\nactset=2\n"}},
    {"missing set idx", {}, kKorm, "", 1, {"install: missing set idx?\n", kNo}},
    {"set idx 3", {"3"}, kKorm, "", 1, {"install: invalid set idx?\n", kNo}},
    {"set idx -2", {"-2"}, kKorm, "", 1, {"install: invalid set idx?\n", kNo}},
    {"no file", {"1"}, kKorm, "none", 8, {"install: could not open VELK\n", kNo}},
    {"empty file", {"1"}, kKorm, "empty", 9, {"install: empty VELK\n", kNo}},
    {"file too big", {"1", "-velksize=1000"}, kKorm, "", 9, {"install: VELK too big\n", kNo}},
    {"truncated", {"1"}, kKorm, "trunc", 9, {"install: incomplete VELK\n", kNo}},
    {"singleton without -f", {"1"}, kSafe, "", 9,
     {"install: Can't install into singleton partitions without -f\n", kNo}},
    {"singleton with -f", {"1", "-f"}, kSafe, "", 0, {kAct1, "dev: kernel=5, "}},
    {"no such pool", {"1"}, "2,NOPOOL,0,-,-,-,1.0.1,1\n", "", 9,
     {"install: korl_meta_install_part1 failed: -4\n", kNo}},
    {"missing dependency", {"1"}, "-1,KNLS,0,-,-,-,1.0.1,1\n", "", 9,
     {"install: korl_meta_install_part1 failed: -2\n", kNo}},
    {"no element", {"1"}, "# nothing\n", "", 9, {"install: korl_parse_kormd failed: 0\n", kNo}},
    {"undecided element", {"1"}, "2,KNLS,0,-,-,-,1.-2.0,1\n", "data", 2, {"install: partinfo korm match\n", kNo}},
    {"product mismatch", {"1", "-product=other"}, kKorm, "", 6,
     {"install: Release header does not contain model 'other'\n", kNo}},
    {"product mismatch, -f", {"1", "-product=other", "-f"}, kKorm, "", 0, {kAct1}},
    {"product matches", {"1", "-product=dev1"}, kKorm, "", 0, {kAct1}},
    {"minver above", {"1", "-minver=1.0.2", "-f"}, kKorm, "", 7,
     {"install: Version in release header lower than 1.0-2\n", kNo}},
    {"minver equal", {"1", "-minver=1.0.1"}, kKorm, "", 0, {kAct1}},
    {"-dryrun", {"1", "-dryrun"}, kKorm, "", 0,
     {"!out:Writing out", "!log:install: entering critical region", kNo, "dev: activeset=2 flags=0 kernel= "}},
    {"-onlymeta", {"1", "-onlymeta"}, kKorm, "", 0,
     {"!out:Writing out", kAct1, "dev: activeset=none flags=0 kernel= "}},
    {"-noactivate", {"1", "-noactivate"}, kKorm, "", 0, {"out:Writing out 1001 bytes of data to /dev/mmcblk0p11\n",
      kAct0, "dev: activeset=1 flags=0 kernel=11, "}},
    {"-test", {"1", "-test"}, kKorm, "", 0, {kAct1, "dev: activeset=none flags=1 "}},
    {"-noactivate -test", {"1", "-noactivate", "-test"}, kKorm, "", 1, {kAct0, "dev: activeset=1 flags=0 kernel=11, "}},
    {"automatic", {"-1"}, kKorm, "", 0, {"into autodetected set idx = 1\n", "dev: autoset=0 "}},
    {"automatic tried, -dryrun", {"-1", "-dryrun"}, kKorm, "pre-1", 0,
     {"into autodetected set idx = 2\n", "dev: autoset=0 "}},
    {"automatic tried", {"-1"}, kKorm, "pre-1", 5, {kTried, "dev: autoset=0 "}},
    {"kept, partial image", {"1"}, "-1" + kAnyKnls, "pre1 bad11", 14, {"Handling partial VELK\n",
      "CRC32 validation of partition 11 failed. Only fixable with a non-partial VELK.\n"}},
    {"kept, rewritten in place", {"1"}, "2" + kAnyKnls, "pre1 bad11", 0,
     {"CRC32 validation for partition 11 failed marking it for reinstall\n", "dev: kernel=11, "}},
    {"kept, shared: replaced", {"2"}, "2" + kAnyKnls, "pre1 bad11", 0,
     {"Other sets also refer to partition 11.\n", "Use free partition 15 instead\n",
      "hc:\nset[2].refs=15,13\n", "dev: kernel=15, "}},
    {"-rewrite", {"1", "-rewrite"}, kKorm, "pre1 bad11", 0, {"Mark partition 13 for rewrite\n"}},
    {"write fails, singleton", {"1", "-f"}, kSafe, "small5", 11,
     {"KOR_EXIT_FATAL_ERR_SINGLETON_WRITE", kAct0, "!hc:\npinfometa[5].body_crc"}},
    {"write fails, multi pool", {"1"}, kKorm, "small11", 1,
     {"FAILED TO INSTALL kernel INTO 11\n", kAct0, "!hc:\npinfometa[11].body_crc"}},
    {"write fails, automatic", {"-1"}, kKorm, "small11", 1,
     {"Could not fwrite to", kAct0, "!hc:\npinfometa[11].body_crc", "dev: autoset=none"}},
    {"hostconfig write fails", {"1"}, kKorm, "small3", 10, {"KOR_EXIT_FATAL_ERR_HOSTCONFIG_WRITE\n"}},
    {"hooks", {"1"}, kKorm, "KOR_TEST_HOOK_NONE=0", 0, {"hooks:" + kAll + "post_activate 1\n]", kAct1}},
    {"pre_metainstall hook", {"1"}, kKorm, "KOR_TEST_HOOK_PRE_METAINSTALL=3", 3, {"hooks:" + kHooks + "]", kNo}},
    {"pre_install hook", {"1"}, kKorm, "KOR_TEST_HOOK_PRE_INSTALL=4", 4, {"hooks:" + kHooks + "pre_install 1\n]", kNo}},
    {"post_write_out hook", {"1"}, kKorm, "KOR_TEST_HOOK_POST_WRITE_OUT=5", 5,
     {"hooks:" + kAll + "on_failure 1 5\n]", kNo}},
    {"post_activate hook", {"1"}, kKorm, "KOR_TEST_HOOK_POST_ACTIVATE=6", 6,
     {"hooks:" + kAll + "post_activate 1\non_failure 1 6\n]", kAct1}},
    {"data_rcvd hook", {"1"}, kKorm, "KOR_TEST_HOOK_DATA_RCVD=7", 9, {"hooks:[data_rcvd\n]", kNo}},
};

TEST(Install, Table)
{
    KOR_SANDBOX_OR_SKIP();
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        Device d;
        auto has = [&](const std::string& w) { return row.setup.find(w) != std::string::npos; };
        for (int pn : {3, 4, 5, 6, 7, 8, 11, 12, 13, 14, 15, 16, 17, 18})
            d.add_partition(pn, has("small" + std::to_string(pn)) ? (pn == 3 ? 2048 : 512)
                                : pn <= 4 ? sandbox::kHostconfigPartSize : 4 << 20);
        for (std::string s : {"1", "2", "-1"})
            if (has("pre" + s)) {
                ASSERT_EQ(d.kor({"install", put(d, s == "2" ? kKorm2 : kKorm, false, s == "2" ? 2 : 1), s}).status, 0);
            }
        if (has("bad11")) d.write(Device::part(11), 0, bytes(16, 0xEE));
        for (const std::string& m : row.expect)
            if (m.find("activeset=") != std::string::npos) d.write_file("/tmp/kor.activeset", "2");
        std::string path = put(d, row.korm, has("data")), log = d.workdir() + "/hooks.log";
        std::string img = has("trunc") ? d.read_file(path) : "";
        if (has("trunc") || has("empty")) d.write_file(path, img.substr(0, img.size() - 4 * !img.empty()));
        std::vector<std::string> args = row.args;
        args.insert(args.begin(), {"install", has("none") ? path + ".none" : path});
        sandbox::RunOptions o;
        if (has("HOOK_")) {
            size_t eq = row.setup.find('=');
            o.set("KOR_TEST_HOOK_LOG", log).set(row.setup.substr(0, eq), row.setup.substr(eq + 1));
            args.push_back("-plugin=" + d.stage(KOR_PLUGIN_test_plugin));
        }
        sandbox::RunResult r = d.kor(args, o);
        EXPECT_EQ(r.status, row.status) << r.err;
        auto file = [&](const std::string& p) { return d.exists(p) ? d.read_file(p) : "none"; };
        std::string hooks = "[", line, dev = " autoset=" + file("/tmp/kor.autoset") + " activeset=" +
            file("/tmp/kor.activeset") + " flags=" + std::to_string(d.read(Device::part(3), 0x3FE00, 1)[0]);
        for (std::istringstream in(d.exists(log) ? d.read_file(log) : ""); std::getline(in, line);)
            hooks += line.find("data_rcvd") == std::string::npos ? line.substr(17) + "\n"
                     : hooks == "[" ? "data_rcvd\n" : "";
        std::replace(dev.begin(), dev.end(), '\0', '0');
        dev += " kernel=";
        for (int pn : {5, 11, 15})
            if (d.read(Device::part(pn), 0, kKernel.size()) == kKernel) dev += std::to_string(pn) + ",";
        const std::pair<std::string, std::string> hays[] = {
            {"out:", r.out}, {"log:", r.log_text()}, {"hc:", kor_data(d)}, {"dev:", dev + " "},
            {"hooks:", hooks + "]"}};
        for (std::string m : row.expect) {
            const bool absent = m[0] == '!';
            std::string hay = r.err;
            m.erase(0, absent);
            for (const auto& [prefix, text] : hays)
                if (m.rfind(prefix, 0) == 0) hay = text, m.erase(0, prefix.size());
            EXPECT_EQ(hay.find(m) == std::string::npos, absent) << m << "\n" << hay << r.err;
        }
    }
}

TEST(Install, WriteTypesLayOutThePartition)
{
    KOR_SANDBOX_OR_SKIP();
    for (int wts = 1; wts <= 3; ++wts) {
        SCOPED_TRACE(wts);
        Device d;
        d.with_default_layout();
        std::string path = put(d, "2,KNLS,0,-,-,-,1.0.1," + std::to_string(wts) + "\n");
        ASSERT_EQ(d.kor({"install", path, "1"}).status, 0);
        const bytes img = d.read(path, 0, 4096);
        auto body = std::search(img.begin(), img.end(), kKernel.begin(), kKernel.end());
        bytes header(body - 40, body), expect = wts == 2 ? header : kKernel;  // 36 bytes, "k1", NUL
        const bytes& second = wts == 2 ? kKernel : header;
        if (wts == 3) expect.resize(1004, 0);
        if (wts != 1) expect.insert(expect.end(), second.begin(), second.end());
        expect.push_back(0);  // nothing written behind
        EXPECT_EQ(d.read(Device::part(11), 0, expect.size()), expect);
        const std::string kd = kor_data(d);
        EXPECT_NE(kd.find("\nset[1].refs=11\n"), std::string::npos);
        EXPECT_NE(kd.find("\npinfometa[11].body_crc="), std::string::npos);
    }
}

}  // namespace
