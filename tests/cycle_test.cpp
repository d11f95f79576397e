// Activate, upgrade and verify run as the production binary on a sandboxed device; the rebuild in-process.
#include <gtest/gtest.h>
#include <zlib.h>

#include <cstring>
#include <iterator>
#include <sstream>

#include "hostconfig/hostconfig.h"
#include "korl/korl.h"
#include "support/sandbox.h"

namespace {

using sandbox::bytes, sandbox::Device;

uint32_t crc(const bytes& b) { return static_cast<uint32_t>(::crc32(0, b.data(), b.size())); }

struct Fixture {
    Device dev;
    korl_data m{};
    hostconfig hc;
    std::string hooks = dev.workdir() + "/hooks.log", after;  // after: the state when run() returned
    Fixture()
    {
        dev.with_default_layout();
        EXPECT_TRUE(korl_init(&m) == 1 && hostconfig_new(&hc, HOSTCONFIG_MAX) == 1 && hostconfig_default(&hc) == 1 &&
                    korl_hostconfig_import(&m, &hc) == 1);
    }
    void install(int idx, bool good = true, bool header_first = false)  // content for entry idx, recorded in `m`
    {
        bytes body(3000, static_cast<uint8_t>(idx));
        auto& p = m.pinfometa[idx] = {0, 0, uint16_t(header_first ? 64 : 0), 3000, {}, crc(body), 0, 0, 0, {}};
        body[100] ^= good ? 0 : 0xFF;
        if (header_first) body.insert(body.begin(), reinterpret_cast<uint8_t*>(&p), reinterpret_cast<uint8_t*>(&p + 1));
        dev.write(Device::part(m.partinfo[idx].pn), 0, body);
    }
    // kor with the hook-logging plugin from state "A.F.G" (active set, flag bytes); `m` stored unless `blank`.
    sandbox::RunResult run(const std::string& args, const std::string& s, bool blank = false)
    {
        m.actset = static_cast<uint8_t>(s[0] - '0');
        EXPECT_TRUE(blank || (hostconfig_new(&hc, HOSTCONFIG_MAX) == 1 && korl_hostconfig_export(&m, &hc) == 1 &&
                              hostconfig_save(&hc, "/dev/mmcblk0p3", nullptr) == 1));
        dev.write(Device::part(3), 0x3FE00, {static_cast<uint8_t>(s[2] - '0'), static_cast<uint8_t>(s[4] - '0')});
        std::istringstream in(args + " -plugin=" + dev.stage(KOR_PLUGIN_test_plugin));
        auto o = sandbox::RunOptions().set("KOR_TEST_HOOK_LOG", hooks).set("KOR_TEST_HOOK_ACTIVATE_POST", "7");
        sandbox::RunResult r = dev.kor({std::istream_iterator<std::string>(in), {}}, o);
        bytes f = dev.read(Device::part(3), 0x3FE00, 2), a = dev.read(Device::part(3), 56, 1);  // behind 8+16+32
        after = std::to_string(a[0]) + "." + std::to_string(f[0]) + "." + std::to_string(f[1]);
        return r;
    }
};

// State after, status, ":", stdout, stderr, activate hook log (its result 7 is ignored), from `before`. set1: 0 the
// defaults, 1 refs 11 and 12 good, 2 entry 12 damaged, 3 entry 12 empty. activeset: the active set file ("": none).
TEST(Cycle, ActivateUpgradeAndVerify)
{
    KOR_SANDBOX_OR_SKIP();
    const char *s1 = "console=ttyS0 KORSET=SET1 root=/dev/mmcblk0p13", *s2 = "ro KORSET=SET2", *s5 = "KORSET=SET5",
               *ua = "upgrade activate", *ta = "-test upgrade activate", *uv = "upgrade validate", *ut = "upgrade test";
    const std::string ok = ":Already validated\n", inval = "1:Upgrade state is invalid\n", h = "0:kor_activate_hook_post ",
                      id = "0.1.3 1:activate: invalid set id: ", e = "0.1.3 1:activate: set ", v = " validation err=";
    const struct { const char* args; int set1; std::string expect; const char *cmdline = "", *actset = "", *before = "0.1.3"; }
        cases[] = {
        {"activate SET1", 1, "1.0.3 " + h + "1\n"}, {"-dryrun activate 1", 1, "0.1.3 " + h + "1\n"},
        {"-f activate 2", 0, "2.1.0 " + h + "2\n"}, {"activate 3", 1, id + "3\n"}, {"activate", 1, id + "(none)\n"},
        {"activate 2", 0, e + "2" + v + "1\n"}, {"activate 1", 2, e + "1" + v + "4\n"},
        {"activate 1", 3, e + "1" + v + "2\n"}, {ta, 0, "2.0.1 0:", s1, "2", "1.0.0"},
        {ta, 0, "2.0.0 0:", "ro KORSET=SAFESET", "2", "1.0.3"}, {ua, 0, "2.0.0 0:", s1, "2", "1.0.1"},
        {ta, 0, "2.0.3 0:", s1, "2", "2.0.3"}, {ua, 0, "1.0.0 1:", s1, "", "1.0.0"},
        {"-dryrun -test upgrade activate", 0, "1.0.0 0:", s1, "2", "1.0.0"},
        {ta, 0, "0.0.0 1:failed to set upgrade state\n", s1, "0", "1.0.0"},
        {ua, 0, "1.0.0 1:upgrade: active set file names no valid set: 5\n", s1, "5", "1.0.0"},
        {uv, 0, "2.1.0 0:", s2, "", "2.1.1"}, {uv, 0, "1.0.3 0:", s1, "", "1.3.3"},
        {uv, 0, "2.1.2 0" + ok, s2, "", "2.1.2"}, {uv, 0, "0.1.1 0" + ok, "ro root=/dev/mmcblk0p7", "", "0.1.1"},
        {uv, 0, "0.1.1 " + inval, s5, "", "0.1.1"}, {"-dryrun upgrade validate", 0, "2.1.3 0:", s2, "", "2.1.3"},
        {ut, 0, "2.3.1 0:", s2, "", "2.3.3"}, {ut, 0, "2.0.1 0:", s2, "", "2.0.1"},
        {ut, 0, "0.3.3 " + inval, s5, "", "0.3.3"}, {ut, 0, "0.1.3 0:", "KORSET=SET1 KORSET=SET2", "", "0.3.3"},
        {"upgrade", 0, "0.0.3 1:upgrade: Missing argument\n", s2, "", "0.0.3"},
        {"upgrade bogus", 0, "0.0.3 1:upgrade: unknown command.\n", s2, "", "0.0.3"},
    };
    for (const auto& c : cases) {
        Fixture f;
        f.dev.set_cmdline(c.cmdline);
        if (*c.actset) f.dev.write_file("/tmp/kor.activeset", c.actset);
        if (c.set1 > 0) f.m.partset[1].refs[0] = 11, f.m.partset[1].refs[1] = 12, f.install(11);
        if (c.set1 == 1 || c.set1 == 2) f.install(12, c.set1 == 1);
        sandbox::RunResult r = f.run(c.args, c.before);
        EXPECT_EQ(f.after + " " + std::to_string(r.status) + ":" + r.out + r.err + f.dev.read_file(f.hooks), c.expect)
            << c.args;
    }
    const std::string check = "CRC32 content check: ", dis = check + "DISPARITY\n", pool = "  Belongs to pool ",
                      ws = "\n             ", d = " have a disparity between" + ws + "calculated and hostconfig recorded",
                      crcs = ws + "CRC32 values.\n", multi = "WARNING: 1/4 multi pools" + d + crcs,
                      single = "WARNING: 1/4 singleton pools" + d + " " + crcs,
                      active = ws.substr(1) + "AT LEAST ONE OF THESE SINGLETONS IS PART OF THE ACTIVE SET" + ws +
                               "DO NOT REBOOT UNTIL THIS ISSUE HAS BEEN FIXED!\n";
    // Set 1 lists 11; 12 has its header in front, 13 no CRC. bad: a damaged entry, -2: no hostconfig stored.
    const struct { const char* args; int bad; bool in_active; int status; std::string out, err; } checks[] = {
        {"verify", -2, false, 0, "  9  Not handled by KOR\n 10  Not handled by KOR\n 11  Nothing installed\n", ""},
        {"verify", 11, false, 0, " 11" + pool + "KNLS             " + dis, multi},
        {"verify", 5, true, 0, "  5" + pool + "SAFEKNLS         " + dis, single},
        {"verify", 5, false, 0, "  5" + pool + "SAFEKNLS         " + dis, single},
        {"verify", -1, false, 0, " 11" + pool + "KNLS             " + check + "OK\n 12" + pool + "DTS              " +
                                 check + "OK (wts=2)\n 13" + pool + "ROOTS            " + check + "UNKNOWN\n", ""},
        {"verify 1", -1, false, 0, "", ""}, {"verify SET2", -1, false, 1, "", ""},
    };
    for (const auto& c : checks) {
        Fixture f;
        f.m.partset[1].refs[0] = 11;
        if (c.in_active) f.m.partset[0].refs[0] = static_cast<int8_t>(c.bad);
        for (int i : {5, 11, 12, 13})
            if (i != 5 || c.bad == 5) f.install(i, i != c.bad, i == 12);
        f.m.pinfometa[13].body_crc = 0;
        sandbox::RunResult r = f.run(c.args, "0.0.0", c.bad == -2);
        const bool found = r.out.find(c.out) != std::string::npos, warned = r.out.find(active) != std::string::npos;
        EXPECT_EQ(std::to_string(r.status) + (found ? "" : r.out) + (r.out.empty() ? "-" : "") + r.err +
                      (warned ? "!" : ""),
                  std::to_string(c.status) + (c.out.empty() ? "-" : "") + c.err + (c.in_active ? "!" : "")) << c.args;
    }
}

// A software content header as the flash holds it (CRCs by zlib); 4 KiB of flash: the content, headers behind it.
const bytes kBody(256, 9);
bytes header(uint8_t version, uint16_t length = 64, uint32_t body_crc = crc(kBody), uint32_t crc_flip = 0)
{
    korl_pinfometa p{0, 4, length, static_cast<uint32_t>(kBody.size()), "KNL-SAFE", body_crc, version, 0, 0, {}};
    bytes h(reinterpret_cast<uint8_t*>(&p), reinterpret_cast<uint8_t*>(&p + 1));
    h.resize(length);
    const uint32_t hcrc = static_cast<uint32_t>(::crc32(0, &h[4], length - 4u)) ^ crc_flip;
    return std::memcpy(&h[0], &hcrc, 4), h;
}

TEST(Cycle, Rebuild)
{
    KOR_SANDBOX_OR_SKIP();
    const char* knl = "KNL-SAFE";  // version -1: not found
    const struct { const char* what; std::vector<std::pair<size_t, bytes>> placed; uint32_t size; int version; }
        cases[] = {
        {"short device", {{1027, header(2)}}, 0x200000, 2},
        {"bad header crc first", {{1024, header(3, 64, crc(kBody), 1)}, {2049, header(4)}}, 4096, 4},
        {"bad body crc", {{1024, header(5, 64, 0x1234)}}, 4096, -1},
        {"name too close to start", {{5, bytes(knl, knl + 8)}}, 4096, -1},
        {"last fitting position", {{4096 - 65, header(6)}}, 4096, 6},
        {"too close to the end", {{4096 - 64, header(7)}}, 4096, -1},
        {"header longer than kept", {{1024, header(8, 76)}}, 4096, -1},
    };
    for (const auto& c : cases) {
        bytes flash = kBody;
        flash.resize(4096, 0xFF);
        for (const auto& [at, b] : c.placed) std::copy(b.begin(), b.end(), flash.begin() + at);
        Device dev;
        dev.add_block_device("/dev/mtd7", flash);
        korl_data m{};
        testing::internal::CaptureStderr();
        const std::string got = std::to_string(rebuild_meta(&m, knl, 7, c.size));
        EXPECT_EQ(got + testing::internal::GetCapturedStderr(),
                  c.version >= 0 ? "1" : "0rebuild_meta: Failed to locate tsb for KNL-SAFE\n") << c.what;
        const auto* stored = reinterpret_cast<uint8_t*>(&m.pinfometa[7]);
        EXPECT_EQ(bytes(stored, stored + 64), c.version >= 0 ? header(uint8_t(c.version)) : bytes(64, 0)) << c.what;
    }
}

}  // namespace
