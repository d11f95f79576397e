// The hostconfig store: the container on files, and load, save, initialize,
// info and the flags area on the sandbox's devices.
#include <gtest/gtest.h>

#include <sys/inotify.h>
#include <unistd.h>
#include <zlib.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "frontend/console.h"
#include "frontend/options.h"
#include "hostconfig/hostconfig.h"
#include "korl/korl.h"
#include "support/hostconfig_decoder.h"
#include "support/sandbox.h"

namespace {

using sandbox::bytes;
using parts_t = std::vector<std::pair<std::string, bytes>>;
const std::string kP3 = "/dev/mmcblk0p3", kP4 = "/dev/mmcblk0p4";

std::string golden(const char* name)
{
    std::ifstream in(std::string(KOR_SOURCE_DIR) + "/tests/golden/" + name, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// A VELK file written from the byte tables, for images kor would not make.
bytes image_of(const parts_t& parts)
{
    bytes b(24, 0);
    auto put = [&b](size_t at, uint32_t v) { for (int i = 0; i < 4; i++) b[at + i] = uint8_t(v >> 8 * i); };
    for (const auto& [name, body] : parts) {
        size_t at = b.size();
        b.resize(at + 32 + ((body.size() + 3) & ~size_t(3)), 0);
        b[at + 4] = 3, b[at + 6] = 32;
        put(at + 8, uint32_t(body.size()));
        std::copy(name.begin(), name.end(), b.begin() + at + 12);
        std::copy(body.begin(), body.end(), b.begin() + at + 32);
        put(at + 28, uint32_t(crc32(0, body.data(), uInt(body.size()))));
        put(at, uint32_t(crc32(0, &b[at + 4], 28)));
    }
    put(0, 0x56454C4B), put(4, 0x4B4C4556), b[12] = 1, b[14] = 16, put(16, uint32_t(b.size() - 24));
    put(20, uint32_t(crc32(0, &b[24], uInt(b.size() - 24))));
    put(8, uint32_t(crc32(0, &b[12], 12)));
    return b;
}

std::string str(const bytes& b) { return std::string(b.begin(), b.end()); }

kor_options opts_for(const std::string& cfg, const std::string& cfgbak)
{
    kor_options o{};
    kor_str_copy(o.cfg, sizeof o.cfg, cfg.c_str());
    kor_str_copy(o.cfgbak, sizeof o.cfgbak, cfgbak.c_str());
    return o;
}

// The part names of the stored image, "!" marking a part whose CRCs fail.
std::string stored(const sandbox::Device& dev, const std::string& path, hcdec::Image* img)
{
    if (!hcdec::decode_image(dev.read(path, 0, HOSTCONFIG_MAX), img)) return "undecodable";
    std::string s = img->ident_ok && img->crcs_ok ? "" : "!";
    for (const auto& p : img->parts) s += p.name + (p.crcs_ok && p.type_id == 3 ? " " : "! ");
    return s;
}

// Stores `d` as a hostconfig at `paths`, between bodies named A and B when asked.
void store(const korl_data& d, const std::vector<std::string>& paths, bool with_ab = false)
{
    hostconfig hc;
    ASSERT_EQ(hostconfig_new(&hc, HOSTCONFIG_MAX), 1);
    ASSERT_EQ(with_ab ? hostconfig_add_body(&hc, "alpha", 5, "A") : 1, 1);
    ASSERT_EQ(korl_hostconfig_export(&d, &hc), 1);
    ASSERT_EQ(with_ab ? hostconfig_add_body(&hc, "bravo!", 6, "B") : 1, 1);
    for (const auto& p : paths) ASSERT_EQ(hostconfig_save(&hc, p.c_str(), nullptr), 1);
}

korl_data default_record(int actset)
{
    hostconfig hc;
    korl_data d{};
    EXPECT_EQ(hostconfig_new(&hc, HOSTCONFIG_MAX), 1);
    EXPECT_EQ(hostconfig_default(&hc), 1);
    EXPECT_EQ(korl_hostconfig_import(&d, &hc), 1);
    d.actset = uint8_t(actset);
    return d;
}

TEST(HostconfigContainer, AddGrowsByPaddedSizeWithinCapacityAndTwentyParts)
{
    hostconfig hc;
    EXPECT_EQ(hostconfig_new(&hc, 5121), 0);
    std::vector<int> twenty_then_full(21, 1);
    twenty_then_full[20] = -1;
    struct Row {
        uint32_t capacity;
        std::vector<uint32_t> lengths;
        std::vector<int> results;
        uint32_t used;
    } rows[] = {
        {5120, {5}, {1}, 64},     {5120, {1, 8, 3240}, {1, 1, 1}, 24 + 36 + 40 + 3272},
        {64, {8}, {1}, 64},       {63, {8}, {-1}, 24},  // one byte over
        {5120, {0}, {-1}, 24},    {5120, std::vector<uint32_t>(21, 4), twenty_then_full, 24 + 20 * 36},
    };
    const bytes body(3240, 0xAB);
    for (const Row& r : rows) {
        ASSERT_EQ(hostconfig_new(&hc, r.capacity), 1);
        EXPECT_EQ(hc.used + uint32_t(hc.count), 24u);
        std::vector<int> got;
        for (uint32_t n : r.lengths) got.push_back(hostconfig_add_body(&hc, body.data(), n, "x"));
        EXPECT_EQ(got, r.results) << r.capacity;
        EXPECT_EQ(hc.used, r.used) << r.capacity;
    }
}

TEST(HostconfigFiles, SavedImageIsTheVelkFileLoadedBackOrRefused)
{
    KOR_SANDBOX_OR_SKIP();
    sandbox::Device dev;
    const std::string p = dev.workdir() + "/p", b = dev.workdir() + "/b";
    const parts_t parts = {
        {"A", {1, 2, 3, 4, 5}}, {"KOR data", bytes(3240, 0x5C)}, {"SIXTEEN-CHARS-NM", bytes(7, 9)}};
    hostconfig hc;
    ASSERT_EQ(hostconfig_new(&hc, HOSTCONFIG_MAX), 1);
    for (const auto& [n, v] : parts)
        ASSERT_EQ(hostconfig_add_body(&hc, v.data(), uint32_t(v.size()), n.c_str()), 1);
    ASSERT_EQ(hostconfig_save(&hc, p.c_str(), nullptr), 1);
    const bytes good = dev.read(p, 0, 8192);
    EXPECT_EQ(good, image_of(parts));  // used bytes, byte for byte
    ASSERT_EQ(hostconfig_new(&hc, HOSTCONFIG_MAX), 1);
    ASSERT_EQ(hostconfig_load(&hc, p.c_str(), nullptr), 1);
    struct Lookup { const char* name; int part_at; } lookups[] = {  // first part whose name begins so
        {"A", 24}, {"", 24}, {"KOR data", 64}, {"KOR", 64}, {"SIXTEEN-CHARS-NM", 3336},
        {"SIXTEEN-CHARS-NMX", 0}, {"B", 0}};
    for (const Lookup& l : lookups)
        EXPECT_EQ(hostconfig_get_body(&hc, l.name), l.part_at ? hc.image + l.part_at + 32 : nullptr) << l.name;
    parts_t many;
    for (int i = 0; i < 21; i++) many.push_back({"P" + std::to_string(i), bytes(4, uint8_t(i))});
    bytes damaged = good, big = good;
    damaged[24 + 32 + 40 + 100] ^= 1;
    big.resize(5121);
    struct Row { const char* what; bytes primary; bool backup; int want; } rows[] = {
        {"damaged, good backup", damaged, true, 2}, {"damaged, no backup", damaged, false, -1},
        {"5121 bytes", big, false, -1},             {"no content parts", bytes(24, 0), false, -1},
        {"20 parts", image_of(parts_t(many.begin(), many.end() - 1)), false, 1},
        {"21 parts", image_of(many), false, -1},    {"21 parts, good backup", image_of(many), true, 2},
    };
    dev.write_file(b, str(good));
    for (const Row& r : rows) {
        dev.write_file(p, str(r.primary));
        ASSERT_EQ(hostconfig_new(&hc, HOSTCONFIG_MAX), 1);
        EXPECT_EQ(hostconfig_load(&hc, p.c_str(), r.backup ? b.c_str() : nullptr), r.want) << r.what;
    }
    dev.write_file(p, str(image_of({{"KOR data", bytes(3239, 1)}})));
    korl_data d;
    ASSERT_EQ(hostconfig_new(&hc, HOSTCONFIG_MAX), 1);
    ASSERT_EQ(hostconfig_load(&hc, p.c_str(), nullptr), 1);
    EXPECT_EQ(korl_hostconfig_import(&d, &hc), -1);  // refused, not read past its end
}

TEST(HostconfigFiles, SaveWritesTheGoodCopyLast)
{
    KOR_SANDBOX_OR_SKIP();
    sandbox::Device dev;
    const std::string p = dev.workdir() + "/primary", b = dev.workdir() + "/backup";
    const std::string good = str(image_of({{"KOR data", bytes(3240, 0)}}));
    struct Row { bool primary_good, backup_good; int loaded_from; std::string order; } rows[] = {
        {true, true, 1, "backup primary "},
        {false, true, 2, "primary backup "},  // the backup is the only good copy
        {false, false, 0, "backup primary "}};
    for (const Row& r : rows) {
        dev.write_file(p, r.primary_good ? good : "x");
        dev.write_file(b, r.backup_good ? good : "x");
        kor_options o = opts_for(p, b);
        korl_data d;
        hostconfig loaded;
        ASSERT_EQ(load(&o, &d, &loaded), 1);
        EXPECT_EQ(loaded.loaded_from, r.loaded_from);
        int in = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        ASSERT_GE(inotify_add_watch(in, dev.workdir().c_str(), IN_CLOSE_WRITE), 0);
        ASSERT_EQ(save_hostconfig(&o, &d, &loaded, "test"), 1);
        alignas(inotify_event) char buf[4096];
        std::string order;
        for (ssize_t at = 0, n = read(in, buf, sizeof buf); at < n;) {
            const auto* e = reinterpret_cast<const inotify_event*>(buf + at);
            order += std::string(e->name) + " ";
            at += ssize_t(sizeof *e + e->len);
        }
        close(in);
        EXPECT_EQ(order, r.order) << r.loaded_from;
        hcdec::Image img;
        EXPECT_EQ(stored(dev, p, &img) + stored(dev, b, &img), "KOR data KOR data ");
    }
}

TEST(HostconfigDevice, InfoReportsPrimaryElseBackupElseDefaultLayout)
{
    KOR_SANDBOX_OR_SKIP();
    const std::string deflt = golden("info_default.txt");
    std::string set2 = deflt;
    set2.erase(set2.find("   ACTIVE SET"), 13);
    set2.insert(set2.find("\n", set2.find("  2  SET2")), "   ACTIVE SET");
    const std::string backup_line = "7 hostconfig_load failed; loaded backup (/dev/mmcblk0p4) successfully.\n";
    enum { none, good, damaged };
    struct Row { const char* what; int primary, backup; std::string out, log; } rows[] = {
        {"never written", none, none, deflt, ""}, {"primary", good, none, set2, ""},
        {"backup", damaged, good, set2, backup_line}, {"both damaged", damaged, damaged, deflt, ""}};
    for (const Row& r : rows) {
        sandbox::Device dev;
        dev.with_default_layout();
        for (auto [path, kind] : {std::pair{kP3, r.primary}, {kP4, r.backup}}) {
            if (kind != none) store(default_record(2), {path});
            if (kind == damaged) dev.write(path, 3000, {0xEE});
        }
        sandbox::RunResult res = dev.kor({"info"});
        EXPECT_EQ(res.status, 0) << r.what;
        EXPECT_EQ(res.out, r.out) << r.what;
        std::string log;
        for (const auto& l : res.log)
            if (l.text.find("hostconfig") != std::string::npos) log += std::to_string(l.priority) + " " + l.text;
        EXPECT_EQ(log, r.log) << r.what;
    }
}

TEST(HostconfigDevice, InitializeWritesAnEmptyRecordThatInfoShows)
{
    KOR_SANDBOX_OR_SKIP();
    sandbox::Device dev;
    dev.with_default_layout();
    sandbox::RunResult r = dev.kor({"-dryrun", "initialize"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "initialize: OK\n");
    EXPECT_NE(r.log_text().find("critical part start: hostconfig_save called by initialize\n"
                                "critical part end: hostconfig_save\ninitialize: OK\n"), std::string::npos);
    hcdec::Image img;
    for (const std::string& path : {kP3, kP4}) {
        EXPECT_EQ(stored(dev, path, &img), "KOR data ") << path;
        EXPECT_EQ(img.parts.at(0).body, bytes(3240, 0)) << path;
    }
    r = dev.kor({"info"});
    EXPECT_EQ(r.out, golden("info_empty.txt"));
}

TEST(HostconfigDevice, SaveKeepsOtherBodiesAndEveryStoredField)
{
    KOR_SANDBOX_OR_SKIP();
    sandbox::Device dev;
    dev.with_default_layout();
    store(default_record(1), {kP3, kP4}, true);
    kor_options o = opts_for(kP3, kP4);
    korl_data d;
    hostconfig loaded;
    ASSERT_EQ(load(&o, &d, &loaded), 1);
    ASSERT_EQ(d.actset, 1);
    ASSERT_EQ(korl_init(&d), 1);
    partset_init(&d, 1, "FIFTEEN-CHARS-X+");
    d.actset = 2, d.partset[1].bootable = 1;
    d.partset[1].refs[0] = 11, d.partset[1].refs[1] = 21;
    partinfo_init(&d, 21, "SIXTEEN-CHARS-PL", 0x9ABCDEF0, 0x12345678);
    kor_field_copy(d.partinfo[21].mountpnt, 32, "/mnt/x");
    kor_field_copy(d.partinfo[21].fstype, 10, "squashfs12");
    d.rhdr[2] = {3, 7, 0xBEEF, -5, "release-id"};
    d.pinfometa[0] = {0xA1B2C3D4, 4, 64, 0x11223344, "KNL", 0x55667788, 1, 2, 0x3344, "sw-id"};
    ASSERT_EQ(save_hostconfig(&o, &d, &loaded, "test"), 1);
    for (const std::string& path : {kP3, kP4}) {
        hcdec::Image img;
        ASSERT_EQ(stored(dev, path, &img), "A B KOR data ") << path;
        EXPECT_EQ(str(img.parts[0].body) + str(img.parts[1].body), "alphabravo!");
        EXPECT_EQ(hcdec::decode_kor_data(img.parts[2].body), golden("kor_data_fields.txt")) << path;
    }
}

TEST(HostconfigDevice, CfgWithoutBackupWritesAndReadsOnlyThePrimary)
{
    KOR_SANDBOX_OR_SKIP();
    sandbox::Device dev;
    dev.with_default_layout();
    store(default_record(1), {kP4});
    const bytes backup = dev.read(kP4, 0, HOSTCONFIG_MAX);
    const std::string cfg = "-cfg=" + dev.workdir() + "/hc.bin";
    EXPECT_EQ(dev.kor({cfg, "initialize"}).status, 0);
    hcdec::Image img;
    EXPECT_EQ(stored(dev, dev.workdir() + "/hc.bin", &img), "KOR data ");
    EXPECT_EQ(dev.read(kP4, 0, HOSTCONFIG_MAX), backup);
    dev.write_file(dev.workdir() + "/hc.bin", "junk");
    EXPECT_EQ(dev.kor({cfg, "info"}).out, golden("info_default.txt"));  // not the backup's set 1
}

TEST(HostconfigFlags, StatesReadAndWrittenAsTheByteSays)
{
    KOR_SANDBOX_OR_SKIP();
    sandbox::Device dev;
    dev.with_default_layout();
    struct Read { uint8_t byte; int state; } reads[] = {{0x00, 0}, {0x02, 0}, {0x01, 1}, {0x03, 2}, {0xFD, 1}};
    for (const Read& r : reads) {
        dev.write(kP3, HOSTCONFIG_FLAGS_OFFSET, {0x00, r.byte});
        EXPECT_EQ(get_upgrade_state(2), r.state) << int(r.byte);
        EXPECT_EQ(get_upgrade_state(0) * 10 + get_upgrade_state(3), -1);
    }
    struct Write { uint8_t before; int set, state, result; uint8_t after; const char* printed; } writes[] = {
        {0x03, 1, 1, 0, 0x01, ""}, {0x01, 1, 1, 0, 0x01, ""}, {0xFD, 1, 0, 0, 0x00, ""},
        {0x02, 2, 1, 0, 0x01, ""}, {0x03, 1, 2, 0, 0x03, ""},
        {0x01, 1, 2, -1, 0x01, "cannot set state to 2, invalid"},
        {0x00, 0, 1, -1, 0x00, ""}, {0x00, 0, 0, 0, 0x00, ""},
    };
    for (const Write& w : writes) {
        const int byte = w.set == 2 ? 1 : 0;
        bytes before = {0x5A, 0x5A}, after = {0x5A, 0x5A};
        before[byte] = w.before, after[byte] = w.after;
        dev.write(kP3, HOSTCONFIG_FLAGS_OFFSET, before);
        testing::internal::CaptureStdout();
        EXPECT_EQ(set_upgrade_state(w.set, w.state), w.result) << w.set << "/" << w.state;
        EXPECT_EQ(testing::internal::GetCapturedStdout(), w.printed);
        EXPECT_EQ(dev.read(kP3, HOSTCONFIG_FLAGS_OFFSET, 2), after) << w.set << "/" << w.state;
    }
}

}  // namespace
