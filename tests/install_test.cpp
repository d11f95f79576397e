// The install action on a sandboxed device: statuses, messages, plan, device bytes, metadata, hooks.
#include <algorithm>
#include <numeric>
#include <sstream>

#include "mkvelk.h"
#include "support/hostconfig_decoder.h"
#include "support/sandbox.h"

using sandbox::bytes, sandbox::Device;

static bytes counting(size_t n) { bytes b(n); std::iota(b.begin(), b.end(), uint8_t(1)); return b; }
const bytes kKernel = counting(1001);  // not 4n
const std::string kRoot = "3,ROOTS,0,-,-,-,1.0.1,1\n", kKorm = "2,KNLS,0,-,-,-,1.0.1,1\n" + kRoot,
                  kKorm2 = "2,KNLS,0,-,-,-,1.0.2,1\n3,ROOTS,0,-,-,-,1.0.2,1\n", kSafe = "2,SAFEKNLS,0,-,-,-,1.0.1,1\n",
                  kAny = ",KNLS,0,-,-,-,-1.-1.-1,1\n" + kRoot, kNo = "|!hc:\n",  // kNo: nothing saved
                  kAct0 = "|hc:\nactset=0\n", kAct1 = "|hc:\nactset=1\n",
                  kHooks = "|hooks:[data_rcvd\npre_metainstall 1\n",
                  kAll = kHooks + "pre_install 1\npost_write_out 1\n";

// Release header, "korm", kernel and root (versions 1.0.`build`); returns the image's path.
static std::string put(Device& d, const std::string& korm, uint16_t build = 1, const bytes& kernel = kKernel)
{
    bytes img = mkvelk::build_image({mkvelk::release_header(1, 0, 1, 0, "b1", "products=dev1\n"), mkvelk::korm(korm),
        mkvelk::software("kernel", 1, 0, build, "k1", kernel),
        mkvelk::software("root", 1, 0, build, "r1", bytes(3001, 2))});
    d.write_file(d.workdir() + "/img.velk", std::string(img.begin(), img.end()));
    return d.workdir() + "/img.velk";
}


// expect: '|'-separated texts in stderr or, so prefixed, in stdout, "KOR data", the device, the hook calls
// (data_rcvd once); "!": absent. setup: preS (set S installed first, 1.0.S), bad11 (p11 damaged), smallN (pN too
// small), act2 (set 2 active), none (no image), KOR_TEST_HOOK_X=N.
struct Row { const char *name, *args; int status; std::string expect, setup = "", korm = kKorm; };
const std::string kPlan = "|0: name=kernel action=1 velk_cidx=2 partinfo_idx=11 wts=1\n"
                          "1: name=root action=1 velk_cidx=3 partinfo_idx=13 wts=1\n"
                          "2: name=release action=0 velk_cidx=0 partinfo_idx=0 wts=0\n";
const Row rows[] = {  // set arguments, option parsing, KORM and plan details, empty images: see their own tests
    {"SET1", "1 -v -product=dev1 -minver=1.0.1", 0, "install: release 1.0-1, 'products=dev1\n" + kAct1 +
     "|hc:\nset[1].refs=11,13\n|hc:\npinfometa[11].body_crc=|dev:kernel=11, " + kPlan + kAll + "post_activate 1\n]",
     "KOR_TEST_HOOK_NONE=0"},
    {"SAFESET none free", "0", 9, "install: korl_meta_install_part1 failed: -5\n|hc:\nactset=2\n", "pre1 pre2",
     "2,KNLS,0,-,-,-,1.0.9,1\n"},
    {"-test", "1 -test", 0, "dev:activeset=none flags=1 " + kAct1},
    {"no file", "1", 8, "install: could not open VELK\n" + kNo, "none"},
    {"empty file", "1", 9, "install: empty VELK\n" + kNo, "empty"},
    {"singleton without -f", "1", 9, "install: Can't install into singleton partitions without -f\n" + kNo, "", kSafe},
    {"product mismatch", "1 -product=other", 6, "install: Release header does not contain model 'other'\n" + kNo},
    {"minver above, -f", "1 -minver=1.0.2 -f", 7, "install: Version in release header lower than 1.0-2\n" + kNo},
    {"-dryrun", "1 -dryrun", 0, "!out:Writing out|dev:activeset=2 flags=0 kernel= " + kNo, "act2"},
    {"-onlymeta", "1 -onlymeta", 0, "!out:Writing out|dev:activeset=none flags=0 kernel= " + kAct1},
    {"-noactivate", "1 -noactivate", 0, "out:Writing out 1001 bytes of data to /dev/mmcblk0p11\n|dev:=1 flags=0 "
     "kernel=11, " + kAct0, "act2"},
    {"-noactivate -test", "1 -noactivate -test", 1, "dev:activeset=1 flags=0 kernel=11, " + kAct0, "act2"},
    {"automatic", "-1", 0, "into autodetected set idx = 1\n|dev:autoset=0 "},
    {"auto, tried", "-1", 5, "Autodetected set installation has already been tried by KOR with or without success.\n"
     "|dev:autoset=0 ", "pre-1"},
    {"kept, partial image", "1", 14, "Handling partial VELK\n|CRC32 validation of partition 11 failed. Only fixable "
     "with a non-partial VELK.\n", "pre1 bad11", "-1" + kAny},
    {"kept, rewritten", "1", 0, "CRC32 validation for partition 11 failed marking it for reinstall\n|dev:kernel=11, ",
     "pre1 bad11", "2" + kAny},
    {"kept, shared: replaced", "2", 0, "Other sets also refer to partition 11.\n|Use free partition 15 instead\n|hc:\n"
     "set[2].refs=15,13\n|dev:kernel=15, ", "pre1 bad11", "2" + kAny},
    {"-rewrite", "1 -rewrite", 0, "Mark partition 13 for rewrite\n", "pre1 bad11"},
    {"write fails, singleton", "1 -f", 11, "KOR_EXIT_FATAL_ERR_SINGLETON_WRITE|!hc:\npinfometa[5].body_crc" + kAct0,
     "small5", kSafe},
    {"write fails, automatic", "-1", 1, "FAILED TO INSTALL kernel INTO 11\n|!hc:\npinfometa[11].body_crc"
     "|dev:autoset=none" + kAct0, "small11"},
    {"hostconfig write fails", "1", 10, "KOR_EXIT_FATAL_ERR_HOSTCONFIG_WRITE\n", "small3"},
    {"pre_metainstall hook", "1", 3, kHooks + "]" + kNo, "KOR_TEST_HOOK_PRE_METAINSTALL=3"},
    {"pre_install hook", "1", 4, kHooks + "pre_install 1\n]" + kNo, "KOR_TEST_HOOK_PRE_INSTALL=4"},
    {"post_write_out hook", "1", 5, kAll + "on_failure 1 5\n]" + kNo, "KOR_TEST_HOOK_POST_WRITE_OUT=5"},
    {"post_activate hook", "1", 6, kAll + "post_activate 1\non_failure 1 6\n]" + kAct1,
     "KOR_TEST_HOOK_POST_ACTIVATE=6"},
    {"data_rcvd hook", "1", 9, "|hooks:[data_rcvd\n]" + kNo, "KOR_TEST_HOOK_DATA_RCVD=7"},
};

TEST(Install, Table)
{
    KOR_SANDBOX_OR_SKIP();
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        Device d;
        auto has = [&](const std::string& w) { return row.setup.find(w) != std::string::npos; };
        d.with_default_layout();
        for (int pn : {3, 5, 11}) if (has("small" + std::to_string(pn))) d.add_partition(pn, pn == 3 ? 2048 : 512);
        for (std::string s : {"1", "2", "-1"})  // the earlier install must work
            ASSERT_TRUE(!has("pre" + s) ||
                        d.kor({"install", put(d, s == "2" ? kKorm2 : kKorm, s == "2" ? 2 : 1), s}).status == 0);
        if (has("bad11")) d.write(Device::part(11), 0, bytes(16, 0xEE));
        if (has("act2")) d.write_file("/tmp/kor.activeset", "2");
        const std::string path = put(d, row.korm) + (has("none") ? ".none" : has("empty") ? ".empty" : ""),
                          log = d.workdir() + "/hooks.log";
        if (has("empty")) d.write_file(path, "");
        std::vector<std::string> args{"install", path};  // then the row's arguments
        std::string line;
        for (std::istringstream words(row.args); words >> line;) args.push_back(line);
        sandbox::RunOptions o;
        if (const size_t eq = row.setup.find('='); has("HOOK_"))
            o.set("KOR_TEST_HOOK_LOG", log).set(row.setup.substr(0, eq), row.setup.substr(eq + 1)),
                args.push_back("-plugin=" + d.stage(KOR_PLUGIN_test_plugin));
        const sandbox::RunResult r = d.kor(args, o);
        EXPECT_EQ(r.status, row.status) << r.err;
        auto file = [&](const std::string& p) { return d.exists(p) ? d.read_file(p) : "none"; };
        std::string kd, hooks = "[", dev = "autoset=" + file("/tmp/kor.autoset") + " activeset=";
        dev += file("/tmp/kor.activeset") + " flags=" + std::to_string(d.read(Device::part(3), 0x3FE00, 1)[0]);
        if (hcdec::Image hc; hcdec::decode_image(d.read(Device::part(3), 0, 5120), &hc))  // p3's "KOR data", decoded
            for (const auto& p : hc.parts) kd += p.name == "KOR data" ? "\n" + hcdec::decode_kor_data(p.body) : "";
        std::replace(dev.begin(), dev.end(), '\0', '0'), dev += " kernel=";  // hook lines lose "kor_install_hook_"
        for (int pn : {5, 11, 15}) dev += d.read(Device::part(pn), 0, 1001) == kKernel ? std::to_string(pn) + "," : "";
        for (std::istringstream in(d.exists(log) ? d.read_file(log) : ""); std::getline(in, line);)
            hooks += line.find("data_rcvd") == line.npos ? line.substr(17) + "\n" : hooks == "[" ? "data_rcvd\n" : "";
        const std::pair<std::string, std::string> hays[] = {{"out:", r.out}, {"hc:", kd}, {"dev:", dev + " "},
                                                            {"hooks:", hooks + "]"}};
        std::istringstream want(row.expect);
        for (std::string m, hay; std::getline(want, m, '|');) {
            const bool absent = m.rfind('!', 0) == 0;
            hay = r.err, m.erase(0, absent);
            for (const auto& [prefix, text] : hays) if (m.rfind(prefix, 0) == 0) hay = text, m.erase(0, prefix.size());
            EXPECT_EQ(hay.find(m) == std::string::npos, absent) << m << "\n" << hay << r.err;
        }
    }
}

// Write type 1: the body; 2: the header first; 3: the body padded to 4 bytes, then the header. Nothing behind.
// The bodies cross 4 KiB blocks and the writer's 1 MiB pieces, unaligned at either end for type 2.
TEST(Install, WriteTypesLayOutThePartition)
{
    KOR_SANDBOX_OR_SKIP();
    for (size_t size : {kKernel.size(), (size_t{1} << 20) + 2 * 4096 + 1001}) {
        const bytes kernel = counting(size);
        for (int wts = 1; wts <= 3; ++wts) {
            SCOPED_TRACE(std::to_string(size) + " bytes, wts " + std::to_string(wts));
            Device d;
            d.with_default_layout();
            const std::string path = put(d, "2,KNLS,0,-,-,-,1.0.1," + std::to_string(wts) + "\n", 1, kernel),
                              img = d.read_file(path), k(kernel.begin(), kernel.end());
            ASSERT_EQ(d.kor({"install", path, "1"}).status, 0);
            const std::string h = img.substr(img.find(k) - 40, 40);  // 36 bytes, "k1", NUL
            const std::string want = (wts == 1 ? k : wts == 2 ? h + k : k + std::string(3, '\0') + h) + '\0';
            const bytes p11 = d.read(Device::part(11), 0, want.size());
            EXPECT_TRUE(std::string(p11.begin(), p11.end()) == want);
        }
    }
}
