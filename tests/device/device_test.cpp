// kor's life cycle on the emulated ARMv7 device (scripts/device): installs, test boots, power cuts, damaged copies.
// Each scenario powers a copy of the factory disk on boot after boot; each boot is judged by what the guest and the
// boot script say on the serial console, and by the disk's bytes read with the independent hostconfig decoder.
// Adding a scenario is adding a row below.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <optional>
#include <random>
#include <sstream>

#include "device/machine.h"
#include "support/hostconfig_decoder.h"

using device::bytes;

namespace {

constexpr int kPrimary = 3, kBackup = 4;
constexpr uint64_t kImageMax = 5120, kFlags = 0x3FE00, kKorData = 3240;
const std::string kPreload = "/usr/lib/kor-device/kill_after_writes.so";
// After its partition writes an install with -test writes the test mark (partition 3), the backup copy
// (partition 4), then the primary copy (partition 3): each is on the device before the next begins.
const std::string kHostconfigDevices = "/dev/mmcblk0p3 /dev/mmcblk0p4";
constexpr int kBeforeTestMark = 1, kBeforePrimaryCopy = 3;

// Where kor is stopped and the power cut: after the `after`-th write to a block device (to one of `devices` when
// given), having handed over `torn` bytes of it (-1: all of it, 0: none). `after` 0: a random one of the first 16
// writes, which are partition writes of every release here (1 MiB pieces).
struct Cut {
    std::string devices;
    int after;
    long torn;
};

struct Step {
    std::string name, command;
    int status = 0;
    std::vector<std::string> shows;  // texts its output must contain
    std::optional<Cut> cut;          // kor is stopped there and the power goes
};

// A byte of the disk flipped before a boot: of the content named `content` in set `set`, or of partition `partition`.
struct Flip {
    int set;
    std::string content;
    int partition;
    uint64_t offset;
};

// A copy of a release image in the guest's /tmp with a change that keeps every CRC-32 of the image right: 5 bytes of
// content `content` XORed with the CRC-32 polynomial, so that only a signature check can tell. Made before the steps.
struct Tamper {
    std::string image, content, copy;
};

// The stored state after a boot, as the decoder reads the disk.
struct Stored {
    std::optional<int> active;                   // actset of the copy kor loads
    std::optional<std::pair<int, int>> flags;    // the upgrade flags bytes of SET1 and SET2
    std::optional<bool> primary_checks;          // every CRC of the primary copy
    bool copies_equal = false;                   // primary and backup hold the same image
    bool primary_unchanged = false, backup_unchanged = false, backup_changed = false;  // against before the boot
};

struct Boot {
    std::vector<Flip> flips;
    std::vector<std::pair<std::string, std::string>> come_up;  // KORSET= word and release: one of these
    std::vector<std::string> loader;                           // lines the boot script must print
    std::vector<Step> steps;
    std::optional<Tamper> tamper;
    bool hang = false;  // after the steps the guest hangs: the power goes
    Stored stored;

    Boot& on(const std::string& set, const std::string& release) { come_up.push_back({set, release}); return *this; }
    Boot& says(const std::string& line) { loader.push_back(line); return *this; }
    Boot& flip(int set, const std::string& content, uint64_t offset)
    {
        flips.push_back({set, content, 0, offset});
        return *this;
    }
    Boot& flip_at(int partition, uint64_t offset) { flips.push_back({0, "", partition, offset}); return *this; }
    Boot& tampered(const std::string& image, const std::string& content, const std::string& copy)
    {
        tamper = Tamper{image, content, copy};
        return *this;
    }
    Boot& run(const std::string& name, const std::string& command)
    {
        steps.push_back({name, command, 0, {}, {}});
        return *this;
    }
    Boot& status(int s) { steps.back().status = s; return *this; }
    Boot& shows(const std::string& text) { steps.back().shows.push_back(text); return *this; }
    Boot& cut(const std::string& devices, int after, long torn)
    {
        steps.back().cut = Cut{devices, after, torn};
        return *this;
    }
    Boot& hangs() { hang = true; return *this; }
    Boot& active(int set) { stored.active = set; return *this; }
    Boot& flags(int set1, int set2) { stored.flags = {{set1, set2}}; return *this; }
    Boot& primary_checks(bool ok) { stored.primary_checks = ok; return *this; }
    Boot& copies_equal() { stored.copies_equal = true; return *this; }
    Boot& copies_untouched() { stored.primary_unchanged = stored.backup_unchanged = true; return *this; }
    Boot& only_backup_written() { stored.primary_unchanged = stored.backup_changed = true; return *this; }
};

struct Scenario {
    std::string name;
    std::vector<Boot> boots;
};

std::ostream& operator<<(std::ostream& o, const Scenario& s) { return o << s.name; }

// ---- pieces of scenarios ----

std::string release(const std::string& version) { return "/updates/rel-" + version + ".velk"; }

// The first half of an upgrade, from a running set: install into `set` without switching, then switch for a test.
Boot upgrade_to(Boot b, int set, const std::string& version)
{
    return b.run("install", "kor install " + release(version) + " " + std::to_string(set) + " -noactivate")
        .shows("Writing out")
        .run("activate", "kor upgrade activate -test");
}

// The test boot of `set` that validates it.
Boot test_boot(int set, const std::string& version)
{
    const std::string name = "SET" + std::to_string(set);
    return Boot().on(name, version).says(name + " is in TEST: boot mark set, booting it once")
        .run("state", "kor info").shows("KOR Data Upgrade set " + std::to_string(set) + ": BOOT(2)")
        .run("validate", "kor upgrade validate");
}

Boot factory() { return Boot().on("SET2", "1.0.1").says("hostconfig from partition 3").says("booting SET2"); }

// After a power cut during an install of 1.0.2 into SET1 with -test: the old set comes up and works, and the same
// install done again completes and is tested on the next boot.
std::vector<Boot> after_cut_install(Boot cut)
{
    return {cut,
            factory().run("verify", "kor verify 2").run("again", "kor install " + release("1.0.2") + " 1 -test"),
            test_boot(1, "1.0.2").active(1).flags(0, 0).copies_equal()};
}

Boot cut_install(const std::string& devices, int after, long torn)
{
    return factory().run("install", "kor install " + release("1.0.2") + " 1 -test").cut(devices, after, torn);
}

// A write into one of the sets' kernel partitions is silently dropped: dm-flakey in front of them, under their names.
const std::string kDropKernelWrites =
    "for n in 11 15; do "
    "dmsetup --noudevsync create drop$n --table "
    "\"0 $(blockdev --getsz /dev/mmcblk0p$n) flakey /dev/mmcblk0p$n 0 0 3600 1 "
    "drop_writes\" && rm /dev/mmcblk0p$n && mknod /dev/mmcblk0p$n b $(dmsetup info -c --noheadings -o major,minor "
    "drop$n | tr : ' ') || exit 1; done";

// The seed of the random cut points, printed so that a failing run can be repeated.
int random_write()
{
    static const unsigned seed = [] {
        const char* e = std::getenv("KOR_DEVICE_SEED");
        return e && *e ? unsigned(std::stoul(e)) : unsigned(std::random_device()());
    }();
    static std::mt19937 pick(seed);
    const int after = int(pick() % 16) + 1;
    std::printf("random cut after write %d (seed %u: KOR_DEVICE_SEED=%u repeats it)\n", after, seed, seed);
    return after;
}

const std::vector<Scenario>& scenarios()
{
    static const std::vector<Scenario> all = {
        {"cycle_by_file",
         {upgrade_to(factory(), 1, "1.0.2"), test_boot(1, "1.0.2"),
          Boot().on("SET1", "1.0.2").says("booting SET1").run("state", "kor info")
              .shows("KOR Data Upgrade set 1: VALID(0)").active(1).flags(0, 0).copies_equal().primary_checks(true)}},
        {"cycle_by_url",
         {factory().run("server", "httpd -p 127.0.0.1:8080 -h /updates")
              .run("install", "kor install http://127.0.0.1:8080/rel-1.0.3.velk 1 -noactivate").shows("Writing out")
              .run("activate", "kor upgrade activate -test"),
          test_boot(1, "1.0.3"), Boot().on("SET1", "1.0.3").active(1).flags(0, 0)}},
        {"test_boot_without_validate_falls_back",
         {upgrade_to(factory(), 1, "1.0.2"),
          Boot().on("SET1", "1.0.2").says("SET1 is in TEST: boot mark set, booting it once")
              .run("state", "kor info").shows("KOR Data Upgrade set 1: BOOT(2)").flags(3, 0),
          Boot().on("SET2", "1.0.1").says("SET1 is in BOOT: its test boot did not validate")
              .run("state", "kor info").shows("KOR Data Upgrade set 1: BOOT(2)")
              .run("validate", "kor upgrade validate").shows("Already validated").active(1).flags(3, 0)}},
        {"test_boot_hangs_falls_back",
         {upgrade_to(factory(), 1, "1.0.2"),
          Boot().on("SET1", "1.0.2").says("SET1 is in TEST: boot mark set, booting it once").hangs().flags(3, 0),
          Boot().on("SET2", "1.0.1").says("SET1 is in BOOT: its test boot did not validate")
              .run("state", "kor info").shows("KOR Data Upgrade set 1: BOOT(2)")}},
        {"cut_during_partition_writes",
         after_cut_install(cut_install("", 3, -1).copies_untouched())},
        {"cut_at_random_partition_write",
         after_cut_install(cut_install("", 0, -1).copies_untouched())},
        // -stream writes each body while it is read: cut in the middle of that, the old set still comes up.
        {"cut_during_stream_install",
         after_cut_install(factory().run("install", "kor install " + release("1.0.2") + " 1 -test -stream")
                               .cut("", 3, -1).copies_untouched())},
        {"cut_after_writes_before_save",
         after_cut_install(cut_install(kHostconfigDevices, kBeforeTestMark, 0).copies_untouched())},
        {"cut_between_hostconfig_copies",
         after_cut_install(cut_install(kHostconfigDevices, kBeforePrimaryCopy, 0).only_backup_written())},
        // upgrade activate saves first and writes the test mark second (the second write to partition 3): cut
        // between the two, SET1 is active without its test mark and comes up as VALID, untried.
        {"cut_during_activation_flags",
         {factory().run("install", "kor install " + release("1.0.2") + " 1 -noactivate")
              .run("activate", "kor upgrade activate -test").cut("/dev/mmcblk0p3", 2, 0).flags(0, 0).active(1),
          Boot().on("SET1", "1.0.2").says("booting SET1").run("verify", "kor verify 1")
              .run("again", "kor install " + release("1.0.2") + " 1").run("validate", "kor upgrade validate")
              .shows("Already validated").active(1).copies_equal()}},
        {"damaged_primary_hostconfig_uses_backup",
         {Boot().flip_at(kPrimary, 24 + 32).on("SET2", "1.0.1")  // actset in "KOR data": 2 would read as 1
              .says("hostconfig on partition 3 does not check, trying the backup")
              .says("hostconfig from partition 4 (backup)")
              .run("info", "kor info").shows("loaded backup (/dev/mmcblk0p4) successfully")
              .run("activate", "kor activate 2").primary_checks(true).copies_equal().active(2),
          factory().active(2)}},
        {"alternating_upgrades",
         {upgrade_to(factory(), 1, "1.0.2"), upgrade_to(test_boot(1, "1.0.2"), 2, "1.0.3"),
          upgrade_to(test_boot(2, "1.0.3"), 1, "1.0.4"), test_boot(1, "1.0.4").active(1).flags(0, 0),
          Boot().on("SET1", "1.0.4").run("rh", "kor getrh 2").shows("1.0,3,rel-1.0.3,")}},
        // A byte flipped in free space of SET2's ext4: verify finds it, the file system still mounts.
        {"mount_and_verify",
         {factory().flip(2, "APPL", 3 << 20).run("verify", "kor verify").shows("DISPARITY")
              .shows("WARNING: 1/4 multi pools have a disparity between").run("set", "kor verify 2").status(1)
              .run("mount", "kor mount 2").shows("on /mnt/appl as ext4... OK").shows("on /mnt/data as squashfs... OK")
              .run("files", "cat /mnt/appl/version /mnt/data/version").shows("appl 1.0.1").shows("data 1.0.1")}},
        {"damaged_kernel_boots_safeset",
         {Boot().flip(2, "KERNEL", 100000).on("SAFESET", "1.0.0")
              .says("SET2 does not check (kernel KERNEL, initramfs ROOT)")
              .says("booting SAFESET").run("verify", "kor verify 2").status(1)
              .run("repair", "kor install " + release("1.0.1") + " 2")
              .shows("Writing out 5448192 bytes of data to /dev/mmcblk0p11"),
          factory()}},
        // 1.0.4 is signed and brings the release key in /etc/kor/keys: from then on the device takes signed releases
        // only. The tampered copy keeps every CRC-32 right; it goes in with -test, so that had it been taken the next
        // boot would try SET2.
        {"signed_release",
         {factory().run("install", "kor install " + release("1.0.4") + " 1 -noactivate -keys=/updates/keys")
              .shows("install: signed by key ").run("activate", "kor upgrade activate -test"),
          test_boot(1, "1.0.4"),
          Boot().on("SET1", "1.0.4").tampered(release("1.0.4"), "KERNEL", "/tmp/tampered.velk")
              .run("tampered", "kor install /tmp/tampered.velk 2 -test").status(15)
              .shows("install: content part 3 does not match the signed manifest")
              .run("unsigned", "kor install " + release("1.0.2") + " 2 -test").status(15)
              .shows("install: image is not signed; keys in /etc/kor/keys require a signature")
              .active(1).flags(0, 0).copies_untouched(),
          Boot().on("SET1", "1.0.4").says("booting SET1").run("kept", "kor verify 2")}},
        {"dropped_writes_caught_by_read_back",
         {factory().run("dm", kDropKernelWrites)
              .run("install", "kor install " + release("1.0.2") + " 1 -test").status(1).shows("CRC32 VERIFY FAILED")
              .active(2).flags(0, 0),
          factory().run("state", "kor verify 1").status(1)}},
    };
    return all;
}

// ---- running and judging ----

std::string shell_quoted(const std::string& s)
{
    std::string q = "'";
    for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

uint32_t le(const bytes& b, size_t at, int n)
{
    uint32_t v = 0;
    for (int i = n; i-- > 0;) v = v << 8 | b.at(at + i);
    return v;
}

// The guest's commands that make the tampered copy. The content's body is found in the build's copy of the image
// (the guest's /updates): 8 bytes of identification, the file header, then each part's header and body, padded to
// 4 bytes. The 33 bits of the polynomial, in the order CRC-32 takes a byte's bits, change no CRC-32 they are XORed
// into.
std::string tamper_commands(const std::string& build, const Tamper& t)
{
    static constexpr uint8_t kPolynomial[] = {0x41, 0x06, 0x71, 0xDB, 0x01};
    std::ifstream in(build + t.image, std::ios::binary);
    const bytes image((std::istreambuf_iterator<char>(in)), {});
    for (size_t at = 8 + le(image, 8 + 6, 2); at + 0x20 <= image.size();) {
        const uint32_t header = le(image, at + 6, 2), body = le(image, at + 8, 4);
        const std::string name(reinterpret_cast<const char*>(&image[at + 0xc]), 16);
        if (name.c_str() == t.content && body >= 2 * sizeof kPolynomial) {
            const size_t offset = at + header + body / 2;
            char octal[8];
            std::string text;
            for (size_t i = 0; i < sizeof kPolynomial; ++i) {
                std::snprintf(octal, sizeof octal, "\\%03o", unsigned(image[offset + i] ^ kPolynomial[i]));
                text += octal;
            }
            return "cp " + t.image + " " + t.copy + " && printf '" + text + "' | dd of=" + t.copy + " bs=1 seek=" +
                   std::to_string(offset) + " conv=notrunc 2>/dev/null";
        }
        at += header + body + (4 - body % 4) % 4;
    }
    ADD_FAILURE() << build + t.image << " holds no content " << t.content;
    return "false";
}

std::string steps_text(const std::string& build, const Boot& b)
{
    std::string text;
    if (b.tamper) text += "kor_step tamper " + shell_quoted(tamper_commands(build, *b.tamper)) + "\n";
    for (const Step& s : b.steps) {
        std::string command = s.command;
        if (s.cut)
            command = "LD_PRELOAD=" + kPreload + " KOR_KILL_MARK=KOR-CUT KOR_KILL_AFTER_WRITES=" +
                      std::to_string(s.cut->after ? s.cut->after : random_write()) +
                      " KOR_TORN_BYTES=" + std::to_string(s.cut->torn) +
                      " KOR_KILL_DEVICES=" + shell_quoted(s.cut->devices) + " " + command;
        text += "kor_step " + s.name + " " + shell_quoted(command) + "\n";
    }
    return text + (b.hang ? "kor_hang\n" : "true\n");
}

// The "KOR data" text of a copy, "" when it does not check as kor checks it.
std::string record(const bytes& image)
{
    hcdec::Image img;
    if (!hcdec::decode_image(image, &img) || !img.crcs_ok) return "";
    for (const hcdec::Part& p : img.parts)
        if (!p.crcs_ok) return "";
    for (const hcdec::Part& p : img.parts)
        if (p.name.rfind("KOR data", 0) == 0) return p.body.size() >= kKorData ? hcdec::decode_kor_data(p.body) : "";
    return "";
}

std::string field(const std::string& record, const std::string& name)
{
    std::istringstream in(record);
    for (std::string line; std::getline(in, line);)
        if (line.rfind(name + "=", 0) == 0) return line.substr(name.size() + 1);
    return "";
}

// The partition that holds content `name` of set `set`, from the copy kor loads.
int partition_of(const device::Machine& m, int set, const std::string& name)
{
    std::string r = record(m.read(kPrimary, 0, kImageMax));
    if (r.empty()) r = record(m.read(kBackup, 0, kImageMax));
    std::istringstream refs(field(r, "set[" + std::to_string(set) + "].refs"));
    for (std::string ref; std::getline(refs, ref, ',');)
        if (field(r, "pinfometa[" + ref + "].name") == name) return std::stoi(field(r, "partinfo[" + ref + "].pn"));
    ADD_FAILURE() << "set " << set << " lists no " << name;
    return 0;
}

void judge_console(const Boot& b, const device::Console& c, const std::string& log)
{
    SCOPED_TRACE("serial console: " + log);
    ASSERT_FALSE(c.timed_out) << "the boot did not end in time";
    if (!b.come_up.empty()) {
        const bool any = std::any_of(b.come_up.begin(), b.come_up.end(),
                                     [&](const auto& w) { return w.first == c.booted && w.second == c.release; });
        EXPECT_TRUE(any) << "came up as KORSET=" << c.booted << " release=" << c.release;
    }
    for (const std::string& line : b.loader)
        EXPECT_TRUE(std::find(c.loader.begin(), c.loader.end(), line) != c.loader.end())
            << "the boot script did not say: " << line;
    if (b.tamper) {
        ASSERT_EQ(c.status.count("tamper"), 1u) << "the tampered copy was not made";
        ASSERT_EQ(c.status.at("tamper"), 0) << c.out.at("tamper");
    }
    for (const Step& s : b.steps) {
        SCOPED_TRACE("step " + s.name + ": " + s.command);
        if (s.cut) {
            EXPECT_TRUE(c.cut) << "the cut point was not reached";
            EXPECT_EQ(c.status.count(s.name), 0u) << "ended before the cut";
            continue;
        }
        ASSERT_EQ(c.status.count(s.name), 1u) << "the step did not run to its end";
        EXPECT_EQ(c.status.at(s.name), s.status) << c.out.at(s.name);
        for (const std::string& text : s.shows)
            EXPECT_NE(c.out.at(s.name).find(text), std::string::npos)
                << "lacks '" << text << "':\n" << c.out.at(s.name);
    }
    if (b.hang) { EXPECT_TRUE(c.hang); }
    if (!b.hang && !c.cut) { EXPECT_TRUE(c.ended) << "the steps did not finish"; }
}

void judge_disk(const Stored& want, const device::Machine& m, const bytes& primary_before, const bytes& backup_before)
{
    const bytes primary = m.read(kPrimary, 0, kImageMax), backup = m.read(kBackup, 0, kImageMax);
    const std::string loaded = record(primary).empty() ? record(backup) : record(primary);
    if (want.active) { EXPECT_EQ(field(loaded, "actset"), std::to_string(*want.active)) << loaded; }
    if (want.flags) {
        const bytes f = m.read(kPrimary, kFlags, 2);
        EXPECT_EQ(std::make_pair(int(f[0]), int(f[1])), *want.flags) << "upgrade flags of SET1, SET2";
    }
    if (want.primary_checks) { EXPECT_EQ(!record(primary).empty(), *want.primary_checks); }
    if (want.copies_equal) { EXPECT_TRUE(primary == backup) << "primary and backup differ"; }
    if (want.primary_unchanged) { EXPECT_TRUE(primary == primary_before) << "the primary copy was written"; }
    if (want.backup_unchanged) { EXPECT_TRUE(backup == backup_before) << "the backup copy was written"; }
    if (want.backup_changed) {
        EXPECT_FALSE(backup == backup_before) << "the backup copy was not written";
        EXPECT_FALSE(record(backup).empty()) << "the backup copy does not check";
    }
}

class Device : public testing::TestWithParam<Scenario> {};

TEST_P(Device, Scenario)
{
    std::string why;
    const std::string build = device::build_dir(&why);
    if (build.empty()) GTEST_SKIP() << why;
    const Scenario& s = GetParam();
    device::Machine m(build, s.name);
    for (size_t i = 0; i < s.boots.size(); ++i) {
        const Boot& b = s.boots[i];
        SCOPED_TRACE("boot " + std::to_string(i + 1));
        for (const Flip& f : b.flips) {
            const int n = f.partition ? f.partition : partition_of(m, f.set, f.content);
            bytes byte = m.read(n, f.offset, 1);
            byte[0] ^= 0x03;
            m.write(n, f.offset, byte);
        }
        const bytes primary = m.read(kPrimary, 0, kImageMax), backup = m.read(kBackup, 0, kImageMax);
        const auto t0 = std::chrono::steady_clock::now();
        const device::Console c = m.boot(steps_text(build, b));
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - t0);
        std::printf("%s: boot %zu came up as %s %s in %lld s%s\n", s.name.c_str(), i + 1, c.booted.c_str(),
                    c.release.c_str(), static_cast<long long>(seconds.count()), c.cut ? ", power cut" : "");
        const std::string log = m.dir() + "/boot" + std::to_string(i + 1) + ".log";
        ASSERT_NO_FATAL_FAILURE(judge_console(b, c, log));
        judge_disk(b.stored, m, primary, backup);
        if (HasFailure()) return;
    }
}

INSTANTIATE_TEST_SUITE_P(, Device, testing::ValuesIn(scenarios()),
                         [](const testing::TestParamInfo<Scenario>& i) { return i.param.name; });

}  // namespace
