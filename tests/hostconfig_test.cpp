// The hostconfig store: the container on files; load, save, initialize, info and flags on the sandbox's devices.
#include <gtest/gtest.h>

#include <sys/inotify.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <sstream>

#include "base/console.h"
#include "base/options.h"
#include "hostconfig/hostconfig.h"
#include "korl/korl.h"
#include "mkvelk.h"
#include "support/hostconfig_decoder.h"
#include "support/sandbox.h"

namespace {

using sandbox::bytes, mkvelk::build_image;
using parts_t = std::vector<mkvelk::part>;  // data parts, made by mkvelk: what kor should make, and worse
const std::string kP3 = "/dev/mmcblk0p3", kP4 = "/dev/mmcblk0p4";

std::string golden(const char* name)
{
    std::ifstream in(std::string(KOR_SOURCE_DIR) + "/tests/golden/" + name, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

// The part names of the stored image ("!": CRCs fail), with the actset of "KOR data"; "none" when undecodable.
std::string stored(const sandbox::Device& dev, const std::string& path, hcdec::Image* out = nullptr)
{
    hcdec::Image img;
    if (!hcdec::decode_image(dev.read(path, 0, HOSTCONFIG_MAX), &img)) return "none ";
    std::string s = img.crcs_ok ? "" : "!";
    for (const auto& p : img.parts)
        s += p.name + (p.name == "KOR data" && !p.body.empty() ? "(" + std::to_string(p.body[0]) + ")" : "") +
             (p.crcs_ok && p.type_id == 3 ? " " : "! ");
    return (out ? *out = img : img), s;
}

// Stores the default layout with `actset` at `paths`, between bodies named A and B when asked.
void store(int actset, const std::vector<std::string>& paths, bool with_ab = false)
{
    hostconfig hc;
    korl_data d{};
    ASSERT_TRUE(hostconfig_new(&hc, HOSTCONFIG_MAX) == 1 && hostconfig_default(&hc) == 1 && korl_hostconfig_import(&d, &hc) == 1);
    d.actset = uint8_t(actset);
    ASSERT_TRUE(hostconfig_new(&hc, HOSTCONFIG_MAX) == 1 && (!with_ab || hostconfig_add_body(&hc, "alpha", 5, "A") == 1) &&
                korl_hostconfig_export(&d, &hc) == 1 && (!with_ab || hostconfig_add_body(&hc, "bravo!", 6, "B") == 1));
    for (const auto& p : paths) ASSERT_EQ(hostconfig_save(&hc, p.c_str(), nullptr), 1);
}

TEST(HostconfigFiles, AddSaveLoadLookUpAndFlags)
{
    KOR_SANDBOX_OR_SKIP();
    hostconfig hc;
    EXPECT_EQ(hostconfig_new(&hc, 5121), 0);
    const struct { uint32_t capacity; std::vector<uint32_t> lengths; std::string results; uint32_t used; } adds[] = {
        {5120, {1, 8, 3240}, "+++", 24 + 36 + 40 + 3272}, {64, {8}, "+", 64}, {63, {8}, "-", 24}, {5120, {0}, "-", 24},
        {5120, std::vector<uint32_t>(21, 4), std::string(20, '+') + "-", 24 + 20 * 36}};
    const bytes big_body(3240, 0xAB);
    for (const auto& r : adds) {  // each body grows the image by its padded size, within the capacity and 20 parts
        ASSERT_EQ(hostconfig_new(&hc, r.capacity), 1);
        std::string got = std::to_string(hc.used + uint32_t(hc.count)) + " ";
        for (uint32_t n : r.lengths) got += "-?+"[hostconfig_add_body(&hc, big_body.data(), n, "x") + 1];
        EXPECT_EQ(got + " " + std::to_string(hc.used), "24 " + r.results + " " + std::to_string(r.used)) << r.capacity;
    }
    sandbox::Device dev;
    const std::string p = dev.workdir() + "/p";
    const parts_t parts = {mkvelk::data("A", {1, 2, 3, 4, 5}), mkvelk::data("KOR data", bytes(3240, 0x5C)),
                           mkvelk::data("SIXTEEN-CHARS-NM", bytes(7, 9))};
    ASSERT_EQ(hostconfig_new(&hc, HOSTCONFIG_MAX), 1);
    for (const mkvelk::part& v : parts)
        ASSERT_EQ(hostconfig_add_body(&hc, v.body.data(), uint32_t(v.body.size()), v.name.c_str()), 1);
    ASSERT_EQ(hostconfig_save(&hc, p.c_str(), nullptr), 1);
    const bytes good = dev.read(p, 0, 8192);
    EXPECT_EQ(good, build_image(parts));  // used bytes, byte for byte
    ASSERT_TRUE(hostconfig_new(&hc, HOSTCONFIG_MAX) == 1 && hostconfig_load(&hc, p.c_str(), nullptr) == 1);
    for (auto [name, at] : {std::pair{"KOR", 64}, {"SIXTEEN-CHARS-NM", 3336}, {"SIXTEEN-CHARS-NMX", 0}})  // a prefix
        EXPECT_EQ(hostconfig_get_body(&hc, name), at ? hc.image + at + 32 : nullptr) << name;
    parts_t many;
    for (int i = 0; i < 21; i++) many.push_back(mkvelk::data("P" + std::to_string(i), bytes(4, uint8_t(i))));
    bytes damaged = good, big = good, padded = good;
    damaged[24 + 32 + 40 + 100] ^= 1, big.resize(5121), padded.resize(5120);
    const std::pair<bytes, int> loads[] = {  // damaged, 5121 bytes, 5120, no content part, 21 and 20 parts, short body
        {damaged, -1}, {big, -1}, {padded, 1}, {bytes(24, 0), -1}, {build_image(many), -1},
        {build_image({many.begin(), many.end() - 1}), 1}, {build_image({mkvelk::data("KOR data", bytes(3239, 1))}), 1}};
    for (const auto& [image, want] : loads) {
        dev.write_file(p, std::string(image.begin(), image.end()));
        ASSERT_EQ(hostconfig_new(&hc, HOSTCONFIG_MAX), 1);
        EXPECT_EQ(hostconfig_load(&hc, p.c_str(), nullptr), want) << image.size();
    }
    korl_data d;
    EXPECT_EQ(korl_hostconfig_import(&d, &hc), -1);  // a short "KOR data": refused, not read past its end
    dev.with_default_layout();  // saved: other bodies kept, every field stored; the flags read and written per bit
    store(1, {kP3, kP4}, true);
    kor_options o{};
    kor_str_copy(o.cfg, sizeof o.cfg, kP3.c_str()), kor_str_copy(o.cfgbak, sizeof o.cfgbak, kP4.c_str());
    hostconfig loaded;
    ASSERT_TRUE(load(&o, &d, &loaded) == 1 && d.actset == 1 && korl_init(&d) == 1);
    partset_init(&d, 1, "FIFTEEN-CHARS-X+"), partinfo_init(&d, 21, "SIXTEEN-CHARS-PL", 0x9ABCDEF0, 0x12345678);
    d.actset = 2, d.partset[1].bootable = 1, d.partset[1].refs[0] = 11, d.partset[1].refs[1] = 21;
    kor_field_copy(d.partinfo[21].mountpnt, 32, "/mnt/x"), kor_field_copy(d.partinfo[21].fstype, 10, "squashfs12");
    d.rhdr[2] = {3, 7, 0xBEEF, -5, "release-id"};
    d.pinfometa[0] = {0xA1B2C3D4, 4, 64, 0x11223344, "KNL", 0x55667788, 1, 2, 0x3344, "sw-id"};
    ASSERT_EQ(save_hostconfig(&o, &d, &loaded, "test"), 1);
    for (const std::string& path : {kP3, kP4}) {
        hcdec::Image img;
        ASSERT_EQ(stored(dev, path, &img), "A B KOR data(2) ") << path;
        EXPECT_EQ(std::string(img.parts[0].body.begin(), img.parts[0].body.end()) +
                      std::string(img.parts[1].body.begin(), img.parts[1].body.end()) +
                      hcdec::decode_kor_data(img.parts[2].body), "alphabravo!" + golden("kor_data_fields.txt")) << path;
    }
    dev.write(kP3, HOSTCONFIG_FLAGS_OFFSET, {0xFD, 0x02});  // a state per bit: set 0 has none, there is no set 3
    for (auto [set, state] : {std::pair{0, 0}, {1, 1}, {2, 0}, {3, -1}}) EXPECT_EQ(get_upgrade_state(set), state) << set;
    testing::internal::CaptureStdout();  // a state other than 0 and 1: refused, nothing written
    const std::string result = std::to_string(set_upgrade_state(2, 2));
    EXPECT_EQ(result + testing::internal::GetCapturedStdout(), "-1cannot set state to 2, invalid");
    EXPECT_EQ(dev.read(kP3, HOSTCONFIG_FLAGS_OFFSET, 2), bytes({0xFD, 0x02}));
}

TEST(HostconfigDevice, InfoAndInitializeReadAndWriteTheRightCopies)
{
    KOR_SANDBOX_OR_SKIP();
    const std::string deflt = golden("info_default.txt"), empty = "initialize: OK\n" + golden("info_empty.txt"),
                      crit = "5 critical part start: hostconfig_save called by ", end = "5 critical part end: hostconfig_save\n",
                      init = crit + "initialize\n" + end + "6 initialize: OK\n", psave = crit + "partset\n" + end,
                      lb = "hostconfig_load failed; loaded backup (", ok = ") successfully.\n";  // W: the workdir
    std::string set2 = deflt;
    set2.erase(set2.find("   ACTIVE SET"), 13);
    set2.insert(set2.find("\n", set2.find("  2  SET2")), "   ACTIVE SET");
    enum { none, good, damaged };
    // Primary and backup before (p3, p4; -cfg= file if cfg, -cfgbak= file if cfg is 2); the command before "info";
    // its stderr, info's output, their hostconfig syslog lines, the files in write order, what the copies hold after.
    const struct { const char* what; int primary, backup, cfg; const char* before; std::string out, log, stored; } rows[] = {
        {"primary", good, none, 0, "", set2, "", "KOR data(2) |none "},
        {"backup", damaged, good, 0, "", set2, "7 " + lb + kP4 + ok, "!KOR data(2)! |KOR data(2) "},
        {"initialize", none, none, 0, "initialize", empty, init, "KOR data(0) |KOR data(0) "},
        {"-cfg=, initialize", none, good, 1, "initialize", empty, init, "hc.bin KOR data(0) |KOR data(2) "},
        {"saved: backup first", good, good, 2, "partset 1 SET1", set2, psave, "bak.bin hc.bin KOR data(2) |KOR data(2) "},
        {"loaded from backup: primary first", damaged, good, 2, "partset 1 SET1", lb + "W/bak.bin" + ok + set2,
         "7 " + lb + "W/bak.bin" + ok + psave, "hc.bin bak.bin KOR data(2) |KOR data(2) "},
        {"neither good", damaged, damaged, 2, "partset 1 SET1", deflt, psave, "bak.bin hc.bin KOR data(0) |KOR data(0) "},
    };
    for (const auto& r : rows) {
        sandbox::Device dev;
        dev.with_default_layout();
        const std::string w = dev.workdir(), primary = r.cfg ? w + "/hc.bin" : kP3, bak = r.cfg > 1 ? w + "/bak.bin" : kP4;
        for (auto [path, kind] : {std::pair{primary, r.primary}, {bak, r.backup}})
            if (kind != none) store(2, {path}), kind == damaged ? dev.write(path, 3000, {0xEE}) : void();
        const int in = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        ASSERT_GE(inotify_add_watch(in, w.c_str(), IN_CLOSE_WRITE), 0);
        std::string got, log;
        for (const std::string action : {r.before, "info"}) {
            if (action.empty()) continue;
            std::istringstream words((r.cfg ? "-cfg=" + primary : "-dryrun") + (r.cfg > 1 ? " -cfgbak=" + bak : "") + " " + action);
            sandbox::RunResult res = dev.kor({std::istream_iterator<std::string>(words), {}});
            got += action == "info" ? res.out : res.err;  // a failed run shows in its output, log or stored copies
            for (const auto& l : res.log)
                if (l.text.find("hostconfig") != std::string::npos || l.text.find("initialize:") != std::string::npos)
                    log += std::to_string(l.priority) + " " + l.text;
        }
        alignas(inotify_event) char buf[4096];
        auto event = [&buf](ssize_t at) { return reinterpret_cast<const inotify_event*>(buf + at); };
        got += log;
        for (ssize_t at = 0, n = read(in, buf, sizeof buf); at < n; at += ssize_t(sizeof(inotify_event) + event(at)->len))
            got += event(at)->name + std::string(" ");
        close(in);
        got += stored(dev, primary) + "|" + stored(dev, bak);
        for (size_t at; (at = got.find(w)) != std::string::npos;) got.replace(at, w.size(), "W");
        EXPECT_EQ(got, r.out + r.log + r.stored) << r.what;
    }
}

}  // namespace
