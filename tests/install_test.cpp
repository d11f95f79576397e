// The install action on a sandboxed device: statuses, messages, plan, device bytes, metadata, hooks.
#include <zlib.h>

#include <cstdio>
#include <numeric>

#include "mkvelk.h"
#include "support/cli_case.h"
#include "support/sandbox.h"

namespace {

using cli::Hook;
using sandbox::bytes;
using sandbox::Device;

bytes counting(size_t n)
{
    bytes b(n);
    std::iota(b.begin(), b.end(), uint8_t(1));
    return b;
}

const bytes kKernel = counting(1001);  // not a multiple of 4
const std::string kKernelCrc = std::to_string(crc32(0, kKernel.data(), uInt(kKernel.size())));
const std::string kRoot = "3,ROOTS,0,-,-,-,1.0.1,1\n";
const std::string kKorm = "2,KNLS,0,-,-,-,1.0.1,1\n" + kRoot;
const std::string kKorm2 = "2,KNLS,0,-,-,-,1.0.2,1\n3,ROOTS,0,-,-,-,1.0.2,1\n";
const std::string kSafe = "2,SAFEKNLS,0,-,-,-,1.0.1,1\n";
const std::string kAnyKernel = ",KNLS,0,-,-,-,-1.-1.-1,1\n" + kRoot;  // behind the content index
const std::string kKernelOnArrival = "2,KNLS,0,-,-,-,1.-2.0,1\n";     // its version decided when it arrives
const std::string kAutosetFile = "/tmp/kor.autoset", kActivesetFile = "/tmp/kor.activeset";
const std::string kSet0WasActive(1, '\0');  // the autoset file: one raw byte, the set active before

// Release header, "korm", kernel and root (versions 1.0.`build`) at `path`.
void write_release(Device& d, const std::string& path, const std::string& korm, uint16_t build = 1,
                   const bytes& kernel = kKernel, bool kernel_as_data = false)
{
    const bytes img = mkvelk::build_image({
        mkvelk::release_header(1, 0, 1, 0, "b1", "products=dev1\n"),
        mkvelk::korm(korm),
        kernel_as_data ? mkvelk::data("kernel", kernel) : mkvelk::software("kernel", 1, 0, build, "k1", kernel),
        mkvelk::software("root", 1, 0, build, "r1", bytes(3001, 2)),
    });
    d.write_file(path, std::string(img.begin(), img.end()));
}

std::string image_path(const Device& d) { return d.workdir() + "/img.velk"; }

// Of the partitions the kernel could go to (5, 11 and 15), exactly `holding` hold it.
cli::Expectation kernel_in(const std::vector<int>& holding)
{
    std::string want;
    for (int pn : holding) want += " p" + std::to_string(pn);
    return {"the kernel only in" + (want.empty() ? " none" : want), [want](const cli::Outcome& o) {
                std::string got;
                for (int pn : {5, 11, 15})
                    if (o.dev.read(Device::part(pn), 0, kKernel.size()) == kKernel) got += " p" + std::to_string(pn);
                return got == want ? "" : "it is in" + (got.empty() ? " none" : got);
            }};
}

// An install row: kor install <image> <args> on a fresh device with the default layout, after the set-up steps in
// the order the row names them. The image holds a release header, the KORM kKorm unless the row names another, a
// kernel and a root.
class Row : public cli::Builder<Row> {
public:
    using Builder::Builder;

    // Set `set` installed before (release 1.0.1, or 1.0.2 for set 2); that install must work.
    Row& installed_first(int set)
    {
        return given("set " + std::to_string(set) + " installed first", [set](cli::Setup& s) {
            const std::string path = s.dev.workdir() + "/first.velk";
            write_release(s.dev, path, set == 2 ? kKorm2 : kKorm, set == 2 ? 2 : 1);
            ASSERT_EQ(s.dev.kor({"install", path, std::to_string(set)}).status, 0);
        });
    }
    Row& partition_too_small(int pn)
    {
        return given("p" + std::to_string(pn) + " too small",
                     [pn](cli::Setup& s) { s.dev.add_partition(pn, pn == 3 ? 2048 : 512); });
    }
    // Every write to p`pn` fails with EIO, as on a worn-out medium: the partition is fit, the write is not.
    Row& writes_fail_on(int pn)
    {
        return given("writes to p" + std::to_string(pn) + " fail", [pn](cli::Setup& s) {
            const char* asan = std::getenv("ASAN_OPTIONS");  // the preload comes before ASan's runtime
            s.options.set("LD_PRELOAD", s.dev.stage(KOR_PRELOAD_kill_after_writes))
                .set("KOR_FAIL_WRITES_TO", Device::part(pn))
                .set("ASAN_OPTIONS", std::string(asan ? asan : "") + ":verify_asan_link_order=0");
        });
    }
    Row& partition_missing(int pn)
    {
        return given("no node p" + std::to_string(pn),
                     [pn](cli::Setup& s) { ASSERT_EQ(s.dev.run({"rm", Device::part(pn)}).status, 0); });
    }
    Row& partition_is_a_file(int pn)
    {
        return given("p" + std::to_string(pn) + " a regular file", [pn](cli::Setup& s) {
            ASSERT_EQ(s.dev.run({"rm", Device::part(pn)}).status, 0);
            s.dev.write_file(Device::part(pn), std::string(4096, '\0'));
        });
    }
    Row& partition_read_only(int pn)
    {
        return given("p" + std::to_string(pn) + " read-only", [pn](cli::Setup& s) {
            ASSERT_EQ(s.dev.run({"blockdev", "--setro", Device::part(pn)}).status, 0);
            s.after_run.push_back([&s, pn] { (void)s.dev.run({"blockdev", "--setrw", Device::part(pn)}); });
        });
    }
    Row& partition_of(int pn, uint64_t size)
    {
        return given("p" + std::to_string(pn) + " of " + std::to_string(size) + " bytes",
                     [pn, size](cli::Setup& s) { s.dev.add_partition(pn, size); });
    }
    Row& kernel_of(size_t length)
    {
        return given("a kernel of " + std::to_string(length) + " bytes", [length](cli::Setup& s) {
            write_release(s.dev, image_path(s.dev), kKorm, 1, counting(length));
        });
    }
    Row& kernel_partition_damaged()
    {
        return given("p11 damaged", [](cli::Setup& s) { s.dev.write(Device::part(11), 0, bytes(16, 0xEE)); });
    }
    Row& korm(const std::string& text)
    {
        return given("KORM " + text, [text](cli::Setup& s) { write_release(s.dev, image_path(s.dev), text); });
    }
    Row& kernel_as_data_part(const std::string& korm_text)
    {
        return given("kernel as a data part, KORM " + korm_text, [korm_text](cli::Setup& s) {
            write_release(s.dev, image_path(s.dev), korm_text, 1, kKernel, true);
        });
    }
    Row& no_image()
    {
        return given("no image file", [](cli::Setup& s) { std::remove(image_path(s.dev).c_str()); });
    }
    Row& empty_image()
    {
        return given("empty image file", [](cli::Setup& s) { s.dev.write_file(image_path(s.dev), ""); });
    }

    // Of the partitions the kernel could go to (5, 11 and 15), exactly `holding` hold it afterwards.
    Row& kernel_only_in(const std::vector<int>& holding) { return expect(kernel_in(holding)); }
};

const std::string kPlan = "0: name=kernel action=1 velk_cidx=2 partinfo_idx=11 wts=1\n"
                          "1: name=root action=1 velk_cidx=3 partinfo_idx=13 wts=1\n"
                          "2: name=release action=0 velk_cidx=0 partinfo_idx=0 wts=0\n";
const cli::Words kHooksToWriteOut = {"data_rcvd", "pre_metainstall 1", "pre_install 1", "post_write_out 1"};

cli::Words plus(cli::Words calls, const cli::Words& more)
{
    calls.insert(calls.end(), more.begin(), more.end());
    return calls;
}

const Row kRows[] = {  // set arguments, option parsing, KORM and plan details: see their own tests
    Row("SET1").args("1 -v -product=dev1 -minver=1.0.1").with_test_plugin().status(0)
        .stderr_has("install: release 1.0-1, 'products=dev1\n").stderr_has(kPlan)
        .stored("actset", "1").stored("set[1].refs", "11,13").stored("pinfometa[11].body_crc", kKernelCrc)
        .kernel_only_in({11}).hooks_called(plus(kHooksToWriteOut, {"post_activate 1"})),
    Row("SAFESET, no free partition").installed_first(1).installed_first(2).korm("2,KNLS,0,-,-,-,1.0.9,1\n")
        .args("0").status(9).stderr_has("install: korl_meta_install_part1 failed: -5\n").stored("actset", "2"),
    Row("-test").args("1 -test").status(0).file_absent(kActivesetFile).flags_area({1}).stored("actset", "1"),
    Row("no file").no_image().args("1").status(8)
        .stderr_has("install: could not open VELK\n").hostconfig_unchanged(),
    Row("empty file").empty_image().args("1").status(9)
        .stderr_has("install: empty VELK\n").hostconfig_unchanged(),
    Row("singleton without -f").korm(kSafe).args("1").status(9)
        .stderr_has("install: Can't install into singleton partitions without -f\n").hostconfig_unchanged(),
    Row("product mismatch").args("1 -product=other").status(6)
        .stderr_has("install: Release header does not contain model 'other'\n").hostconfig_unchanged(),
    Row("minver above, -f").args("1 -minver=1.0.2 -f").status(7)
        .stderr_has("install: Version in release header lower than 1.0-2\n").hostconfig_unchanged(),
    Row("-dryrun").file(kActivesetFile, "2").args("1 -dryrun").status(0)
        .stdout_lacks("Writing out").file_is(kActivesetFile, "2").flags_area({0}).kernel_only_in({})
        .hostconfig_unchanged(),
    Row("-onlymeta").args("1 -onlymeta").status(0)
        .stdout_lacks("Writing out").file_absent(kActivesetFile).flags_area({0}).kernel_only_in({})
        .stored("actset", "1"),
    Row("-noactivate").file(kActivesetFile, "2").args("1 -noactivate").status(0)
        .stdout_has("Writing out 1001 bytes of data to /dev/mmcblk0p11\n")
        .file_is(kActivesetFile, "1").flags_area({0}).kernel_only_in({11}).stored("actset", "0"),
    Row("-noactivate -test").file(kActivesetFile, "2").args("1 -noactivate -test").status(1)
        .file_is(kActivesetFile, "1").flags_area({0}).kernel_only_in({11}).stored("actset", "0"),
    Row("automatic").args("-1").status(0)
        .stderr_has("into autodetected set idx = 1\n").file_is(kAutosetFile, kSet0WasActive),
    Row("automatic, tried before").installed_first(-1).args("-1").status(5)
        .stderr_has("Autodetected set installation has already been tried by KOR with or without success.\n")
        .file_is(kAutosetFile, kSet0WasActive),
    Row("kept, partial image").installed_first(1).kernel_partition_damaged().korm("-1" + kAnyKernel)
        .args("1").status(14).stderr_has("Handling partial VELK\n")
        .stderr_has("CRC32 validation of partition 11 failed. Only fixable with a non-partial VELK.\n"),
    Row("kept, rewritten").installed_first(1).kernel_partition_damaged().korm("2" + kAnyKernel)
        .args("1").status(0).stderr_has("CRC32 validation for partition 11 failed marking it for reinstall\n")
        .kernel_only_in({11}),
    Row("kept, shared: replaced").installed_first(1).kernel_partition_damaged().korm("2" + kAnyKernel)
        .args("2").status(0).stderr_has("Other sets also refer to partition 11.\n")
        .stderr_has("Use free partition 15 instead\n").stored("set[2].refs", "15,13").kernel_only_in({15}),
    Row("-rewrite").installed_first(1).kernel_partition_damaged()
        .args("1 -rewrite").status(0).stderr_has("Mark partition 13 for rewrite\n"),
    Row("write fails, singleton").writes_fail_on(5).korm(kSafe).args("1 -f").status(11)
        .stderr_has("KOR_EXIT_FATAL_ERR_SINGLETON_WRITE").stored("pinfometa[5].body_crc", "0").stored("actset", "0"),
    Row("write fails, automatic").writes_fail_on(11).args("-1").status(1)
        .stderr_has("FAILED TO INSTALL kernel INTO 11\n").stored("pinfometa[11].body_crc", "0")
        .file_absent(kAutosetFile).stored("actset", "0"),
    // A partition the plan writes must be a writable block device that holds the part: checked before the first
    // write, so nothing is written and the hostconfig stays as it was.
    Row("target missing").partition_missing(11).args("1").status(17)
        .stderr_has("install: partition /dev/mmcblk0p11 does not exist\n").hostconfig_unchanged()
        .partition_lacks(13, bytes(3001, 2)),
    Row("target a regular file").partition_is_a_file(11).args("1").status(17)
        .stderr_has("install: /dev/mmcblk0p11 is not a block device\n").hostconfig_unchanged()
        .partition_lacks(13, bytes(3001, 2)),
    Row("target read-only").partition_read_only(13).args("1").status(17)
        .stderr_has("install: /dev/mmcblk0p13 is read-only\n").hostconfig_unchanged().kernel_only_in({}),
    Row("target one byte too small").kernel_of(1025).partition_of(11, 1024).args("1").status(17)
        .stderr_has("install: /dev/mmcblk0p11 holds 1024 bytes, 1025 are to be written\n").hostconfig_unchanged()
        .partition_lacks(13, bytes(3001, 2)),
    Row("target exactly as large").kernel_of(1024).partition_of(11, 1024).args("1").status(0)
        .partition_holds(11, counting(1024)),
    Row("hostconfig write fails").partition_too_small(3).args("1").status(10)
        .stderr_has("KOR_EXIT_FATAL_ERR_HOSTCONFIG_WRITE\n"),
    Row("pre_metainstall hook fails").args("1").hook_returns(Hook::pre_metainstall, 3).status(3)
        .hooks_called({"data_rcvd", "pre_metainstall 1"}).hostconfig_unchanged(),
    Row("pre_install hook fails").args("1").hook_returns(Hook::pre_install, 4).status(4)
        .hooks_called({"data_rcvd", "pre_metainstall 1", "pre_install 1"}).hostconfig_unchanged(),
    Row("post_write_out hook fails").args("1").hook_returns(Hook::post_write_out, 5).status(5)
        .hooks_called(plus(kHooksToWriteOut, {"on_failure 1 5"})).hostconfig_unchanged(),
    Row("post_activate hook fails").args("1").hook_returns(Hook::post_activate, 6).status(6)
        .hooks_called(plus(kHooksToWriteOut, {"post_activate 1", "on_failure 1 6"})).stored("actset", "1"),
    Row("data_rcvd hook fails").args("1").hook_returns(Hook::data_rcvd, 7).status(9)
        .hooks_called({"data_rcvd"}).hostconfig_unchanged(),
    // An element whose version is decided when its content part arrives: a software part's version picks an
    // installed copy or the reserved partition; a data part carries none, so the element stays undecided.
    Row("version on arrival: not installed, written").korm(kKernelOnArrival + kRoot).args("1").status(0)
        .stdout_has("Writing out 1001 bytes of data to /dev/mmcblk0p11\n").stored("set[1].refs", "11,13")
        .stored("pinfometa[11].body_crc", kKernelCrc).stored("pinfometa[11].sw_build", "1")
        .kernel_only_in({11}),
    Row("version on arrival: installed copy reused").installed_first(1).korm(kKernelOnArrival + kRoot)
        .args("2").status(0).stdout_lacks("Writing out").stored("set[2].refs", "11,13")
        .kernel_only_in({11}),
    Row("version on arrival: data part").kernel_as_data_part(kKernelOnArrival).args("1").status(2)
        .stderr_has("install: partinfo korm match\n").hostconfig_unchanged(),
};

TEST(Install, Table)
{
    KOR_SANDBOX_OR_SKIP();
    for (const Row& row : kRows) {
        Device d;
        d.with_default_layout();
        write_release(d, image_path(d), kKorm);
        cli::run(row, d, {"install", image_path(d)});
    }
}

// Write type 1: the body; 2: the header first; 3: the body padded to 4 bytes, then the header. Nothing behind.
// The bodies cross 4 KiB blocks and the writer's 1 MiB pieces, unaligned at either end for type 2.
TEST(Install, WriteTypesLayOutThePartition)
{
    KOR_SANDBOX_OR_SKIP();
    for (size_t size : {kKernel.size(), (size_t{1} << 20) + 2 * 4096 + 1001}) {
        const bytes kernel = counting(size);
        const std::string body(kernel.begin(), kernel.end());
        for (int wts = 1; wts <= 3; ++wts) {
            SCOPED_TRACE(std::to_string(size) + " bytes, wts " + std::to_string(wts));
            Device d;
            d.with_default_layout();
            write_release(d, image_path(d), "2,KNLS,0,-,-,-,1.0.1," + std::to_string(wts) + "\n", 1, kernel);
            const std::string img = d.read_file(image_path(d));
            ASSERT_EQ(d.kor({"install", image_path(d), "1"}).status, 0);
            const std::string header = img.substr(img.find(body) - 40, 40);  // 36 bytes, "k1", NUL
            std::string want;
            if (wts == 1) want = body;
            if (wts == 2) want = header + body;
            if (wts == 3) want = body + std::string(3, '\0') + header;
            want += '\0';
            const bytes p11 = d.read(Device::part(11), 0, want.size());
            EXPECT_TRUE(std::string(p11.begin(), p11.end()) == want);
        }
    }
}

}  // namespace
