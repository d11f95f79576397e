// Install planning and recording on in-memory records; the CRC32 check, reuse of installed copies and
// set verification against real partitions in the sandbox.
#include <cstring>

#include "frontend/fileutil.h"
#include "install/install.h"
#include "support/sandbox.h"

struct ver { uint8_t major, minor; uint16_t build; };
using refs = std::vector<int>;
using versions = std::vector<std::pair<int, ver>>;  // entry, recorded version
constexpr uint64_t kPartSize = 64 << 10;

// The default layout (entry index = partition number) with the given refs of sets 1 and 2.
static korl_data layout(refs set1 = {}, refs set2 = {}, const versions& recorded = {})
{
    static const char* const pools[] = {"SAFEKNLS", "SAFEDTS", "SAFEROOTS", "SAFEAPPLS", "KNLS", "DTS", "ROOTS", "APPLS"};
    korl_data d{};
    for (int i = 0; i < 12; ++i) partinfo_init(&d, i < 4 ? 5 + i : 7 + i, pools[i < 4 ? i : 4 + i % 4], kPartSize, 0);
    for (int s = 0; s < KORL_SETS; ++s) partset_init(&d, s, s ? (s == 1 ? "SET1" : "SET2") : "SAFESET");
    std::copy(set1.begin(), set1.end(), d.partset[1].refs), std::copy(set2.begin(), set2.end(), d.partset[2].refs);
    for (auto [i, v] : recorded)
        d.pinfometa[i].sw_version_major = v.major, d.pinfometa[i].sw_version_minor = v.minor, d.pinfometa[i].sw_build_number = v.build;
    korl_partpool_generate(&d);
    return d;
}

static korm_element elem(int cidx, const char* pool, uint32_t meta_valid, ver v = {1, 0, 0}, const char* platform = "-", uint8_t wts = 1,
                         uint32_t action = 0, int partinfo_idx = -1)
{
    korm_element e{1, static_cast<int8_t>(cidx), {}, 0, "/", "", {}, meta_valid, wts, 0, 0, 0, action, partinfo_idx};
    std::strncpy(e.poolname, pool, sizeof e.poolname - 1), std::strncpy(e.platform, platform, sizeof e.platform - 1);
    if (meta_valid == 1) e.ver_major = v.major, e.ver_minor = v.minor, e.ver_build = v.build;
    return e;
}

// The planning result, then "action:partinfo_idx" of the first n elements.
static std::string plan_of(int result, const korm_element* e, size_t n)
{
    std::string s = std::to_string(result);
    for (size_t i = 0; i < n; ++i) s += " " + std::to_string(e[i].action) + ":" + std::to_string(e[i].partinfo_idx);
    return s;
}

static const std::vector<korm_element> kRelease = {elem(0, "KNLS", 1), elem(1, "DTS", 1), elem(2, "ROOTS", 1), elem(3, "APPLS", 1)};

TEST(Plan, ChoosesPartitions)
{
    const korm_element k1 = elem(0, "KNLS", 1, {1, 0, 0}), k2 = elem(1, "KNLS", 1, {2, 0, 0}), k3 = elem(2, "KNLS", 1, {3, 0, 0});
    // Whole releases, singletons and SAFESET: see the install tests. recorded: versions only, nothing on a device.
    const struct { const char* name; std::vector<korm_element> in; const char* plan; int setidx = 1, force = 0; const char* platform = "";
                   refs set1 = {}, set2 = {}; versions recorded = {}; } rows[] = {
        {"SET2 holds 11 to 14", kRelease, "1 1:15 1:16 1:17 1:18", 1, 0, "", {}, {11, 12, 13, 14}},
        {"own partitions are free", {kRelease[0], kRelease[1]}, "1 1:11 1:12", 1, 0, "", {11, 12, 13, 14}, {15, 16, 17, 18}},
        {"dependency not fulfilled", {elem(-1, "APPLS", 1)}, "-2 0:-1"},
        {"failure stops the plan", {elem(0, "KNLS", 1), elem(1, "SAFEDTS", 1), elem(2, "DTS", 1)}, "-3 1:11 0:-1 0:-1"},
        {"no version takes the newest", {elem(-1, "ROOTS", 0)}, "1 2:17", 1, 0, "", {}, {}, {{13, {1, 2, 5}}, {17, {1, 10, 0}}}},
        {"no version, tie takes the lowest", {elem(-1, "ROOTS", 0)}, "1 2:13", 1, 0, "", {}, {}, {{13, {2, 0, 1}}, {17, {2, 0, 1}}}},
        {"no version, unknown pool", {elem(-1, "NOPE", 0)}, "-4 0:-1"},
        {"no version, empty pool name", {elem(-1, "", 0)}, "-99 0:-1"},
        {"write into a too long pool", {elem(0, "KNLSKNLSKNLSKNLS", 1)}, "-4 0:-1"},
        {"two lines for one pool take two partitions", {k1, k2}, "1 1:11 1:15"},
        {"a third line for a two-partition pool finds none", {k1, k2, k3}, "-5 1:11 1:15 0:-1"},
        {"version on arrival reserves", {elem(0, "KNLS", 2)}, "1 3:11"},
        {"platform filter", {elem(0, "KNLS", 1, {}, "arm"), elem(1, "DTS", 1, {}, "-"), elem(2, "ROOTS", 1, {}, "pc"),
                             elem(3, "APPLS", 1, {}, "pcx")}, "1 0:-1 1:12 1:13 0:-1", 1, 0, "pc"},
    };
    for (const auto& row : rows) {
        korl_data d = layout(row.set1, row.set2, row.recorded);
        korm_element e[KORL_KORM_ELEMENTS] = {};
        for (size_t i = 0; i < row.in.size(); ++i) e[i] = row.in[i], e[i].action = 7;  // reset first
        korl_rhdr rh{};
        const int r = korl_meta_install_part1(&d, row.setidx, &rh, e, row.platform, row.force);
        EXPECT_EQ(plan_of(r, e, row.in.size()), row.plan) << row.name;
    }
}

TEST(Record, WritesTheSetOrRefusesUntouched)
{
    using tweak_fn = void (*)(korm_element* e, velk_content_header** table);  // after planning
    static const auto same_refs = [](korm_element* e, int n) { std::fill_n(e, n, elem(-1, "KNLS", 1, {1, 0, 0}, "-", 1, 2, 15)); };
    const struct { const char* name; tweak_fn tweak; int result; refs set1; } rows[] = {  // set1 afterwards; {9} before
        {"planned release", [](korm_element*, velk_content_header**) {}, 1, {11, 12, 13, 14}},
        {"skipped element", [](korm_element* e, velk_content_header**) { e[1].action = 0; }, 1, {11, 13, 14}},
        {"element left at action 3", [](korm_element* e, velk_content_header**) { e[3].action = 3; }, -6, {9}},
        {"content part missing", [](korm_element*, velk_content_header** t) { t[2] = nullptr; }, -6, {9}},
        {"content index beyond the table", [](korm_element* e, velk_content_header**) { e[1].cidx = 20; }, -6, {9}},
        {"22 references", [](korm_element* e, velk_content_header**) { same_refs(e, 22); }, 1, refs(22, 15)},
        {"23 references", [](korm_element* e, velk_content_header**) { same_refs(e, 23); }, -6, {9}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        korl_data d = layout({9});
        korm_element e[KORL_KORM_ELEMENTS] = {};
        std::copy(kRelease.begin(), kRelease.end(), e);
        korl_rhdr rh{2, 1, 37, 1700000000, "build-77"};
        ASSERT_EQ(korl_meta_install_part1(&d, 1, &rh, e, "", 0), 1);
        velk_software_content parts[4] = {};
        velk_content_header* table[VELK_MAX_PARTS] = {};
        for (int i = 0; i < 4; ++i)  // header CRC 0, body CRC 0x12345678 + i, build number i
            parts[i].hdr = {0, VELK_TYPE_SOFTWARE, 64, 1000, "part", 0x12345678u + i}, parts[i].sw_build_number = uint16_t(i),
            table[i] = &parts[i].hdr;
        row.tweak(e, table);
        const korl_data before = d;
        EXPECT_EQ(korl_meta_install(&d, 1, &rh, e, table, "", 0), row.result);
        std::vector<int8_t> want(KORL_REFS, -1);
        std::copy(row.set1.begin(), row.set1.end(), want.begin());
        EXPECT_EQ(std::vector<int8_t>(d.partset[1].refs, d.partset[1].refs + KORL_REFS), want);
        EXPECT_EQ(std::memcmp(&d, &before, KORL_STORED_SIZE) == 0, row.result != 1) << "a refusal changes nothing";
        EXPECT_EQ(std::memcmp(&d.rhdr[1], &rh, sizeof rh) == 0, row.result == 1);
        EXPECT_EQ(std::memcmp(&d.pinfometa[13], &parts[2], 64) == 0, row.set1[0] == 11);
    }
}

// Records content of `length` bytes in entry idx and writes it to the partition, with its header first for write type 2.
static void put_content(const sandbox::Device& dev, korl_data& d, int idx, size_t length, int wts, ver v = {1, 0, 0})
{
    const size_t header = wts == 2 ? sizeof(korl_pinfometa) : 0;
    sandbox::bytes out(header + length);
    for (size_t i = 0; i < length; ++i) out[header + i] = static_cast<uint8_t>(i * 31 + idx);
    korl_pinfometa& m = d.pinfometa[idx] = {0, VELK_TYPE_SOFTWARE, 64, uint32_t(length), {'c', char('0' + idx / 10), char('0' + idx % 10)},
                                            crc32_calc(0, out.data() + header, uint32_t(length)), v.major, v.minor, v.build, {}};
    std::memcpy(out.data(), &m, header);
    dev.write(sandbox::Device::part(d.partinfo[idx].pn), 0, out);
}

TEST(OnPartitions, CrcCheckReuseAndVerifySet)
{
    KOR_SANDBOX_OR_SKIP();
    sandbox::Device dev;
    dev.with_default_layout(kPartSize);
    using M = korl_pinfometa&;  // the recorded header and partition entry of 13
    using P = korl_partinfo&;
    const struct { const char* name; size_t length; int write_wts, check_wts; void (*tweak)(M, P); int result; } rows[] = {
        {"intact over several pieces", 10000, 1, 1, [](M, P) {}, 0},
        {"CRC differs", 1000, 1, 1, [](M m, P) { m.body_crc ^= 1; }, 4},
        {"no length", 1000, 1, 1, [](M m, P) { m.body_length = 0; }, 2},
        {"no device", 1000, 1, 1, [](M, P p) { p.pn = 40; }, 3},
        {"header first", 1000, 2, 2, [](M, P) {}, 0},
        {"header differs", 1000, 2, 2, [](M m, P) { m.sw_build_id[27] = 1; }, 3},
        {"header above 64", 1000, 2, 2, [](M m, P) { m.hdr_length = 65; }, 3},
        {"header first read as body", 1000, 2, 1, [](M, P) {}, 4},
        {"device end ends the CRC", kPartSize, 1, 1, [](M m, P) { m.body_length += 9; }, 0},
    };
    for (const auto& row : rows) {
        korl_data d = layout();
        put_content(dev, d, 13, row.length, row.write_wts);
        row.tweak(d.pinfometa[13], d.partinfo[13]);
        EXPECT_EQ(crc32_check(&d, 13, row.check_wts), row.result) << row.name;
    }

    // Planning and late decisions that find (or reject) a copy on the device.
    korl_data d = layout();
    put_content(dev, d, 15, 3000, 1, {1, 2, 3}), put_content(dev, d, 16, 3000, 1, {1, 2, 3});
    put_content(dev, d, 17, 3000, 2, {0, 0, 0}), put_content(dev, d, 18, 3000, 1, {4, 0, 1});
    dev.write(sandbox::Device::part(18), 0, {0xFF});
    const std::pair<korm_element, const char*> reuse[] = {
        {elem(0, "KNLS", 1, {1, 2, 3}), "1 2:15"},         // intact copy
        {elem(0, "KNLS", 1, {1, 2, 4}), "1 1:11"},         // another version
        {elem(0, "DTS", 1, {1, 2, 3}, "-", 2), "1 1:12"},  // written without its header
        {elem(0, "ROOTS", 2, {}, "-", 2), "1 2:17"},       // version on arrival finds 0.0-0
        {elem(0, "APPLS", 1, {4, 0, 1}), "1 1:14"},        // corrupt copy
        {elem(-1, "KNLS", 1, {1, 2, 3}), "1 2:15"},        // dependency fulfilled
    };
    korl_rhdr rh{};
    for (const auto& [in, out] : reuse) {
        korm_element e[KORL_KORM_ELEMENTS] = {in};
        EXPECT_EQ(plan_of(korl_meta_install_part1(&d, 1, &rh, e, "", 0), e, 1), out) << in.poolname;
    }
    for (auto [build, found, out] : {std::tuple{4, -1, "1 1:11"}, {3, 15, "1 2:15"}}) {  // 1: found as expected
        korm_element late = elem(0, "KNLS", 2);
        late.action = 3, late.partinfo_idx = 11;
        EXPECT_EQ(plan_of(late_action_update(&d, &late, 1, 2, static_cast<uint16_t>(build)) == found, &late, 1), out);
    }

    // Set verification: every ref is checked, the last failure decides.
    enum part_state { good, bad, empty, no_device };
    const struct { const char* name; std::vector<std::pair<int, part_state>> set1; int result; const char* report; } sets[] = {
        {"no refs", {}, 1, nullptr},  // report null: not compared (see the verify action's tests)
        {"good then bad", {{11, good}, {12, bad}}, 4,
         "verify_set: Set 1: SET1\nverify_set:   ref 11: KNLS         c11         : ok\nverify_set:   ref 12: DTS          c12         : bad\n"},
        {"bad then good", {{12, bad}, {11, good}}, 4, nullptr},
        {"marked empty", {{14, empty}}, 2, "verify_set: Set 1: SET1\nverify_set:   ref 14: APPLS                    : empty\n"},
        {"last failure decides", {{12, empty}, {11, no_device}}, 3, nullptr},
    };
    for (const auto& row : sets) {
        refs set1;
        for (auto [idx, st] : row.set1) set1.push_back(idx);
        d = layout(set1);
        for (auto [idx, st] : row.set1) {
            put_content(dev, d, idx, 1500, 1);
            if (st == bad) d.pinfometa[idx].body_crc ^= 0x100;
            if (st == empty) korl_partinfo_mark_meta_invalid(&d, idx);
            if (st == no_device) d.partinfo[idx].pn = 40;
        }
        testing::internal::CaptureStdout();  // quiet, then with the report
        EXPECT_EQ(std::pair(verify_set(nullptr, &d, 1, 0), verify_set(nullptr, &d, 1, 1)), std::pair(row.result, row.result)) << row.name;
        const std::string out = testing::internal::GetCapturedStdout();
        EXPECT_EQ(out, row.report ? row.report : out) << row.name;
    }
}
