// Activate, upgrade and verify run as the production binary on a sandboxed
// device; the rebuild is called in-process inside the same sandbox.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <syslog.h>
#include <zlib.h>

#include <algorithm>
#include <cstring>

#include "frontend/options.h"
#include "hostconfig/hostconfig.h"
#include "korl/korl.h"
#include "support/sandbox.h"

namespace {

using sandbox::bytes;
using sandbox::Device;
using strings = std::vector<std::string>;
constexpr uint64_t kFlags = 0x3FE00;
constexpr uint64_t kActset = 56;  // ident 8 + file header 16 + content header 32

uint32_t crc(const bytes& b) { return static_cast<uint32_t>(::crc32(0, b.data(), b.size())); }
bytes pattern(size_t n, uint8_t seed)
{
    bytes b(n);
    for (size_t i = 0; i < n; i++) b[i] = static_cast<uint8_t>(seed + i * 7);
    return b;
}

korl_data default_meta()
{
    hostconfig hc;
    korl_data m;
    EXPECT_EQ(korl_init(&m) + hostconfig_new(&hc, HOSTCONFIG_MAX) + hostconfig_default(&hc) +
                  korl_hostconfig_import(&m, &hc), 4);
    return m;
}

void store(const korl_data& m, const char* path = "/dev/mmcblk0p3")
{
    hostconfig hc;
    ASSERT_EQ(hostconfig_new(&hc, HOSTCONFIG_MAX) + korl_hostconfig_export(&m, &hc), 2);
    ASSERT_EQ(hostconfig_save(&hc, path, nullptr), 1);
}

// Records content for entry idx and writes it to its partition, damaged
// (one byte flipped) unless `good`, with its header in front if asked.
void install(Device& dev, korl_data& m, int idx, bool good = true, bool header_first = false)
{
    bytes body = pattern(3000, static_cast<uint8_t>(idx));
    korl_pinfometa& p = m.pinfometa[idx];
    std::snprintf(p.name, sizeof p.name, "content%d", idx);
    p.body_length = static_cast<uint32_t>(body.size());
    p.body_crc = crc(body);
    p.hdr_length = header_first ? 64 : 0;
    if (!good) body[100] ^= 0xFF;
    auto* hdr = reinterpret_cast<const uint8_t*>(&p);
    if (header_first) body.insert(body.begin(), hdr, hdr + 64);
    dev.write(Device::part(m.partinfo[idx].pn), 0, body);
}

struct Fixture {
    Device dev;
    korl_data m = default_meta();
    Fixture() { dev.with_default_layout(); }
    bytes flags() { return dev.read(Device::part(3), kFlags, 2); }
    int actset() { return dev.read(Device::part(3), kActset, 1)[0]; }
};

TEST(Activate, Table)
{
    KOR_SANDBOX_OR_SKIP();
    // set1: -1 nothing stored, 0 no refs, 1 good, 2 a partition damaged, 3 an entry empty.
    // Flags before each run: {0x01, 0x03}. hook: the active set the plugin's hook saw (-1: not called).
    const struct { strings args; int set1, status; std::string err; int actset; bytes flags; int hook; } cases[] = {
        {{"activate", "1"}, 1, 0, "", 1, {0x00, 0x03}, 1},
        {{"activate", "SET1"}, 1, 0, "", 1, {0x00, 0x03}, 1},
        {{"activate", "0x1"}, 1, 0, "", 1, {0x00, 0x03}, 1},
        {{"-dryrun", "activate", "1"}, 1, 0, "", 0, {0x01, 0x03}, 1},
        {{"-f", "activate", "2"}, 0, 0, "", 2, {0x01, 0x00}, 2},
        {{"-f", "activate", "0"}, 0, 0, "", 0, {0x01, 0x03}, 0},
        {{"activate", "3"}, 1, 1, "activate: invalid set id: 3\n", 0, {0x01, 0x03}, -1},
        {{"activate", "FOO"}, 1, 1, "activate: invalid set id: FOO\n", 0, {0x01, 0x03}, -1},
        {{"activate"}, 1, 1, "activate: invalid set id: (none)\n", 0, {0x01, 0x03}, -1},
        {{"activate", "2"}, 0, 1, "activate: set 2 validation err=1\n", 0, {0x01, 0x03}, -1},
        {{"activate", "1"}, -1, 1, "activate: set 1 validation err=1\n", 0, {0x01, 0x03}, -1},
        {{"activate", "1"}, 2, 1, "activate: set 1 validation err=4\n", 0, {0x01, 0x03}, -1},
        {{"activate", "1"}, 3, 1, "activate: set 1 validation err=2\n", 0, {0x01, 0x03}, -1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args.back() + " set1=" + std::to_string(c.set1));
        Fixture f;
        if (c.set1 > 0) {
            f.m.partset[1].refs[0] = 11;
            f.m.partset[1].refs[1] = 12;
            install(f.dev, f.m, 11);
        }
        if (c.set1 == 1 || c.set1 == 2) install(f.dev, f.m, 12, c.set1 == 1);
        if (c.set1 >= 0) store(f.m);
        f.dev.write(Device::part(3), kFlags, {0x01, 0x03});
        sandbox::RunOptions o;
        std::string hooks = f.dev.workdir() + "/hooks.log";
        o.env = {{"KOR_TEST_HOOK_LOG", hooks}, {"KOR_TEST_HOOK_ACTIVATE_POST", "7"}};  // result ignored
        strings args = c.args;
        args.push_back("-plugin=" + f.dev.stage(KOR_PLUGIN_test_plugin));
        sandbox::RunResult r = f.dev.kor(args, o);
        EXPECT_EQ(f.dev.exists(hooks) ? f.dev.read_file(hooks) : "",
                  c.hook < 0 ? "" : "kor_activate_hook_post " + std::to_string(c.hook) + "\n");
        EXPECT_EQ(r.status, c.status);
        EXPECT_EQ(r.err, c.err);
        if (c.status != 0) { EXPECT_EQ(r.log.back().priority, LOG_ERR); }
        EXPECT_EQ(f.actset(), c.actset);
        EXPECT_EQ(f.flags(), c.flags);
    }
}

TEST(Upgrade, StateTable)
{
    KOR_SANDBOX_OR_SKIP();
    const char *set1 = "console=ttyS0 KORSET=SET1 root=/dev/mmcblk0p13", *set2 = "console=ttyS0 KORSET=SET2",
               *safe = "console=ttyS0 KORSET=SAFESET", *none = "console=ttyS0 root=/dev/mmcblk0p7",
               *set5 = "KORSET=SET5";
    const std::string valid = "Already validated\n", invalid = "Upgrade state is invalid\n";
    const strings act = {"upgrade", "activate"}, test_act = {"-test", "upgrade", "activate"},
                  validate = {"upgrade", "validate"}, test = {"upgrade", "test"};
    // activeset: the active-set file (nullptr: none); actset and flags before, then after the run.
    const struct { const char* cmdline; strings args; const char* activeset; int actset; bytes flags;
                   int status; std::string out, err; int actset_after; bytes flags_after; } cases[] = {
        {set1, test_act, "2", 1, {0, 0}, 0, "", "", 2, {0, 1}},
        {safe, test_act, "2", 1, {0, 3}, 0, "", "", 2, {0, 0}},
        {set1, act, "2", 1, {0, 1}, 0, "", "", 2, {0, 0}},
        {set1, test_act, "2", 2, {0, 3}, 0, "", "", 2, {0, 3}},
        {set1, {"-dryrun", "-test", "upgrade", "activate"}, "2", 1, {0, 0}, 0, "", "", 1, {0, 0}},
        {set1, test_act, "0", 1, {0, 0}, 1, "", "failed to set upgrade state\n", 0, {0, 0}},
        {set1, act, nullptr, 1, {0, 0}, 1, "", "", 1, {0, 0}},
        {set1, act, "5", 1, {0, 0}, 1, "", "upgrade: active set file names no valid set: 5\n", 1, {0, 0}},
        {set2, validate, nullptr, 2, {1, 1}, 0, "", "", 2, {1, 0}},
        {set2, validate, nullptr, 2, {1, 3}, 0, "", "", 2, {1, 0}},
        {set1, validate, nullptr, 1, {3, 3}, 0, "", "", 1, {0, 3}},
        {set2, validate, nullptr, 2, {1, 2}, 0, valid, "", 2, {1, 2}},
        {none, validate, nullptr, 0, {1, 1}, 0, valid, "", 0, {1, 1}},
        {set5, validate, nullptr, 0, {1, 1}, 1, invalid, "", 0, {1, 1}},
        {set2, {"-dryrun", "upgrade", "validate"}, nullptr, 2, {1, 3}, 0, "", "", 2, {1, 3}},
        {set2, test, nullptr, 2, {3, 3}, 0, "", "", 2, {3, 1}},
        {set2, test, nullptr, 2, {0, 1}, 0, "", "", 2, {0, 1}},
        {set5, test, nullptr, 0, {3, 3}, 1, invalid, "", 0, {3, 3}},
        {"KORSET=SET1 KORSET=SET2", test, nullptr, 0, {3, 3}, 0, "", "", 0, {1, 3}},
        {set2, {"upgrade"}, nullptr, 0, {0, 3}, 1, "", "upgrade: Missing argument\n", 0, {0, 3}},
        {set2, {"upgrade", "bogus"}, nullptr, 0, {0, 3}, 1, "", "upgrade: unknown command.\n", 0, {0, 3}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.cmdline) + " | " + c.args.back());
        Fixture f;
        f.dev.set_cmdline(c.cmdline);
        f.m.actset = static_cast<uint8_t>(c.actset);
        store(f.m);
        if (c.activeset) f.dev.write_file("/tmp/kor.activeset", c.activeset);
        f.dev.write(Device::part(3), kFlags, c.flags);
        sandbox::RunResult r = f.dev.kor(c.args);
        EXPECT_EQ(r.status, c.status);
        EXPECT_EQ(r.out + r.err, c.out + c.err);
        EXPECT_EQ(f.actset(), c.actset_after);
        EXPECT_EQ(f.flags(), c.flags_after);
    }
}

std::string fresh_listing()
{
    std::string s = "Verifying partitions:\n";
    for (int i = 0; i < 22; i++) {
        bool kor = (i >= 5 && i <= 8) || (i >= 11 && i <= 18);
        s += (i < 10 ? "  " : " ") + std::to_string(i) + (kor ? "  Nothing installed\n" : "  Not handled by KOR\n");
    }
    return s;
}

TEST(Verify, Table)
{
    KOR_SANDBOX_OR_SKIP();
    const std::string multi = "WARNING: 1/4 multi pools have a disparity between\n             calculated and "
                              "hostconfig recorded\n             CRC32 values.\n";
    const std::string single = "WARNING: 1/4 singleton pools have a disparity between\n             calculated "
                               "and hostconfig recorded \n             CRC32 values.\n";
    const std::string active = "             AT LEAST ONE OF THESE SINGLETONS IS PART OF THE ACTIVE SET\n"
                               "             DO NOT REBOOT UNTIL THIS ISSUE HAS BEEN FIXED!\n";
    const std::string check = "CRC32 content check: ";
    const std::string set1 = "verify_set: Set 1: SET1\nverify_set:   ref 11: KNLS         content11   : ok\n";
    const std::string no_refs = "verify_set:   no refs\n";
    // Set 1 lists entry 11 (good); 12 holds its header in front, 13 has no recorded CRC. `bad` is an entry
    // with a damaged partition, listed by the active set when `in_active`. A fresh device has no hostconfig.
    // `out` is a line of the listing, or the whole report for a fresh device and in set mode.
    const struct { strings args; int bad; bool in_active, fresh; int status; std::string out, err; } cases[] = {
        {{"verify"}, -1, false, true, 0, fresh_listing(), ""},
        {{"verify"}, 11, false, false, 0, " 11  Belongs to pool KNLS             " + check + "DISPARITY\n", multi},
        {{"verify"}, 5, true, false, 0, "  5  Belongs to pool SAFEKNLS         " + check + "DISPARITY\n", single},
        {{"verify"}, 5, false, false, 0, "  5  Belongs to pool SAFEKNLS         " + check + "DISPARITY\n", single},
        {{"verify"}, -1, false, false, 0, " 12  Belongs to pool DTS              " + check + "OK (wts=2)\n", ""},
        {{"verify"}, -1, false, false, 0, " 13  Belongs to pool ROOTS            " + check + "UNKNOWN\n", ""},
        {{"verify"}, -1, false, false, 0, " 11  Belongs to pool KNLS             " + check + "OK\n", ""},
        {{"verify", "1"}, -1, false, false, 0, "", ""},
        {{"verify", "SET2"}, -1, false, false, 1, "", ""},
        {{"-v", "verify", "1"}, -1, false, false, 0, "verify_sets: Checking set 1\n" + set1, ""},
        {{"verify", "7"}, -1, false, false, 1, "verify_sets: Checking set -1\nverify_set: Set 0: SAFESET\n" +
                                                   no_refs + set1 + "verify_set: Set 2: SET2\n" + no_refs, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args.back() + " bad=" + std::to_string(c.bad));
        Fixture f;
        f.m.partset[1].refs[0] = 11;
        install(f.dev, f.m, 11, c.bad != 11);
        install(f.dev, f.m, 12, true, true);
        install(f.dev, f.m, 13);
        f.m.pinfometa[13].body_crc = 0;
        if (c.bad == 5) install(f.dev, f.m, 5, false);
        if (c.in_active) f.m.partset[0].refs[0] = static_cast<int8_t>(c.bad);
        if (!c.fresh) store(f.m);
        sandbox::RunResult r = f.dev.kor(c.args);
        EXPECT_EQ(r.status, c.status);
        if (c.fresh || c.args.size() > 1) {  // behind the front end's option dump with -v
            EXPECT_EQ(r.out.substr(r.out.size() - std::min(r.out.size(), c.out.size())), c.out);
            EXPECT_EQ(r.out.empty(), c.out.empty());
        }
        EXPECT_NE(r.out.find(c.out), std::string::npos) << r.out;
        EXPECT_EQ(r.err, c.err);
        EXPECT_EQ(r.out.find(active) != std::string::npos, c.in_active);
    }
}

// A software content header as the flash holds it, its CRCs made by zlib.
const bytes kBody = pattern(256, 9);
bytes safe_header(const char* name, uint8_t version, uint16_t hdr_length = 64, uint32_t body_crc = crc(kBody),
                  uint32_t crc_flip = 0)
{
    bytes h(hdr_length, 0);
    auto put = [&h](size_t at, uint32_t v, int width) {
        for (int i = 0; i < width; i++) h[at + i] = static_cast<uint8_t>(v >> (8 * i));
    };
    put(4, 4, 2);
    put(6, hdr_length, 2);
    put(8, static_cast<uint32_t>(kBody.size()), 4);
    std::memcpy(&h[12], name, std::strlen(name));
    put(28, body_crc, 4);
    h[32] = version;
    put(0, static_cast<uint32_t>(::crc32(0, &h[4], hdr_length - 4u)) ^ crc_flip, 4);
    return h;
}

// 4 KiB of flash: the content from byte 0, headers placed behind it.
bytes flash(std::vector<std::pair<size_t, bytes>> placed)
{
    bytes f(4096, 0xFF);
    std::copy(kBody.begin(), kBody.end(), f.begin());
    for (const auto& [at, b] : placed) std::copy(b.begin(), b.end(), f.begin() + at);
    return f;
}

TEST(Rebuild, MetaScan)
{
    KOR_SANDBOX_OR_SKIP();
    const char* knl = "KNL-SAFE";
    const struct { const char* what; bytes device; uint32_t size; int version; /* -1 not found */ } cases[] = {
        {"misaligned", flash({{1027, safe_header(knl, 2)}}), 4096, 2},
        {"short device", flash({{1027, safe_header(knl, 2)}}), 0x200000, 2},
        {"bad header crc first", flash({{1024, safe_header(knl, 3, 64, crc(kBody), 1)},
                                        {2049, safe_header(knl, 4)}}), 4096, 4},
        {"bad body crc", flash({{1024, safe_header(knl, 5, 64, 0x1234)}}), 4096, -1},
        {"name too close to start", flash({{5, bytes(knl, knl + 8)}}), 4096, -1},
        {"last fitting position", flash({{4096 - 65, safe_header(knl, 6)}}), 4096, 6},
        {"too close to the end", flash({{4096 - 64, safe_header(knl, 7)}}), 4096, -1},
        {"header longer than kept", flash({{1024, safe_header(knl, 8, 76)}}), 4096, -1},
        {"nothing read", flash({{1024, safe_header(knl, 9)}}), 0, -1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Device dev;
        dev.add_block_device("/dev/mtd7", c.device);
        korl_data m{};
        testing::internal::CaptureStderr();
        EXPECT_EQ(rebuild_meta(&m, knl, 7, c.size), c.version >= 0 ? 1 : 0);
        std::string err = testing::internal::GetCapturedStderr();
        EXPECT_EQ(err, c.version >= 0 ? "" : "rebuild_meta: Failed to locate tsb for KNL-SAFE\n");
        bytes want = c.version >= 0 ? safe_header(knl, static_cast<uint8_t>(c.version)) : bytes(64, 0);
        EXPECT_EQ(0, std::memcmp(&m.pinfometa[7], want.data(), 64));
    }
}

TEST(Rebuild, Hostcfg)
{
    KOR_SANDBOX_OR_SKIP();
    Device dev;
    dev.with_default_layout();
    dev.add_block_device("/dev/mtd7", flash({{1026, safe_header("KNL-SAFE", 1)}}));
    korl_data m = default_meta();
    m.actset = 2;
    ASSERT_EQ(::mkdir("/mnt/appl", 0755), 0);
    store(m, HOSTCONFIG_DEFAULT_FILE);
    kor_options o{};
    std::snprintf(o.cfg, sizeof o.cfg, "/dev/mmcblk0p3");
    hostconfig hc;
    testing::internal::CaptureStderr();
    EXPECT_EQ(rebuild_hostcfg(&o, &m, &hc), 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "rebuild_hostcfg: Using /mnt/appl/hostcfg.default as initial hostconfig\n"
              "rebuild_meta: Could not open /dev/mtd8 for read\nrebuild_hostcfg: tsb for ROOT-SAFE not found\n"
              "rebuild_meta: Could not open /dev/mtd19 for read\nrebuild_hostcfg: tsb for APPL-SAFE not found\n");
    EXPECT_STREQ(o.cfg, "/dev/mmcblk0p3");
    EXPECT_EQ(m.actset, 2);
    EXPECT_EQ(m.pinfometa[7].sw_version_major, 1);
    ASSERT_EQ(::unlink(HOSTCONFIG_DEFAULT_FILE), 0);  // now the defaults: no file, no backup
    EXPECT_EQ(rebuild_hostcfg(&o, &m, &hc), 1);
    EXPECT_EQ(m.actset, 0);
    EXPECT_STREQ(m.partinfo[11].poolname, "KNLS");
}

}  // namespace
