// The hostconfig store: the container on files; load, save, initialize, info and flags on the sandbox's devices.
#include <gtest/gtest.h>

#include <sys/inotify.h>
#include <syslog.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <optional>
#include <ostream>

#include "base/console.h"
#include "base/options.h"
#include "hostconfig/hostconfig.h"
#include "korl/korl.h"
#include "mkvelk.h"
#include "support/cli_case.h"
#include "support/hostconfig_decoder.h"
#include "support/sandbox.h"

namespace {

using sandbox::bytes;
using mkvelk::build_image;
using Parts = std::vector<mkvelk::part>;  // data parts, made by mkvelk: what kor should make, and worse
const std::string kP3 = "/dev/mmcblk0p3", kP4 = "/dev/mmcblk0p4";
constexpr int kAdded = 1, kRefused = -1;

std::string golden(const char* name)
{
    std::ifstream in(std::string(KOR_SOURCE_DIR) + "/tests/golden/" + name, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

// Stores the default layout with `actset` at `paths`, between bodies named "alpha" and "bravo!" when asked.
void store(int actset, const std::vector<std::string>& paths, bool with_other_bodies = false)
{
    hostconfig hc;
    korl_data d{};
    ASSERT_EQ(hostconfig_new(&hc, HOSTCONFIG_MAX), 1);
    ASSERT_EQ(hostconfig_default(&hc), 1);
    ASSERT_EQ(korl_hostconfig_import(&d, &hc), 1);
    d.actset = uint8_t(actset);
    ASSERT_EQ(hostconfig_new(&hc, HOSTCONFIG_MAX), 1);
    if (with_other_bodies) {
        ASSERT_EQ(hostconfig_add_body(&hc, "alpha", 5, "A"), 1);
    }
    ASSERT_EQ(korl_hostconfig_export(&d, &hc), 1);
    if (with_other_bodies) {
        ASSERT_EQ(hostconfig_add_body(&hc, "bravo!", 6, "B"), 1);
    }
    for (const auto& p : paths) ASSERT_EQ(hostconfig_save(&hc, p.c_str(), nullptr), 1);
}

std::vector<int> twenty_then_refused()
{
    std::vector<int> results(21, kAdded);
    results.back() = kRefused;
    return results;
}

TEST(HostconfigFiles, AddSaveLoadLookUpAndFlags)
{
    KOR_SANDBOX_OR_SKIP();
    hostconfig hc;
    EXPECT_EQ(hostconfig_new(&hc, 5121), 0);
    // Each body grows the image by its padded size, within the capacity and 20 parts.
    const struct {
        uint32_t capacity;
        std::vector<uint32_t> lengths;  // added in turn
        std::vector<int> results;
        uint32_t used;  // afterwards
    } adds[] = {
        {5120, {1, 8, 3240}, {kAdded, kAdded, kAdded}, 24 + 36 + 40 + 3272},
        {64, {8}, {kAdded}, 64},
        {63, {8}, {kRefused}, 24},
        {5120, {0}, {kRefused}, 24},
        {5120, std::vector<uint32_t>(21, 4), twenty_then_refused(), 24 + 20 * 36},
    };
    const bytes big_body(3240, 0xAB);
    for (const auto& row : adds) {
        SCOPED_TRACE("capacity " + std::to_string(row.capacity));
        ASSERT_EQ(hostconfig_new(&hc, row.capacity), 1);
        EXPECT_EQ(hc.used, 24u);
        EXPECT_EQ(hc.count, 0);
        std::vector<int> results;
        for (uint32_t n : row.lengths) results.push_back(hostconfig_add_body(&hc, big_body.data(), n, "x"));
        EXPECT_EQ(results, row.results);
        EXPECT_EQ(hc.used, row.used);
    }

    sandbox::Device dev;
    const std::string p = dev.workdir() + "/p";
    const Parts parts = {mkvelk::data("A", {1, 2, 3, 4, 5}), mkvelk::data("KOR data", bytes(3240, 0x5C)),
                         mkvelk::data("SIXTEEN-CHARS-NM", bytes(7, 9))};
    ASSERT_EQ(hostconfig_new(&hc, HOSTCONFIG_MAX), 1);
    for (const mkvelk::part& v : parts)
        ASSERT_EQ(hostconfig_add_body(&hc, v.body.data(), uint32_t(v.body.size()), v.name.c_str()), 1);
    ASSERT_EQ(hostconfig_save(&hc, p.c_str(), nullptr), 1);
    const bytes good = dev.read(p, 0, 8192);
    EXPECT_EQ(good, build_image(parts));  // the used bytes, byte for byte
    ASSERT_EQ(hostconfig_new(&hc, HOSTCONFIG_MAX), 1);
    ASSERT_EQ(hostconfig_load(&hc, p.c_str(), nullptr), 1);
    // Found by the whole name: a prefix finds nothing.
    EXPECT_EQ(hostconfig_get_body(&hc, "KOR"), hc.image + 64 + 32);
    EXPECT_EQ(hostconfig_get_body(&hc, "SIXTEEN-CHARS-NM"), hc.image + 3336 + 32);
    EXPECT_EQ(hostconfig_get_body(&hc, "SIXTEEN-CHARS-NMX"), nullptr);

    Parts many;
    for (int i = 0; i < 21; i++) many.push_back(mkvelk::data("P" + std::to_string(i), bytes(4, uint8_t(i))));
    bytes damaged = good, big = good, padded = good;
    damaged[24 + 32 + 40 + 100] ^= 1;
    big.resize(5121);
    padded.resize(5120);
    const struct {
        const char* what;
        bytes image;
        int result;
    } loads[] = {
        {"damaged", damaged, -1},
        {"5121 bytes", big, -1},
        {"5120 bytes", padded, 1},
        {"no content part", bytes(24, 0), -1},
        {"21 parts", build_image(many), -1},
        {"20 parts", build_image({many.begin(), many.end() - 1}), 1},
        {"\"KOR data\" short", build_image({mkvelk::data("KOR data", bytes(3239, 1))}), 1},
    };
    for (const auto& row : loads) {
        dev.write_file(p, std::string(row.image.begin(), row.image.end()));
        ASSERT_EQ(hostconfig_new(&hc, HOSTCONFIG_MAX), 1);
        EXPECT_EQ(hostconfig_load(&hc, p.c_str(), nullptr), row.result) << row.what;
    }
    korl_data d;
    EXPECT_EQ(korl_hostconfig_import(&d, &hc), -1);  // a short "KOR data": refused, not read past its end

    // Saved: other bodies kept, every field stored; the flags read and written per bit.
    dev.with_default_layout();
    store(1, {kP3, kP4}, true);
    kor_options o{};
    kor_str_copy(o.cfg, sizeof o.cfg, kP3.c_str());
    kor_str_copy(o.cfgbak, sizeof o.cfgbak, kP4.c_str());
    hostconfig loaded;
    ASSERT_EQ(load(&o, &d, &loaded), 1);
    ASSERT_EQ(d.actset, 1);
    ASSERT_EQ(korl_init(&d), 1);
    partset_init(&d, 1, "FIFTEEN-CHARS-X+");
    partinfo_init(&d, 21, "SIXTEEN-CHARS-PL", 0x9ABCDEF0, 0x12345678);
    d.actset = 2;
    d.partset[1].bootable = 1;
    d.partset[1].refs[0] = 11;
    d.partset[1].refs[1] = 21;
    kor_field_copy(d.partinfo[21].mountpnt, 32, "/mnt/x");
    kor_field_copy(d.partinfo[21].fstype, 10, "squashfs12");
    d.rhdr[2] = {3, 7, 0xBEEF, -5, "release-id"};
    d.pinfometa[0] = {0xA1B2C3D4, 4, 64, 0x11223344, "KNL", 0x55667788, 1, 2, 0x3344, "sw-id"};
    ASSERT_EQ(save_hostconfig(&o, &d, &loaded, "test"), 1);
    for (const std::string& path : {kP3, kP4}) {
        SCOPED_TRACE(path);
        hcdec::Image img;
        ASSERT_TRUE(hcdec::decode_image(dev.read(path, 0, HOSTCONFIG_MAX), &img));
        EXPECT_TRUE(img.crcs_ok);
        ASSERT_EQ(img.parts.size(), 3u);
        EXPECT_EQ(img.parts[0].name, "A");
        EXPECT_EQ(std::string(img.parts[0].body.begin(), img.parts[0].body.end()), "alpha");
        EXPECT_EQ(img.parts[1].name, "B");
        EXPECT_EQ(std::string(img.parts[1].body.begin(), img.parts[1].body.end()), "bravo!");
        EXPECT_EQ(img.parts[2].name, "KOR data");
        EXPECT_EQ(hcdec::decode_kor_data(img.parts[2].body), golden("kor_data_fields.txt"));
        for (const hcdec::Part& part : img.parts) EXPECT_TRUE(part.crcs_ok && part.type_id == 3) << part.name;
    }

    dev.write(kP3, HOSTCONFIG_FLAGS_OFFSET, {0xFD, 0x02});  // a state per bit: set 0 has none, there is no set 3
    for (auto [set, state] : {std::pair{0, 0}, {1, 1}, {2, 0}, {3, -1}})
        EXPECT_EQ(get_upgrade_state(set), state) << set;
    testing::internal::CaptureStdout();  // a state other than 0 and 1: refused, nothing written
    EXPECT_EQ(set_upgrade_state(2, 2), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "cannot set state to 2, invalid");
    EXPECT_EQ(dev.read(kP3, HOSTCONFIG_FLAGS_OFFSET, 2), bytes({0xFD, 0x02}));
}

// What one hostconfig copy holds: its content parts by name, "KOR data" with its active set, and whether the CRCs of
// the image and of every part (each of type 3) hold.
struct Copy {
    std::vector<std::string> parts;
    int actset = 0;
    bool image_crcs_ok = true, parts_ok = true;
    bool operator==(const Copy& o) const
    {
        return parts == o.parts && actset == o.actset && image_crcs_ok == o.image_crcs_ok && parts_ok == o.parts_ok;
    }
};
using Stored = std::optional<Copy>;  // none: no image decodes there
const Stored kNoImage = std::nullopt;

std::ostream& operator<<(std::ostream& out, const Stored& c)
{
    if (!c) return out << "no image";
    out << "parts";
    for (const std::string& p : c->parts) out << " \"" << p << "\"";
    return out << ", actset " << c->actset << ", image CRCs " << (c->image_crcs_ok ? "good" : "bad") << ", parts "
               << (c->parts_ok ? "good" : "bad");
}

enum class Held { nothing, good_copy, damaged_copy };  // by a hostconfig path before the runs
enum class Paths { devices, cfg_file, cfg_and_backup_files };  // p3 and p4; -cfg=W/hc.bin and p4; and -cfgbak=W/bak.bin

// A command (or none) and then "info", with the hostconfig options of `paths`, on the copies the row places. The
// expectations: the command's stderr, info's stdout, the syslog lines of both about the hostconfig (in order), the
// files in the work directory in the order their writing ended, and what the copies hold afterwards.
class CopiesRow {
public:
    explicit CopiesRow(std::string what) : what(std::move(what)) {}
    CopiesRow& primary(Held h) { primary_before = h; return *this; }
    CopiesRow& backup(Held h) { backup_before = h; return *this; }
    CopiesRow& paths(Paths p) { paths_ = p; return *this; }
    CopiesRow& command(std::string args) { command_ = std::move(args); return *this; }
    CopiesRow& command_stderr(std::string t) { command_err = std::move(t); return *this; }
    CopiesRow& info_stdout(std::string t) { info_out = std::move(t); return *this; }
    CopiesRow& log(std::vector<sandbox::LogLine> lines) { log_ = std::move(lines); return *this; }
    CopiesRow& files_written(std::vector<std::string> names) { written = std::move(names); return *this; }
    CopiesRow& primary_after(Stored c) { primary_copy = std::move(c); return *this; }
    CopiesRow& backup_after(Stored c) { backup_copy = std::move(c); return *this; }

    std::string what, command_, command_err, info_out;
    Held primary_before = Held::nothing, backup_before = Held::nothing;
    Paths paths_ = Paths::devices;
    std::vector<sandbox::LogLine> log_;
    std::vector<std::string> written;
    Stored primary_copy, backup_copy;
};

Stored decoded(const sandbox::Device& dev, const std::string& path)
{
    hcdec::Image img;
    if (!hcdec::decode_image(dev.read(path, 0, HOSTCONFIG_MAX), &img)) return kNoImage;
    Copy c;
    c.image_crcs_ok = img.crcs_ok;
    for (const hcdec::Part& p : img.parts) {
        c.parts.push_back(p.name);
        c.parts_ok = c.parts_ok && p.crcs_ok && p.type_id == 3;
        if (p.name == "KOR data" && !p.body.empty()) c.actset = p.body[0];
    }
    return c;
}

const Copy kKorData2{{"KOR data"}, 2}, kKorData0{{"KOR data"}, 0}, kDamaged2{{"KOR data"}, 2, false, false};

std::vector<CopiesRow> copies_rows(const std::string& w)
{
    const std::string deflt = golden("info_default.txt"), empty = golden("info_empty.txt"),
                      start = "critical part start: hostconfig_save called by ",
                      end = "critical part end: hostconfig_save\n",
                      loaded_backup = "hostconfig_load failed; loaded backup (", ok = ") successfully.\n";
    std::string set2 = deflt;  // the default layout, set 2 active
    set2.erase(set2.find("   ACTIVE SET"), 13);
    set2.insert(set2.find("\n", set2.find("  2  SET2")), "   ACTIVE SET");
    const std::vector<sandbox::LogLine> initialized = {{LOG_NOTICE, start + "initialize\n"}, {LOG_NOTICE, end},
                                                       {LOG_INFO, "initialize: OK\n"}},
                                        partset_saved = {{LOG_NOTICE, start + "partset\n"}, {LOG_NOTICE, end}};
    const auto plus = [](std::vector<sandbox::LogLine> a, const std::vector<sandbox::LogLine>& b) {
        a.insert(a.end(), b.begin(), b.end());
        return a;
    };
    return {
        CopiesRow("primary").primary(Held::good_copy)
            .info_stdout(set2).log({}).files_written({}).primary_after(kKorData2).backup_after(kNoImage),
        CopiesRow("backup").primary(Held::damaged_copy).backup(Held::good_copy)
            .info_stdout(set2).log({{LOG_DEBUG, loaded_backup + kP4 + ok}}).files_written({})
            .primary_after(kDamaged2).backup_after(kKorData2),
        CopiesRow("initialize").command("initialize").command_stderr("initialize: OK\n")
            .info_stdout(empty).log(initialized).files_written({})
            .primary_after(kKorData0).backup_after(kKorData0),
        CopiesRow("-cfg=, initialize").backup(Held::good_copy).paths(Paths::cfg_file)
            .command("initialize").command_stderr("initialize: OK\n")
            .info_stdout(empty).log(initialized).files_written({"hc.bin"})
            .primary_after(kKorData0).backup_after(kKorData2),
        CopiesRow("saved: backup first").primary(Held::good_copy).backup(Held::good_copy)
            .paths(Paths::cfg_and_backup_files).command("partset 1 SET1").command_stderr("")
            .info_stdout(set2).log(partset_saved).files_written({"bak.bin", "hc.bin"})
            .primary_after(kKorData2).backup_after(kKorData2),
        CopiesRow("loaded from backup: primary first").primary(Held::damaged_copy).backup(Held::good_copy)
            .paths(Paths::cfg_and_backup_files).command("partset 1 SET1")
            .command_stderr(loaded_backup + w + "/bak.bin" + ok)
            .info_stdout(set2).log(plus({{LOG_DEBUG, loaded_backup + w + "/bak.bin" + ok}}, partset_saved))
            .files_written({"hc.bin", "bak.bin"}).primary_after(kKorData2).backup_after(kKorData2),
        CopiesRow("neither good").primary(Held::damaged_copy).backup(Held::damaged_copy)
            .paths(Paths::cfg_and_backup_files).command("partset 1 SET1").command_stderr("")
            .info_stdout(deflt).log(partset_saved).files_written({"bak.bin", "hc.bin"})
            .primary_after(kKorData0).backup_after(kKorData0),
    };
}

// The names of the files in the directory `watch` follows whose writing ended, in that order.
std::vector<std::string> files_closed(int watch)
{
    alignas(inotify_event) char buf[4096];
    std::vector<std::string> names;
    const ssize_t n = read(watch, buf, sizeof buf);
    for (ssize_t at = 0; at < n;) {
        const auto* event = reinterpret_cast<const inotify_event*>(buf + at);
        names.push_back(event->name);
        at += ssize_t(sizeof(inotify_event) + event->len);
    }
    return names;
}

TEST(HostconfigDevice, InfoAndInitializeReadAndWriteTheRightCopies)
{
    KOR_SANDBOX_OR_SKIP();
    const std::string w = sandbox::workdir();
    for (const CopiesRow& row : copies_rows(w)) {
        SCOPED_TRACE(row.what);
        sandbox::Device dev;
        dev.with_default_layout();
        const std::string primary = row.paths_ == Paths::devices ? kP3 : w + "/hc.bin",
                          backup = row.paths_ == Paths::cfg_and_backup_files ? w + "/bak.bin" : kP4;
        for (auto [path, held] : {std::pair{primary, row.primary_before}, {backup, row.backup_before}}) {
            if (held != Held::nothing) store(2, {path});
            if (held == Held::damaged_copy) dev.write(path, 3000, {0xEE});
        }
        const int watch = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        ASSERT_GE(inotify_add_watch(watch, w.c_str(), IN_CLOSE_WRITE), 0);
        cli::Words options;
        if (row.paths_ == Paths::devices) options = {"-dryrun"};  // only a word in the place of the others
        else options = {"-cfg=" + primary};
        if (row.paths_ == Paths::cfg_and_backup_files) options.push_back("-cfgbak=" + backup);
        std::vector<sandbox::LogLine> log;
        const auto about_hostconfig = [&log](const sandbox::RunResult& r) {
            for (const auto& l : r.log)
                if (l.text.find("hostconfig") != std::string::npos || l.text.find("initialize:") != std::string::npos)
                    log.push_back(l);
        };
        if (!row.command_.empty()) {
            cli::Words args = options;
            for (const std::string& word : cli::split(row.command_)) args.push_back(word);
            const sandbox::RunResult r = dev.kor(args);
            EXPECT_EQ(r.err, row.command_err) << row.command_;
            about_hostconfig(r);
        }
        cli::Words args = options;
        args.push_back("info");
        const sandbox::RunResult info = dev.kor(args);
        EXPECT_EQ(info.out, row.info_out);
        about_hostconfig(info);
        EXPECT_EQ(log.size(), row.log_.size());
        for (size_t i = 0; i < std::min(log.size(), row.log_.size()); i++) {
            EXPECT_EQ(log[i].priority, row.log_[i].priority) << log[i].text;
            EXPECT_EQ(log[i].text, row.log_[i].text);
        }
        EXPECT_EQ(files_closed(watch), row.written);
        close(watch);
        EXPECT_EQ(decoded(dev, primary), row.primary_copy) << primary;
        EXPECT_EQ(decoded(dev, backup), row.backup_copy) << backup;
    }
}

}  // namespace
