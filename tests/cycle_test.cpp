// Activate, upgrade and verify run as the production binary on a sandboxed
// device; the rebuild is called in-process inside the same sandbox.
#include <gtest/gtest.h>
#include <syslog.h>
#include <zlib.h>

#include <cstring>
#include <iterator>
#include <sstream>

#include "frontend/options.h"
#include "hostconfig/hostconfig.h"
#include "korl/korl.h"
#include "support/sandbox.h"

namespace {

using sandbox::bytes;
using sandbox::Device;

uint32_t crc(const bytes& b) { return static_cast<uint32_t>(::crc32(0, b.data(), b.size())); }

// A device of the default layout; `m` starts as the default records.
struct Fixture {
    Device dev;
    korl_data m{};
    hostconfig hc;
    std::string hooks = dev.workdir() + "/hooks.log", after;  // after: the state when run() returned
    Fixture()
    {
        dev.with_default_layout();
        EXPECT_EQ(korl_init(&m) + hostconfig_new(&hc, HOSTCONFIG_MAX) + hostconfig_default(&hc) +
                  korl_hostconfig_import(&m, &hc), 4);
    }
    void store(const char* path = "/dev/mmcblk0p3")
    {
        ASSERT_EQ(hostconfig_new(&hc, HOSTCONFIG_MAX) + korl_hostconfig_export(&m, &hc), 2);
        ASSERT_EQ(hostconfig_save(&hc, path, nullptr), 1);
    }
    // Records content for entry idx and writes it, one byte flipped unless `good`, its header in front if asked.
    void install(int idx, bool good = true, bool header_first = false)
    {
        bytes body(3000, static_cast<uint8_t>(idx));
        korl_pinfometa& p = m.pinfometa[idx];
        p = {0, 0, static_cast<uint16_t>(header_first ? 64 : 0), 3000, {}, crc(body), 0, 0, 0, {}};
        std::snprintf(p.name, sizeof p.name, "content%d", idx);
        body[100] ^= good ? 0 : 0xFF;
        if (header_first) body.insert(body.begin(), reinterpret_cast<uint8_t*>(&p), reinterpret_cast<uint8_t*>(&p + 1));
        dev.write(Device::part(m.partinfo[idx].pn), 0, body);
    }
    // Runs kor (words split at spaces) with the test plugin logging its hooks, from the state "A.F.G": the
    // active set and the upgrade flags bytes at 0x3FE00 and 0x3FE01; `m` is stored unless `blank`.
    sandbox::RunResult run(const std::string& args, const std::string& s, bool blank = false)
    {
        m.actset = static_cast<uint8_t>(s[0] - '0');
        if (!blank) store();
        dev.write(Device::part(3), 0x3FE00, {static_cast<uint8_t>(s[2] - '0'), static_cast<uint8_t>(s[4] - '0')});
        std::istringstream in(args + " -plugin=" + dev.stage(KOR_PLUGIN_test_plugin));
        auto o = sandbox::RunOptions().set("KOR_TEST_HOOK_LOG", hooks).set("KOR_TEST_HOOK_ACTIVATE_POST", "7");
        sandbox::RunResult r = dev.kor({std::istream_iterator<std::string>(in), {}}, o);
        bytes f = dev.read(Device::part(3), 0x3FE00, 2), a = dev.read(Device::part(3), 56, 1);  // behind 8+16+32
        after = std::to_string(a[0]) + "." + std::to_string(f[0]) + "." + std::to_string(f[1]);
        return r;
    }
};

// From the state `before`, the state after the run, the exit status, ":", stdout, stderr and what the activate hook
// logged (its result 7 is ignored). set1: -1 nothing stored, 0 the defaults, 1 refs 11 and 12 good, 2 entry 12
// damaged, 3 entry 12 empty. activeset: the active set file ("": none).
TEST(Cycle, ActivateAndUpgrade)
{
    KOR_SANDBOX_OR_SKIP();
    const char *s1 = "console=ttyS0 KORSET=SET1 root=/dev/mmcblk0p13", *s2 = "console=ttyS0 KORSET=SET2",
               *safe = "console=ttyS0 KORSET=SAFESET", *none = "console=ttyS0 root=/dev/mmcblk0p7",
               *s5 = "KORSET=SET5";
    const char *act = "upgrade activate", *tact = "-test upgrade activate", *val = "upgrade validate",
               *test = "upgrade test";
    const std::string ok = ":Already validated\n", inval = "1:Upgrade state is invalid\n",
                      id = "0.1.3 1:activate: invalid set id: ", set = "0.1.3 1:activate: set ",
                      h = "0:kor_activate_hook_post ", set1 = "1.0.3 " + h + "1\n";
    const struct { const char *cmdline, *args; int set1; const char *activeset, *before; std::string expect; }
        cases[] = {
        {"", "activate 1", 1, "", "0.1.3", set1}, {"", "activate SET1", 1, "", "0.1.3", set1},
        {"", "activate 0x1", 1, "", "0.1.3", set1}, {"", "-dryrun activate 1", 1, "", "0.1.3", "0.1.3 " + h + "1\n"},
        {"", "-f activate 2", 0, "", "0.1.3", "2.1.0 " + h + "2\n"}, {"", "activate 3", 1, "", "0.1.3", id + "3\n"},
        {"", "-f activate 0", 0, "", "0.1.3", "0.1.3 " + h + "0\n"}, {"", "activate", 1, "", "0.1.3", id + "(none)\n"},
        {"", "activate FOO", 1, "", "0.1.3", id + "FOO\n"}, {"", "activate 2", 0, "", "0.1.3", set + "2 validation err=1\n"},
        {"", "activate 1", -1, "", "0.1.3", set + "1 validation err=1\n"},
        {"", "activate 1", 2, "", "0.1.3", set + "1 validation err=4\n"},
        {"", "activate 1", 3, "", "0.1.3", set + "1 validation err=2\n"},
        {s1, tact, 0, "2", "1.0.0", "2.0.1 0:"}, {safe, tact, 0, "2", "1.0.3", "2.0.0 0:"},
        {s1, act, 0, "2", "1.0.1", "2.0.0 0:"}, {s1, tact, 0, "2", "2.0.3", "2.0.3 0:"},
        {s1, "-dryrun -test upgrade activate", 0, "2", "1.0.0", "1.0.0 0:"},
        {s1, tact, 0, "0", "1.0.0", "0.0.0 1:failed to set upgrade state\n"}, {s1, act, 0, "", "1.0.0", "1.0.0 1:"},
        {s1, act, 0, "5", "1.0.0", "1.0.0 1:upgrade: active set file names no valid set: 5\n"},
        {s2, val, 0, "", "2.1.1", "2.1.0 0:"}, {s2, val, 0, "", "2.1.3", "2.1.0 0:"},
        {s1, val, 0, "", "1.3.3", "1.0.3 0:"}, {s2, val, 0, "", "2.1.2", "2.1.2 0" + ok},
        {none, val, 0, "", "0.1.1", "0.1.1 0" + ok}, {s5, val, 0, "", "0.1.1", "0.1.1 " + inval},
        {s2, "-dryrun upgrade validate", 0, "", "2.1.3", "2.1.3 0:"},
        {s2, test, 0, "", "2.3.3", "2.3.1 0:"}, {s2, test, 0, "", "2.0.1", "2.0.1 0:"},
        {s5, test, 0, "", "0.3.3", "0.3.3 " + inval}, {"KORSET=SET1 KORSET=SET2", test, 0, "", "0.3.3", "0.1.3 0:"},
        {s2, "upgrade", 0, "", "0.0.3", "0.0.3 1:upgrade: Missing argument\n"},
        {s2, "upgrade bogus", 0, "", "0.0.3", "0.0.3 1:upgrade: unknown command.\n"},
    };
    for (const auto& c : cases) {
        Fixture f;
        f.dev.set_cmdline(c.cmdline);
        if (*c.activeset) f.dev.write_file("/tmp/kor.activeset", c.activeset);
        f.m.partset[1].refs[0] = c.set1 > 0 ? 11 : f.m.partset[1].refs[0];
        f.m.partset[1].refs[1] = c.set1 > 0 ? 12 : f.m.partset[1].refs[1];
        if (c.set1 > 0) f.install(11);
        if (c.set1 == 1 || c.set1 == 2) f.install(12, c.set1 == 1);
        sandbox::RunResult r = f.run(c.args, c.before, c.set1 < 0);
        std::string hook = f.dev.exists(f.hooks) ? f.dev.read_file(f.hooks) : "";
        EXPECT_EQ(f.after + " " + std::to_string(r.status) + ":" + r.out + r.err + hook, c.expect)
            << c.cmdline << " | " << c.args << " from " << c.before << " set1=" << c.set1;
        EXPECT_EQ(r.status == 0 || *c.cmdline ? LOG_ERR : r.log.empty() ? -1 : r.log.back().priority, LOG_ERR);
    }
}

TEST(Cycle, Verify)
{
    KOR_SANDBOX_OR_SKIP();
    const std::string check = "CRC32 content check: ", ws = "\n             ", d = " have a disparity between" + ws +
                      "calculated and hostconfig recorded", crcs = ws + "CRC32 values.\n";
    const std::string multi = "WARNING: 1/4 multi pools" + d + crcs,
                      single = "WARNING: 1/4 singleton pools" + d + " " + crcs;
    const std::string active = ws.substr(1) + "AT LEAST ONE OF THESE SINGLETONS IS PART OF THE ACTIVE SET" + ws +
                               "DO NOT REBOOT UNTIL THIS ISSUE HAS BEEN FIXED!\n";
    const std::string set1 = "verify_set: Set 1: SET1\nverify_set:   ref 11: KNLS         content11   : ok\n";
    std::string fresh = "Verifying partitions:\n";
    for (int i = 0; i < 22; i++)
        fresh += (i < 10 ? "  " : " ") + std::to_string(i) +
                 ((i >= 5 && i <= 8) || (i >= 11 && i <= 18) ? "  Nothing installed\n" : "  Not handled by KOR\n");
    // Set 1 lists entry 11; 12 holds its header in front, 13 has no recorded CRC. `bad`: an entry with a damaged
    // partition, listed by the active set when `in_active`; -2: a fresh device without hostconfig. `out`: a part
    // of the listing, or with a set argument or a fresh device, the end of the report.
    const struct { const char* args; int bad; bool in_active; int status; std::string out, err; } cases[] = {
        {"verify", -2, false, 0, fresh, ""},
        {"verify", 11, false, 0, " 11  Belongs to pool KNLS             " + check + "DISPARITY\n", multi},
        {"verify", 5, true, 0, "  5  Belongs to pool SAFEKNLS         " + check + "DISPARITY\n", single},
        {"verify", 5, false, 0, "  5  Belongs to pool SAFEKNLS         " + check + "DISPARITY\n", single},
        {"verify", -1, false, 0, " 11  Belongs to pool KNLS             " + check + "OK\n 12  Belongs to pool DTS    "
                                 "          " + check + "OK (wts=2)\n 13  Belongs to pool ROOTS            " + check +
                                 "UNKNOWN\n", ""},
        {"verify 1", -1, false, 0, "", ""}, {"verify SET2", -1, false, 1, "", ""},
        {"-v verify 1", -1, false, 0, "verify_sets: Checking set 1\n" + set1, ""},
        {"verify 7", -1, false, 1, "verify_sets: Checking set -1\nverify_set: Set 0: SAFESET\nverify_set:   no "
                                   "refs\n" + set1 + "verify_set: Set 2: SET2\nverify_set:   no refs\n", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args + (" bad=" + std::to_string(c.bad)));
        Fixture f;
        f.m.partset[1].refs[0] = 11;
        if (c.in_active) f.m.partset[0].refs[0] = static_cast<int8_t>(c.bad);
        for (int i : {5, 11, 12, 13})
            if (i != 5 || c.bad == 5) f.install(i, i != c.bad, i == 12);
        f.m.pinfometa[13].body_crc = 0;
        sandbox::RunResult r = f.run(c.args, "0.0.0", c.bad == -2);
        size_t at = r.out.rfind(c.out), whole = c.bad == -2 || std::string(c.args) != "verify";
        EXPECT_TRUE(at != std::string::npos && (!whole || at + c.out.size() == r.out.size())) << r.out;
        EXPECT_EQ(std::to_string(r.status) + (r.out.empty() ? " (no output) " : " ") + r.err,
                  std::to_string(c.status) + (c.out.empty() ? " (no output) " : " ") + c.err);
        EXPECT_EQ(r.out.find(active) != std::string::npos, c.in_active);
    }
}

// A software content header as the flash holds it, its CRCs made by zlib, and 4 KiB of flash holding the
// content from byte 0 and such headers placed behind it.
const bytes kBody(256, 9);
bytes header(uint8_t version, uint16_t length = 64, uint32_t body_crc = crc(kBody), uint32_t crc_flip = 0)
{
    korl_pinfometa p{0, 4, length, static_cast<uint32_t>(kBody.size()), "KNL-SAFE", body_crc, version, 0, 0, {}};
    bytes h(reinterpret_cast<uint8_t*>(&p), reinterpret_cast<uint8_t*>(&p + 1));
    h.resize(length);
    uint32_t hcrc = static_cast<uint32_t>(::crc32(0, &h[4], length - 4u)) ^ crc_flip;
    std::memcpy(&h[0], &hcrc, 4);
    return h;
}
bytes flash(std::vector<std::pair<size_t, bytes>> placed)
{
    bytes f(4096, 0xFF);
    std::copy(kBody.begin(), kBody.end(), f.begin());
    for (const auto& [at, b] : placed) std::copy(b.begin(), b.end(), f.begin() + at);
    return f;
}

TEST(Cycle, Rebuild)
{
    KOR_SANDBOX_OR_SKIP();
    const char* knl = "KNL-SAFE";
    const struct { const char* what; bytes device; uint32_t size; int version; /* -1 not found */ } cases[] = {
        {"short device", flash({{1027, header(2)}}), 0x200000, 2},
        {"bad header crc first", flash({{1024, header(3, 64, crc(kBody), 1)}, {2049, header(4)}}), 4096, 4},
        {"bad body crc", flash({{1024, header(5, 64, 0x1234)}}), 4096, -1},
        {"name too close to start", flash({{5, bytes(knl, knl + 8)}}), 4096, -1},
        {"last fitting position", flash({{4096 - 65, header(6)}}), 4096, 6},
        {"too close to the end", flash({{4096 - 64, header(7)}}), 4096, -1},
        {"header longer than kept", flash({{1024, header(8, 76)}}), 4096, -1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Device dev;
        dev.add_block_device("/dev/mtd7", c.device);
        korl_data m{};
        testing::internal::CaptureStderr();
        EXPECT_EQ(rebuild_meta(&m, knl, 7, c.size), c.version >= 0 ? 1 : 0);
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  c.version >= 0 ? "" : "rebuild_meta: Failed to locate tsb for KNL-SAFE\n");
        bytes want = c.version >= 0 ? header(static_cast<uint8_t>(c.version)) : bytes(64, 0);
        EXPECT_EQ(0, std::memcmp(&m.pinfometa[7], want.data(), 64));
    }
    // The whole rebuild starts from the stored default file, else from the defaults; missing mtd devices are reported.
    Fixture f;
    f.dev.add_block_device("/dev/mtd7", flash({{1026, header(1)}}));
    f.m.actset = 2;
    ASSERT_EQ(f.dev.run({"mkdir", "/mnt/appl"}).status, 0);
    f.store(HOSTCONFIG_DEFAULT_FILE);
    kor_options o{};
    std::snprintf(o.cfg, sizeof o.cfg, "/dev/mmcblk0p3");
    testing::internal::CaptureStderr();
    EXPECT_EQ(rebuild_hostcfg(&o, &f.m, &f.hc), 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "rebuild_hostcfg: Using /mnt/appl/hostcfg.default as initial hostconfig\n"
              "rebuild_meta: Could not open /dev/mtd8 for read\nrebuild_hostcfg: tsb for ROOT-SAFE not found\n"
              "rebuild_meta: Could not open /dev/mtd19 for read\nrebuild_hostcfg: tsb for APPL-SAFE not found\n");
    EXPECT_STREQ(o.cfg, "/dev/mmcblk0p3");
    EXPECT_EQ(f.m.actset, 2);
    EXPECT_EQ(f.m.pinfometa[7].sw_version_major, 1);
    ASSERT_EQ(f.dev.run({"rm", HOSTCONFIG_DEFAULT_FILE}).status, 0);
    EXPECT_EQ(rebuild_hostcfg(&o, &f.m, &f.hc), 1);
    EXPECT_EQ(f.m.actset, 0);
    EXPECT_STREQ(f.m.partinfo[11].poolname, "KNLS");
}

}  // namespace
