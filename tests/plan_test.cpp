// Install planning and recording on in-memory records; CRC32 check, reuse and set verification on partitions.
#include <array>
#include <cstring>
#include <ostream>

#include "base/fileutil.h"
#include "install/install.h"
#include "support/sandbox.h"

struct ver { uint8_t major, minor; uint16_t build; };
using refs = std::vector<int>;
constexpr uint64_t kPartSize = 64 << 10;
static const korl_rhdr kRh{2, 1, 37, 1700000000, "build-77"};

// The default layout (entry index = partition number) with the given refs of sets 1 and 2 and recorded versions.
static korl_data layout(refs set1 = {}, refs set2 = {}, const std::vector<std::pair<int, ver>>& recorded = {})
{
    const char* const pools[] = {"SAFEKNLS", "SAFEDTS", "SAFEROOTS", "SAFEAPPLS", "KNLS", "DTS", "ROOTS", "APPLS"};
    korl_data d{};
    for (int i = 0; i < 12; ++i) partinfo_init(&d, i < 4 ? 5 + i : 7 + i, pools[i < 4 ? i : 4 + i % 4], kPartSize, 0);
    for (int s = 0; s < KORL_SETS; ++s) partset_init(&d, s, s ? (s == 1 ? "SET1" : "SET2") : "SAFESET");
    std::copy(set1.begin(), set1.end(), d.partset[1].refs);
    std::copy(set2.begin(), set2.end(), d.partset[2].refs);
    for (auto [i, v] : recorded) d.pinfometa[i] = {0, 0, 0, 0, {}, 0, v.major, v.minor, v.build, {}};
    korl_partpool_generate(&d);
    return d;
}

static korm_element elem(int cidx, const char* pool, uint32_t meta_valid, ver v = {1, 0, 0}, const char* platform = "-",
                         uint8_t wts = 1, uint32_t action = 0, int partinfo_idx = -1)
{
    korm_element e{1, static_cast<int8_t>(cidx), {}, 0, "/", "", {}, meta_valid, wts, 0, 0, 0, action, partinfo_idx};
    std::strncpy(e.poolname, pool, sizeof e.poolname - 1);
    std::strncpy(e.platform, platform, sizeof e.platform - 1);
    if (meta_valid == 1) {
        e.ver_major = v.major;
        e.ver_minor = v.minor;
        e.ver_build = v.build;
    }
    return e;
}

constexpr uint32_t kLeftOut = 0, kWrite = 1, kReuse = 2, kOnArrival = 3;  // an element's action

struct Planned {
    uint32_t action;
    int partinfo_idx;
    bool operator==(const Planned& o) const { return action == o.action && partinfo_idx == o.partinfo_idx; }
};

struct Plan {
    int result;
    std::vector<Planned> elements;
    bool operator==(const Plan& o) const { return result == o.result && elements == o.elements; }
};

std::ostream& operator<<(std::ostream& out, const Plan& p)
{
    out << "result " << p.result;
    for (const Planned& e : p.elements) out << ", action " << e.action << " into " << e.partinfo_idx;
    return out;
}

// The planning of `in` for set 1 (every element set to action 7 before: planning resets them).
static Plan plan(korl_data* d, const std::vector<korm_element>& in, const char* platform = "",
                 korm_element* e = std::array<korm_element, KORL_KORM_ELEMENTS>{}.data())
{
    for (size_t i = 0; i < in.size(); ++i) {
        e[i] = in[i];
        e[i].action = 7;
    }
    Plan p{korl_meta_install_part1(d, 1, &kRh, e, platform, 0), {}};
    for (size_t i = 0; i < in.size(); ++i) p.elements.push_back({e[i].action, e[i].partinfo_idx});
    return p;
}

// Records `length` bytes in entry idx and writes them to its partition, with the header first for write type 2.
static void put_content(const sandbox::Device& dev, korl_data& d, int idx, size_t length, int wts, ver v = {1, 0, 0})
{
    const size_t header = wts == 2 ? sizeof(korl_pinfometa) : 0;
    sandbox::bytes out(header + length);
    for (size_t i = 0; i < length; ++i) out[header + i] = static_cast<uint8_t>(i * 31 + idx);
    korl_pinfometa& m = d.pinfometa[idx] = {0, VELK_TYPE_SOFTWARE, 64, uint32_t(length),
        {'c', char('0' + idx / 10), char('0' + idx % 10)}, crc32_calc(0, out.data() + header, uint32_t(length)),
        v.major, v.minor, v.build, {}};
    std::memcpy(out.data(), &m, header);
    dev.write(sandbox::Device::part(d.partinfo[idx].pn), 0, out);
}

static const korm_element kReuse15 = elem(-1, "KNLS", 1, {}, "-", 1, 2, 15);
static const std::vector kRelease{elem(0, "KNLS", 1), elem(1, "DTS", 1), elem(2, "ROOTS", 1), elem(3, "APPLS", 1)};

TEST(Plan, ChoosesRecordsAndChecksCopiesOnPartitions)
{
    KOR_SANDBOX_OR_SKIP();  // for the copies; other sets, singletons and no free entry: see the install tests
    const struct {
        const char* name;
        std::vector<korm_element> in;
        Plan plan;
        refs set1 = {}, set2 = {};
        std::vector<std::pair<int, ver>> recorded = {};
        const char* platform = "";
    } rows[] = {
        {"own partitions are free", {kRelease[0], kRelease[1]}, {1, {{kWrite, 11}, {kWrite, 12}}},
         {11, 12, 13, 14}, {15, 16, 17, 18}},
        {"dependency not fulfilled", {elem(-1, "APPLS", 1)}, {-2, {{kLeftOut, -1}}}},
        {"no version takes the newest", {elem(-1, "ROOTS", 0)}, {1, {{kReuse, 17}}}, {}, {},
         {{13, {1, 2, 5}}, {17, {1, 10, 0}}}},
        {"write into a too long pool", {elem(0, "KNLSKNLSKNLSKNLS", 1)}, {-4, {{kLeftOut, -1}}}},
        {"version on arrival reserves", {elem(0, "KNLS", 2)}, {1, {{kOnArrival, 11}}}},
        {"platform",
         {elem(0, "KNLS", 1, {}, "arm"), elem(1, "DTS", 1, {}, "-"), elem(2, "ROOTS", 1, {}, "pc"),
          elem(3, "APPLS", 1, {}, "pcx")},
         {1, {{kLeftOut, -1}, {kWrite, 12}, {kWrite, 13}, {kLeftOut, -1}}}, {}, {}, {}, "pc"},
    };
    for (const auto& row : rows) {
        korl_data d = layout(row.set1, row.set2, row.recorded);
        EXPECT_EQ(plan(&d, row.in, row.platform), row.plan) << row.name;
    }

    velk_software_content parts[4] = {};  // header CRC 0, body CRC 0x12345678 + i, build number i
    for (int i = 0; i < 4; ++i) {
        parts[i].hdr = {0, VELK_TYPE_SOFTWARE, 64, 1000, "part", 0x12345678u + i};
        parts[i].sw_build_number = uint16_t(i);
    }
    const struct {
        const char* name;
        void (*tweak)(korm_element*, velk_content_header**);
        int result;
        refs set1;  // afterwards; {9}: as before
    } records[] = {  // elements not planned: see the install tests
        {"planned release", [](auto, auto) {}, 1, {11, 12, 13, 14}},
        {"element left at action 3", [](auto e, auto) { e[3].action = kOnArrival; }, -6, {9}},
        {"content part missing", [](auto, auto t) { t[2] = nullptr; }, -6, {9}},
        {"content index beyond the table", [](auto e, auto) { e[1].cidx = 20; }, -6, {9}},
        {"22 references", [](auto e, auto) { std::fill_n(e, 22, kReuse15); }, 1, refs(22, 15)},
        {"23 references", [](auto e, auto) { std::fill_n(e, 23, kReuse15); }, -6, {9}},
    };
    for (const auto& row : records) {
        SCOPED_TRACE(row.name);
        korl_data d = layout({9});
        korm_element e[KORL_KORM_ELEMENTS] = {};
        ASSERT_EQ(plan(&d, kRelease, "", e), (Plan{1, {{kWrite, 11}, {kWrite, 12}, {kWrite, 13}, {kWrite, 14}}}));
        velk_content_header* table[VELK_MAX_PARTS] = {&parts[0].hdr, &parts[1].hdr, &parts[2].hdr, &parts[3].hdr};
        row.tweak(e, table);
        const korl_data before = d;
        const bool recorded = row.result == 1;
        EXPECT_EQ(korl_meta_install(&d, 1, &kRh, e, table, "", 0), row.result);
        EXPECT_EQ(refs(d.partset[1].refs, std::find(d.partset[1].refs, d.partset[1].refs + KORL_REFS, -1)), row.set1);
        EXPECT_EQ(std::memcmp(&d, &before, KORL_STORED_SIZE) == 0, !recorded);  // a refusal changes nothing
        EXPECT_EQ(std::memcmp(&d.rhdr[1], &kRh, sizeof kRh) == 0, recorded);
        EXPECT_EQ(std::memcmp(&d.pinfometa[13], &parts[2], 64) == 0, row.set1[0] == 11);
    }

    sandbox::Device dev;
    dev.with_default_layout(kPartSize);
    // The CRC of entry 13: over several pieces, a header above 64, up to the device's end. Others: the verify tests.
    const struct {
        size_t length;
        int wts, hdr_length;
        uint32_t recorded_beyond;  // bytes recorded beyond what was written
        int result;
    } checks[] = {
        {10000, 1, 64, 0, KORL_CRC_OK},
        {1000, 2, 65, 0, KORL_CRC_UNREADABLE},
        {kPartSize, 1, 64, 9, KORL_CRC_OK},
    };
    for (const auto& c : checks) {
        korl_data d = layout();
        put_content(dev, d, 13, c.length, c.wts);
        d.pinfometa[13].hdr_length = uint16_t(c.hdr_length);
        d.pinfometa[13].body_length += c.recorded_beyond;
        EXPECT_EQ(crc32_check(&d, 13, c.wts), c.result) << c.length;
    }

    korl_data d = layout();  // copies found or rejected: another version, written without its header, 0.0-0 on arrival
    put_content(dev, d, 15, 3000, 1, {1, 2, 3});
    put_content(dev, d, 16, 3000, 1, {1, 2, 3});
    put_content(dev, d, 17, 3000, 2, {0, 0, 0});
    const std::pair<korm_element, Plan> copies[] = {  // corrupt copies: see the install tests
        {elem(0, "KNLS", 1, {1, 2, 4}), {1, {{kWrite, 11}}}},
        {elem(-1, "KNLS", 1, {1, 2, 3}), {1, {{kReuse, 15}}}},
        {elem(0, "DTS", 1, {1, 2, 3}, "-", 2), {1, {{kWrite, 12}}}},
        {elem(0, "ROOTS", 2, {}, "-", 2), {1, {{kReuse, 17}}}},
    };
    for (const auto& [in, out] : copies) EXPECT_EQ(plan(&d, {in}), out) << in.poolname;
    const struct {
        uint16_t build;  // arriving, of version 1.2
        int found;
        Planned planned;
    } arrivals[] = {
        {4, -1, {kWrite, 11}},  // no copy: written into the reserved entry
        {3, 15, {kReuse, 15}},
    };
    for (const auto& a : arrivals) {
        korm_element late = elem(0, "KNLS", 2, {}, "-", 1, kOnArrival, 11);
        EXPECT_EQ(late_action_update(&d, &late, 1, 2, a.build), a.found);
        EXPECT_EQ((Planned{late.action, late.partinfo_idx}), a.planned) << a.build;
    }

    d = layout({11, 12, 14, 13});  // set verification: every ref is checked, the last failure decides (no device: 3)
    for (int idx : {11, 12, 14, 13}) put_content(dev, d, idx, 1500, 1);
    d.pinfometa[12].body_crc ^= 0x100;
    d.partinfo[13].pn = 40;
    korl_partinfo_mark_meta_invalid(&d, 14);
    testing::internal::CaptureStdout();  // quiet, then with the report
    EXPECT_EQ(verify_set(nullptr, &d, 1, 0), 3);
    EXPECT_EQ(verify_set(nullptr, &d, 1, 1), 3);
    const std::string v = "\nverify_set:   ref ", out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out, "verify_set: Set 1: SET1" + v + "11: KNLS         c11         : ok" + v +
                       "12: DTS          c12         : bad" + v + "14: APPLS                    : empty" + v +
                       "13: ROOTS        c13         : bad\n");
}
