// Activate, upgrade and verify run as the production binary on a sandboxed device; the rebuild in-process.
#include <gtest/gtest.h>
#include <syslog.h>
#include <zlib.h>

#include <cstring>

#include "base/console.h"
#include "base/options.h"
#include "hostconfig/hostconfig.h"
#include "korl/korl.h"
#include "support/cli_case.h"
#include "support/sandbox.h"

namespace {

using cli::Hook;
using sandbox::bytes;
using sandbox::Device;

uint32_t crc(const bytes& b) { return static_cast<uint32_t>(::crc32(0, b.data(), uInt(b.size()))); }

// The default layout as kor makes it, in the test's hands before it is stored.
korl_data default_record()
{
    korl_data m{};
    static hostconfig hc;
    EXPECT_EQ(korl_init(&m), 1);
    EXPECT_EQ(hostconfig_new(&hc, HOSTCONFIG_MAX), 1);
    EXPECT_EQ(hostconfig_default(&hc), 1);
    EXPECT_EQ(korl_hostconfig_import(&m, &hc), 1);
    return m;
}

// Content for entry `idx` on its partition, recorded in `m`: 3000 bytes, damaged after recording unless `good`,
// with the recorded header in front when `header_first`.
void install(Device& dev, korl_data& m, int idx, bool good = true, bool header_first = false)
{
    bytes body(3000, static_cast<uint8_t>(idx));
    auto& p = m.pinfometa[idx] = {0, 0, uint16_t(header_first ? 64 : 0), 3000, {}, crc(body), 0, 0, 0, {}};
    if (!good) body[100] ^= 0xFF;
    if (header_first) body.insert(body.begin(), reinterpret_cast<uint8_t*>(&p), reinterpret_cast<uint8_t*>(&p + 1));
    dev.write(Device::part(m.partinfo[idx].pn), 0, body);
}

// `m` with `actset` as the hostconfig on p3 (none when `m` is null), then the two flag bytes.
void store(Device& dev, korl_data* m, int actset, const bytes& flags)
{
    if (m) {
        static hostconfig hc;
        m->actset = static_cast<uint8_t>(actset);
        ASSERT_EQ(hostconfig_new(&hc, HOSTCONFIG_MAX), 1);
        ASSERT_EQ(korl_hostconfig_export(m, &hc), 1);
        ASSERT_EQ(hostconfig_save(&hc, "/dev/mmcblk0p3", nullptr), 1);
    }
    dev.write(Device::part(3), HOSTCONFIG_FLAGS_OFFSET, flags);
}

// What set 1 holds before the run.
enum class Set1 {
    defaults,      // as the default layout has it
    good,          // references 11 and 12, both installed and intact
    damaged_12,    // references 11 and 12, entry 12 damaged
    empty_12,      // references 11 and 12, nothing installed in entry 12
};

// A run of kor with the hook-logging test plugin (the activate hook returns 7, which kor ignores), on the default
// layout stored with set 1 as named, active set 0 and flag bytes 1, 3 unless the row says otherwise, and the
// kernel command line empty unless it names one.
class CycleRow : public cli::Builder<CycleRow> {
public:
    explicit CycleRow(const std::string& args) : Builder(args)
    {
        Builder::args(args);
        hook_returns(Hook::activate_post, 7);
    }
    CycleRow& set1(Set1 s)
    {
        const char* names[] = {"defaults", "good", "entry 12 damaged", "entry 12 empty"};
        name += ", set 1 " + std::string(names[int(s)]);
        set1_ = s;
        return *this;
    }
    CycleRow& stored_before(int actset, const bytes& flags)
    {
        name += ", before: actset " + std::to_string(actset) + ", flags " + std::to_string(flags.at(0)) + " " +
                std::to_string(flags.at(1));
        actset_ = actset;
        flags_ = flags;
        return *this;
    }
    // What the stored record and the flags area hold afterwards.
    CycleRow& after(int actset, const bytes& flags)
    {
        return stored("actset", std::to_string(actset)).flags_area(flags);
    }
    // All the run printed or called: nothing, a text on one stream, or the activate hook's call.
    CycleRow& silent() { return stdout_is("").stderr_is("").hooks_called({}); }
    CycleRow& only_stdout(const std::string& t) { return stdout_is(t).stderr_is("").hooks_called({}); }
    CycleRow& only_stderr(const std::string& t) { return stdout_is("").stderr_is(t).hooks_called({}); }
    CycleRow& only_hook_call(const std::string& c) { return stdout_is("").stderr_is("").hooks_called({c}); }

    void prepare(Device& dev) const
    {
        dev.with_default_layout();
        dev.set_cmdline("");
        korl_data m = default_record();
        if (set1_ != Set1::defaults) {
            m.partset[1].refs[0] = 11;
            m.partset[1].refs[1] = 12;
            install(dev, m, 11);
        }
        if (set1_ == Set1::good || set1_ == Set1::damaged_12) install(dev, m, 12, set1_ == Set1::good);
        store(dev, &m, actset_, flags_);
    }

private:
    Set1 set1_ = Set1::defaults;
    int actset_ = 0;
    bytes flags_ = {1, 3};
};

const std::string kCmdlineSet1 = "console=ttyS0 KORSET=SET1 root=/dev/mmcblk0p13", kCmdlineSet2 = "ro KORSET=SET2",
                  kCmdlineSet5 = "KORSET=SET5", kActiveset = "/tmp/kor.activeset";

// The plain cycle (the test mark set from a booted set, validation after the test boot) runs on the emulated device
// with its boot loader (tests/device), and so does verify's warning about a multi pool's disparity.
const CycleRow kCycle[] = {
    CycleRow("activate SET1").set1(Set1::good).status(0).after(1, {0, 3}).only_hook_call("kor_activate_hook_post 1"),
    CycleRow("-dryrun activate 1").set1(Set1::good)
        .status(0).after(0, {1, 3}).only_hook_call("kor_activate_hook_post 1"),
    CycleRow("-f activate 2").status(0).after(2, {1, 0}).only_hook_call("kor_activate_hook_post 2"),
    CycleRow("activate 3").set1(Set1::good).status(1).after(0, {1, 3}).only_stderr("activate: invalid set id: 3\n"),
    CycleRow("activate").set1(Set1::good).status(1).after(0, {1, 3}).only_stderr("activate: invalid set id: (none)\n"),
    CycleRow("activate 2").status(1).after(0, {1, 3}).only_stderr("activate: set 2 validation err=1\n"),
    CycleRow("activate 1").set1(Set1::damaged_12).status(1).after(0, {1, 3})
        .only_stderr("activate: set 1 validation err=4\n"),
    CycleRow("activate 1").set1(Set1::empty_12).status(1).after(0, {1, 3})
        .only_stderr("activate: set 1 validation err=2\n"),
    CycleRow("-test upgrade activate").cmdline("ro KORSET=SAFESET").file(kActiveset, "2").stored_before(1, {0, 3})
        .status(0).after(2, {0, 0}).silent(),
    CycleRow("upgrade activate").cmdline(kCmdlineSet1).file(kActiveset, "2").stored_before(1, {0, 1})
        .status(0).after(2, {0, 0}).silent(),
    CycleRow("-test upgrade activate").cmdline(kCmdlineSet1).file(kActiveset, "2").stored_before(2, {0, 3})
        .status(0).after(2, {0, 3}).silent(),
    CycleRow("upgrade activate").cmdline(kCmdlineSet1).stored_before(1, {0, 0})  // no active set file
        .status(1).after(1, {0, 0}).silent(),
    CycleRow("-dryrun -test upgrade activate").cmdline(kCmdlineSet1).file(kActiveset, "2").stored_before(1, {0, 0})
        .status(0).after(1, {0, 0}).silent(),
    CycleRow("-test upgrade activate").cmdline(kCmdlineSet1).file(kActiveset, "0").stored_before(1, {0, 0})
        .status(1).after(0, {0, 0}).only_stderr("failed to set upgrade state\n"),
    CycleRow("upgrade activate").cmdline(kCmdlineSet1).file(kActiveset, "5").stored_before(1, {0, 0})
        .status(1).after(1, {0, 0}).only_stderr("upgrade: active set file names no valid set: 5\n"),
    CycleRow("upgrade validate").cmdline(kCmdlineSet2).stored_before(2, {1, 1}).status(0).after(2, {1, 0}).silent(),
    CycleRow("upgrade validate").cmdline(kCmdlineSet2).stored_before(2, {1, 2})
        .status(0).after(2, {1, 2}).only_stdout("Already validated\n"),
    CycleRow("upgrade validate").cmdline("ro root=/dev/mmcblk0p7").stored_before(0, {1, 1})
        .status(0).after(0, {1, 1}).only_stdout("Already validated\n"),
    CycleRow("upgrade validate").cmdline(kCmdlineSet5).stored_before(0, {1, 1})
        .status(1).after(0, {1, 1}).only_stdout("Upgrade state is invalid\n"),
    CycleRow("-dryrun upgrade validate").cmdline(kCmdlineSet2).stored_before(2, {1, 3})
        .status(0).after(2, {1, 3}).silent(),
    CycleRow("upgrade test").cmdline(kCmdlineSet2).stored_before(2, {3, 3}).status(0).after(2, {3, 1}).silent(),
    CycleRow("upgrade test").cmdline(kCmdlineSet2).stored_before(2, {0, 1}).status(0).after(2, {0, 1}).silent(),
    CycleRow("upgrade test").cmdline(kCmdlineSet5).stored_before(0, {3, 3})
        .status(1).after(0, {3, 3}).only_stdout("Upgrade state is invalid\n"),
    CycleRow("upgrade test").cmdline("KORSET=SET1 KORSET=SET2").stored_before(0, {3, 3})  // the first word counts
        .status(0).after(0, {1, 3}).silent(),
    CycleRow("upgrade").cmdline(kCmdlineSet2).stored_before(0, {0, 3})
        .status(1).after(0, {0, 3}).only_stderr("upgrade: Missing argument\n"),
    CycleRow("upgrade bogus").cmdline(kCmdlineSet2).stored_before(0, {0, 3})
        .status(1).after(0, {0, 3}).only_stderr("upgrade: unknown command.\n"),
};

TEST(Cycle, ActivateAndUpgrade)
{
    KOR_SANDBOX_OR_SKIP();
    for (const CycleRow& row : kCycle) {
        Device dev;
        row.prepare(dev);
        cli::run(row, dev);
    }
}

const std::string kCheck = "CRC32 content check: ", kPool = "  Belongs to pool ",
                  kWrap = "\n             ",  // the warnings' continuation lines
                  kDisparity = " have a disparity between" + kWrap + "calculated and hostconfig recorded",
                  kSingletonWarning = "WARNING: 1/4 singleton pools" + kDisparity + " " + kWrap + "CRC32 values.\n",
                  kActiveWarning = kWrap.substr(1) + "AT LEAST ONE OF THESE SINGLETONS IS PART OF THE ACTIVE SET" +
                                   kWrap + "DO NOT REBOOT UNTIL THIS ISSUE HAS BEEN FIXED!\n";

// A verify run on the default layout where set 1 lists 11, entries 5 (when damaged), 11, 12 and 13 hold content:
// 12 with its header in front, 13 recorded without a CRC. One entry may be damaged, and may be in the active set.
class VerifyRow : public cli::Builder<VerifyRow> {
public:
    explicit VerifyRow(const std::string& args) : Builder(args)
    {
        Builder::args(args);
        hook_returns(Hook::activate_post, 7);
    }
    VerifyRow& damaged(int idx)
    {
        name += ", entry " + std::to_string(idx) + " damaged";
        damaged_ = idx;
        return *this;
    }
    VerifyRow& damaged_in_active_set(int idx)
    {
        damaged_in_active_ = true;
        name += " in the active set";
        return damaged(idx);
    }
    VerifyRow& nothing_stored()
    {
        name += ", no hostconfig stored";
        stored_ = false;
        return *this;
    }

    void prepare(Device& dev) const
    {
        dev.with_default_layout();
        korl_data m = default_record();
        m.partset[1].refs[0] = 11;
        if (damaged_in_active_) m.partset[0].refs[0] = static_cast<int8_t>(damaged_);
        for (int i : {5, 11, 12, 13})
            if (i != 5 || damaged_ == 5) install(dev, m, i, i != damaged_, i == 12);
        m.pinfometa[13].body_crc = 0;
        store(dev, stored_ ? &m : nullptr, 0, {0, 0});
    }

private:
    int damaged_ = -1;
    bool damaged_in_active_ = false, stored_ = true;
};

const VerifyRow kVerify[] = {
    VerifyRow("verify").nothing_stored().status(0).stderr_is("").stdout_lacks(kActiveWarning)
        .stdout_has("  9  Not handled by KOR\n 10  Not handled by KOR\n 11  Nothing installed\n"),
    VerifyRow("verify").damaged_in_active_set(5).status(0).stderr_is(kSingletonWarning).stdout_has(kActiveWarning)
        .stdout_has("  5" + kPool + "SAFEKNLS         " + kCheck + "DISPARITY\n"),
    VerifyRow("verify").damaged(5).status(0).stderr_is(kSingletonWarning).stdout_lacks(kActiveWarning)
        .stdout_has("  5" + kPool + "SAFEKNLS         " + kCheck + "DISPARITY\n"),
    VerifyRow("verify").status(0).stderr_is("").stdout_lacks(kActiveWarning)
        .stdout_has(" 11" + kPool + "KNLS             " + kCheck + "OK\n 12" + kPool + "DTS              " + kCheck +
                    "OK (wts=2)\n 13" + kPool + "ROOTS            " + kCheck + "UNKNOWN\n"),
    VerifyRow("verify 1").status(0).stdout_is("").stderr_is(""),
    VerifyRow("verify SET2").status(1).stdout_is("").stderr_is(""),
};

TEST(Cycle, Verify)
{
    KOR_SANDBOX_OR_SKIP();
    for (const VerifyRow& row : kVerify) {
        Device dev;
        row.prepare(dev);
        cli::run(row, dev);
    }
}

// A software content header as the flash holds it (CRCs by zlib); 4 KiB of flash: the content, headers behind it.
const bytes kBody(256, 9);

bytes header(uint8_t version, uint16_t length = 64, uint32_t body_crc = crc(kBody), uint32_t flip_header_crc = 0)
{
    korl_pinfometa p{0, 4, length, static_cast<uint32_t>(kBody.size()), "KNL-SAFE", body_crc, version, 0, 0, {}};
    bytes h(reinterpret_cast<uint8_t*>(&p), reinterpret_cast<uint8_t*>(&p + 1));
    h.resize(length);
    const uint32_t hcrc = static_cast<uint32_t>(::crc32(0, &h[4], length - 4u)) ^ flip_header_crc;
    std::memcpy(&h[0], &hcrc, 4);
    return h;
}

constexpr int kNotFound = -1;

TEST(Cycle, RebuildMeta)
{
    KOR_SANDBOX_OR_SKIP();
    const char* knl = "KNL-SAFE";
    const struct {
        const char* what;
        std::vector<std::pair<size_t, bytes>> placed;  // at a byte offset of the flash
        uint32_t size;                                 // the bytes searched
        int found_version;
    } cases[] = {
        {"short device", {{1027, header(2)}}, 0x200000, 2},
        {"bad header crc first", {{1024, header(3, 64, crc(kBody), 1)}, {2049, header(4)}}, 4096, 4},
        {"bad body crc", {{1024, header(5, 64, 0x1234)}}, 4096, kNotFound},
        {"name too close to start", {{5, bytes(knl, knl + 8)}}, 4096, kNotFound},
        {"last fitting position", {{4096 - 65, header(6)}}, 4096, 6},
        {"too close to the end", {{4096 - 64, header(7)}}, 4096, kNotFound},
        {"header longer than kept", {{1024, header(8, 76)}}, 4096, kNotFound},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        bytes flash = kBody;
        flash.resize(4096, 0xFF);
        for (const auto& [at, b] : c.placed) std::copy(b.begin(), b.end(), flash.begin() + long(at));
        Device dev;
        dev.add_block_device("/dev/mtd7", flash);
        korl_data m{};
        testing::internal::CaptureStderr();
        const int result = rebuild_meta(&m, knl, 7, c.size);
        const std::string err = testing::internal::GetCapturedStderr();
        const bool found = c.found_version != kNotFound;
        EXPECT_EQ(result, found ? 1 : 0);
        EXPECT_EQ(err, found ? "" : "rebuild_meta: Failed to locate tsb for KNL-SAFE\n");
        const auto* stored = reinterpret_cast<uint8_t*>(&m.pinfometa[7]);
        EXPECT_EQ(bytes(stored, stored + 64), found ? header(uint8_t(c.found_version)) : bytes(64, 0));
    }
}

// The rebuild starts from the default hostconfig file; without it, and with no backup to load, from the default
// layout. Either way it reports where it started, goes on to the flash devices and keeps -cfg= as it was.
TEST(Cycle, RebuildHostconfigFallsBackToTheDefaultLayout)
{
    KOR_SANDBOX_OR_SKIP();
    const std::string kNoFlash = "rebuild_meta: Could not open /dev/mtd7 for read\n"
                                 "rebuild_hostcfg: tsb for KNL-SAFE not found\n"
                                 "rebuild_meta: Could not open /dev/mtd8 for read\n"
                                 "rebuild_hostcfg: tsb for ROOT-SAFE not found\n"
                                 "rebuild_meta: Could not open /dev/mtd19 for read\n"
                                 "rebuild_hostcfg: tsb for APPL-SAFE not found\n";
    const struct {
        const char* what;
        bool default_file;  // stored with active set 2 and SET1 renamed
        int actset;
        const char* set1_name;
    } cases[] = {
        {"default file", true, 2, "FROM-FILE"},
        {"default file missing, no backup", false, 0, "SET1"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Device dev;
        dev.with_default_layout();
        if (c.default_file) {
            korl_data from_file = default_record();
            partset_init(&from_file, 1, "FROM-FILE");
            static hostconfig file;
            from_file.actset = 2;
            ASSERT_EQ(dev.run({"mkdir", "-p", "/mnt/appl"}).status, 0);
            ASSERT_EQ(hostconfig_new(&file, HOSTCONFIG_MAX), 1);
            ASSERT_EQ(korl_hostconfig_export(&from_file, &file), 1);
            ASSERT_EQ(hostconfig_save(&file, HOSTCONFIG_DEFAULT_FILE, nullptr), 1);
        }
        kor_options o{};
        kor_str_copy(o.cfg, sizeof o.cfg, "/dev/mmcblk0p3");  // blank, as is the backup p4
        kor_str_copy(o.cfgbak, sizeof o.cfgbak, "/dev/mmcblk0p4");
        korl_data m{};
        static hostconfig hc;
        testing::internal::CaptureStderr();
        EXPECT_EQ(rebuild_hostcfg(&o, &m, &hc), 1);
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  "rebuild_hostcfg: Using /mnt/appl/hostcfg.default as initial hostconfig\n" + kNoFlash);
        EXPECT_STREQ(o.cfg, "/dev/mmcblk0p3");
        EXPECT_EQ(m.actset, c.actset);
        EXPECT_EQ(std::string(m.partset[1].name, strnlen(m.partset[1].name, sizeof m.partset[1].name)), c.set1_name);
        EXPECT_STREQ(m.partinfo[11].poolname, "KNLS");
    }
}

}  // namespace
