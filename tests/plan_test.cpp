// Install planning and recording on in-memory records; the CRC32 check and
// set verification against real partitions in the sandbox.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "frontend/fileutil.h"
#include "install/install.h"
#include "korl/korl.h"
#include "support/sandbox.h"

namespace {

struct ver {
    uint8_t major, minor;
    uint16_t build;
};

struct layout_row {
    int pn;
    const char* pool;
};
// The default partition table: index equals partition number.
const layout_row kLayout[] = {{5, "SAFEKNLS"}, {6, "SAFEDTS"},  {7, "SAFEROOTS"}, {8, "SAFEAPPLS"},
                              {11, "KNLS"},    {12, "DTS"},     {13, "ROOTS"},     {14, "APPLS"},
                              {15, "KNLS"},    {16, "DTS"},     {17, "ROOTS"},     {18, "APPLS"}};

korl_data default_layout()
{
    korl_data d{};
    for (const layout_row& r : kLayout) partinfo_init(&d, r.pn, r.pool, 64 << 10, 0);
    partset_init(&d, 0, "SAFESET");
    partset_init(&d, 1, "SET1");
    partset_init(&d, 2, "SET2");
    korl_partpool_generate(&d);
    return d;
}

void set_refs(korl_data& d, int set, std::vector<int> refs)
{
    for (size_t k = 0; k < refs.size(); ++k) d.partset[set].refs[k] = static_cast<int8_t>(refs[k]);
}

void set_version(korl_data& d, int idx, ver v)
{
    d.pinfometa[idx].sw_version_major = v.major;
    d.pinfometa[idx].sw_version_minor = v.minor;
    d.pinfometa[idx].sw_build_number = v.build;
}

korm_element elem(int cidx, const char* pool, uint32_t meta_valid, ver v = {1, 0, 0},
                  const char* platform = "-", uint8_t wts = 1)
{
    korm_element e{};
    e.used = 1;
    e.cidx = static_cast<int8_t>(cidx);
    std::strncpy(e.poolname, pool, sizeof e.poolname - 1);
    std::strncpy(e.platform, platform, sizeof e.platform - 1);
    std::strncpy(e.mountpnt, "/", sizeof e.mountpnt - 1);
    std::strncpy(e.fstype, "ext4", sizeof e.fstype - 1);
    e.meta_valid = meta_valid;
    if (meta_valid == 1) {
        e.ver_major = v.major;
        e.ver_minor = v.minor;
        e.ver_build = v.build;
    }
    e.wts = wts;
    e.action = 0;
    e.partinfo_idx = -1;
    return e;
}

using elements = std::vector<korm_element>;

elements release(uint32_t meta_valid = 1)
{
    return {elem(0, "KNLS", meta_valid), elem(1, "DTS", meta_valid),
            elem(2, "ROOTS", meta_valid), elem(3, "APPLS", meta_valid)};
}

struct planned {
    uint32_t action;
    int idx;
};

struct plan_row {
    const char* name;
    std::function<void(korl_data&)> setup;
    elements in;
    int setidx;
    const char* platform;
    int force;
    int result;
    std::vector<planned> out;  // per element
};

const plan_row kPlanRows[] = {
    {"default layout into SET1", nullptr, release(), 1, "", 0, 1,
     {{1, 11}, {1, 12}, {1, 13}, {1, 14}}},
    {"SET2 holds 11..14", [](korl_data& d) { set_refs(d, 2, {11, 12, 13, 14}); }, release(), 1,
     "", 0, 1, {{1, 15}, {1, 16}, {1, 17}, {1, 18}}},
    {"the target set's own partitions are free",
     [](korl_data& d) {
         set_refs(d, 1, {11, 12, 13, 14});
         set_refs(d, 2, {15, 16, 17, 18});
     },
     release(), 1, "", 0, 1, {{1, 11}, {1, 12}, {1, 13}, {1, 14}}},
    {"SAFESET finds no free partition",
     [](korl_data& d) {
         set_refs(d, 1, {11, 12, 13, 14});
         set_refs(d, 2, {15, 16, 17, 18});
     },
     release(), 0, "", 0, KORL_META_INSTALL_ERR_NO_FREE_PARTINFO, {{0, -1}, {0, -1}, {0, -1}, {0, -1}}},
    {"singleton without force", nullptr, {elem(0, "SAFEKNLS", 1)}, 0, "", 0,
     KORL_META_INSTALL_ERR_SINGLETON, {{0, -1}}},
    {"singleton with force, even if another set uses it",
     [](korl_data& d) { set_refs(d, 0, {5}); }, {elem(0, "SAFEKNLS", 1)}, 1, "", 1, 1, {{1, 5}}},
    {"dependency not fulfilled", nullptr, {elem(-1, "APPLS", 1)}, 1, "", 0,
     KORL_META_INSTALL_ERR_DEPENDENCY, {{0, -1}}},
    {"a failure stops the plan at its element", nullptr,
     {elem(0, "KNLS", 1), elem(1, "SAFEKNLS", 1), elem(2, "DTS", 1)}, 1, "", 0,
     KORL_META_INSTALL_ERR_SINGLETON, {{1, 11}, {0, -1}, {0, -1}}},
    {"no version: the newest member",
     [](korl_data& d) {
         set_version(d, 13, {1, 2, 5});
         set_version(d, 17, {1, 10, 0});
     },
     {elem(-1, "ROOTS", 0)}, 1, "", 0, 1, {{2, 17}}},
    {"no version: build decides", [](korl_data& d) { set_version(d, 17, {0, 0, 1}); },
     {elem(-1, "ROOTS", 0)}, 1, "", 0, 1, {{2, 17}}},
    {"no version: equal versions take the lowest index",
     [](korl_data& d) {
         set_version(d, 13, {2, 0, 0});
         set_version(d, 17, {2, 0, 0});
     },
     {elem(-1, "ROOTS", 0)}, 1, "", 0, 1, {{2, 13}}},
    {"no version: a singleton is reused", nullptr, {elem(-1, "SAFEROOTS", 0)}, 1, "", 0, 1,
     {{2, 7}}},
    {"no version: unknown pool", nullptr, {elem(-1, "NOPE", 0)}, 1, "", 0,
     KORL_META_INSTALL_ERR_EMPTY_POOL, {{0, -1}}},
    {"no version: empty pool name finds a pool without member", nullptr, {elem(-1, "", 0)}, 1,
     "", 0, KORL_META_INSTALL_ERR_FATAL, {{0, -1}}},
    {"write into an unknown pool", nullptr, {elem(0, "NOPE", 1)}, 1, "", 0,
     KORL_META_INSTALL_ERR_EMPTY_POOL, {{0, -1}}},
    {"version decided on arrival reserves a partition", nullptr, {elem(0, "KNLS", 2)}, 1, "", 0,
     1, {{3, 11}}},
    {"platform filter", nullptr,
     {elem(0, "KNLS", 1, {1, 0, 0}, "arm"), elem(1, "DTS", 1, {1, 0, 0}, "-"),
      elem(2, "ROOTS", 1, {1, 0, 0}, "pc"), elem(3, "APPLS", 1, {1, 0, 0}, "pcx")},
     1, "pc", 0, 1, {{0, -1}, {1, 12}, {1, 13}, {0, -1}}},
    {"no platform keeps every line", nullptr, {elem(0, "KNLS", 1, {1, 0, 0}, "arm")}, 1, "", 0, 1,
     {{1, 11}}},
    {"a pool name filling the field matches no partition", nullptr,
     {elem(0, "KNLSKNLSKNLSKNLS", 1)}, 1, "", 0, KORL_META_INSTALL_ERR_EMPTY_POOL, {{0, -1}}},
    {"no element", nullptr, {}, 1, "", 0, KORL_META_INSTALL_ERR_NO_CONTENT, {}},
};

void PrintTo(const plan_row& r, std::ostream* os) { *os << r.name; }

class Plan : public testing::TestWithParam<plan_row> {};

TEST_P(Plan, ChoosesPartitions)
{
    const plan_row& row = GetParam();
    korl_data d = default_layout();
    if (row.setup) row.setup(d);
    korm_element e[KORL_KORM_ELEMENTS] = {};
    for (size_t i = 0; i < row.in.size(); ++i) e[i] = row.in[i];
    for (size_t i = 0; i < row.in.size(); ++i) e[i].action = 7;  // stale values are reset
    korl_rhdr rh{};
    EXPECT_EQ(korl_meta_install_part1(&d, row.setidx, &rh, e, row.platform, row.force),
              row.result);
    for (size_t i = 0; i < row.out.size(); ++i) {
        EXPECT_EQ(e[i].action, row.out[i].action) << "element " << i;
        EXPECT_EQ(e[i].partinfo_idx, row.out[i].idx) << "element " << i;
    }
}

INSTANTIATE_TEST_SUITE_P(Planning, Plan, testing::ValuesIn(kPlanRows),
                         [](const testing::TestParamInfo<plan_row>& i) {
                             std::string s = i.param.name;
                             for (char& c : s)
                                 if (!isalnum(static_cast<unsigned char>(c))) c = '_';
                             return s;
                         });

// --- recording ---

struct content_part {
    alignas(4) uint8_t bytes[64];
};

content_part software(const char* name, ver v)
{
    velk_software_content c{};
    c.hdr.type_id = VELK_TYPE_SOFTWARE;
    c.hdr.hdr_length = 64;
    c.hdr.body_length = 1000;
    c.hdr.body_crc = 0x12345678;
    std::memcpy(c.hdr.name, name, std::strlen(name));
    c.sw_version_major = v.major;
    c.sw_version_minor = v.minor;
    c.sw_build_number = v.build;
    content_part p;
    std::memcpy(p.bytes, &c, sizeof c);
    return p;
}

struct record_row {
    const char* name;
    std::function<void(korm_element*, velk_content_header**)> tweak;  // after planning
    int result;
    std::vector<int> refs;  // expected refs of SET1 (unchanged ones on refusal)
};

const record_row kRecordRows[] = {
    {"planned release", nullptr, 1, {11, 12, 13, 14}},
    {"reused and skipped elements",
     [](korm_element* e, velk_content_header**) {
         e[1].action = 0;
         e[2].action = 2;
         e[2].partinfo_idx = 17;
     },
     1, {11, 17, 14}},
    {"element left at action 3",
     [](korm_element* e, velk_content_header**) { e[3].action = 3; },
     KORL_META_INSTALL_ERR_PARTINFO_KORM_MATCH, {9}},
    {"action without partition",
     [](korm_element* e, velk_content_header**) { e[0].partinfo_idx = -1; },
     KORL_META_INSTALL_ERR_PARTINFO_KORM_MATCH, {9}},
    {"content part missing from the image",
     [](korm_element*, velk_content_header** t) { t[2] = nullptr; },
     KORL_META_INSTALL_ERR_PARTINFO_KORM_MATCH, {9}},
    {"content index beyond the image's table",
     [](korm_element* e, velk_content_header**) { e[1].cidx = 20; },
     KORL_META_INSTALL_ERR_PARTINFO_KORM_MATCH, {9}},
    {"22 references fill the set",
     [](korm_element* e, velk_content_header**) {
         for (int i = 0; i < 22; ++i) e[i] = elem(-1, "KNLS", 1), e[i].action = 2, e[i].partinfo_idx = 15;
     },
     1, std::vector<int>(22, 15)},
    {"23 references are refused",
     [](korm_element* e, velk_content_header**) {
         for (int i = 0; i < 23; ++i) e[i] = elem(-1, "KNLS", 1), e[i].action = 2, e[i].partinfo_idx = 15;
     },
     KORL_META_INSTALL_ERR_PARTINFO_KORM_MATCH, {9}},
};

void PrintTo(const record_row& r, std::ostream* os) { *os << r.name; }

class Record : public testing::TestWithParam<record_row> {};

TEST_P(Record, WritesSetOrRefuses)
{
    const record_row& row = GetParam();
    korl_data d = default_layout();
    set_refs(d, 1, {9});
    korm_element e[KORL_KORM_ELEMENTS] = {};
    elements rel = release();
    for (size_t i = 0; i < rel.size(); ++i) e[i] = rel[i];
    korl_rhdr rh{2, 1, 37, 1700000000, "build-77"};
    ASSERT_EQ(korl_meta_install_part1(&d, 1, &rh, e, "", 0), 1);
    content_part parts[4] = {software("kernel", {1, 0, 0}), software("dtb", {1, 0, 0}),
                             software("rootfs", {1, 0, 0}), software("appl", {1, 0, 0})};
    velk_content_header* table[VELK_MAX_PARTS] = {};
    for (int i = 0; i < 4; ++i) table[i] = reinterpret_cast<velk_content_header*>(parts[i].bytes);
    if (row.tweak) row.tweak(e, table);
    korl_data before = d;

    ASSERT_EQ(korl_meta_install(&d, 1, &rh, e, table, "", 0), row.result);
    std::vector<int8_t> want(KORL_REFS, -1);
    for (size_t k = 0; k < row.refs.size(); ++k) want[k] = static_cast<int8_t>(row.refs[k]);
    EXPECT_EQ(std::vector<int8_t>(d.partset[1].refs, d.partset[1].refs + KORL_REFS), want);
    if (row.result != 1) {
        EXPECT_EQ(std::memcmp(&d, &before, KORL_STORED_SIZE), 0) << "refusal changed the record";
        return;
    }
    EXPECT_EQ(std::memcmp(&d.rhdr[1], &rh, sizeof rh), 0);
    EXPECT_STREQ(d.partset[1].name, "SET1");
    EXPECT_EQ(d.actset, 0);
}

INSTANTIATE_TEST_SUITE_P(Recording, Record, testing::ValuesIn(kRecordRows),
                         [](const testing::TestParamInfo<record_row>& i) {
                             std::string s = i.param.name;
                             for (char& c : s)
                                 if (!isalnum(static_cast<unsigned char>(c))) c = '_';
                             return s;
                         });

TEST(Record, WrittenElementsGetTheirContentHeader)
{
    korl_data d = default_layout();
    korm_element e[KORL_KORM_ELEMENTS] = {};
    e[0] = elem(0, "ROOTS", 1, {3, 4, 5});
    korl_rhdr rh{};
    content_part part = software("rootfs", {3, 4, 5});
    velk_content_header* table[VELK_MAX_PARTS] = {reinterpret_cast<velk_content_header*>(part.bytes)};
    ASSERT_EQ(korl_meta_install_part1(&d, 2, &rh, e, "", 0), 1);
    ASSERT_EQ(korl_meta_install(&d, 2, &rh, e, table, "", 0), 1);
    EXPECT_EQ(std::memcmp(&d.pinfometa[13], part.bytes, 64), 0);
    EXPECT_STREQ(d.partinfo[13].mountpnt, "/");
    EXPECT_STREQ(d.partinfo[13].fstype, "ext4");
    EXPECT_EQ(d.partset[2].refs[0], 13);
}

TEST(Record, NoElementIsNoContent)
{
    korl_data d = default_layout();
    korm_element e[KORL_KORM_ELEMENTS] = {};
    korl_rhdr rh{};
    EXPECT_EQ(korl_meta_install(&d, 1, &rh, e, nullptr, "", 0), KORL_META_INSTALL_ERR_NO_CONTENT);
}

// --- against partitions ---

constexpr uint64_t kPartSize = 64 << 10;

sandbox::bytes pattern(size_t n, uint8_t seed)
{
    sandbox::bytes b(n);
    for (size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>(i * 31 + seed);
    return b;
}

// Records `body` as the content of entry idx and writes it to the partition
// in write type 1 (body only) or 2 (header first).
void put_content(const sandbox::Device& dev, korl_data& d, int idx, size_t length, int wts,
                 ver v = {1, 0, 0})
{
    sandbox::bytes body = pattern(length, static_cast<uint8_t>(idx));
    korl_pinfometa& m = d.pinfometa[idx];
    m = korl_pinfometa{};
    m.type_id = VELK_TYPE_SOFTWARE;
    m.hdr_length = 64;
    m.body_length = static_cast<uint32_t>(length);
    m.body_crc = crc32_calc(0, body.data(), static_cast<uint32_t>(length));
    std::snprintf(m.name, sizeof m.name, "c%d", idx);
    set_version(d, idx, v);
    size_t header = wts == 2 ? sizeof m : 0;
    sandbox::bytes out(header + length);
    std::memcpy(out.data(), &m, header);
    std::memcpy(out.data() + header, body.data(), length);
    dev.write(sandbox::Device::part(d.partinfo[idx].pn), 0, out);
}

struct crc_row {
    const char* name;
    size_t length;
    int write_wts;
    int check_wts;
    std::function<void(korl_pinfometa&, korl_partinfo&)> tweak;  // after writing
    int result;
};

const crc_row kCrcRows[] = {
    {"intact body", 1000, 1, 1, nullptr, KORL_CRC_OK},
    {"body over several read pieces", 10000, 1, 1, nullptr, KORL_CRC_OK},
    {"recorded CRC differs", 1000, 1, 1, [](korl_pinfometa& m, korl_partinfo&) { m.body_crc ^= 1; },
     KORL_CRC_MISMATCH},
    {"no length recorded", 1000, 1, 1, [](korl_pinfometa& m, korl_partinfo&) { m.body_length = 0; },
     KORL_CRC_EMPTY},
    {"no CRC recorded", 1000, 1, 1, [](korl_pinfometa& m, korl_partinfo&) { m.body_crc = 0; },
     KORL_CRC_EMPTY},
    {"no such device", 1000, 1, 1, [](korl_pinfometa&, korl_partinfo& p) { p.pn = 40; },
     KORL_CRC_UNREADABLE},
    {"header first, intact", 1000, 2, 2, nullptr, KORL_CRC_OK},
    {"header first, header differs", 1000, 2, 2,
     [](korl_pinfometa& m, korl_partinfo&) { m.sw_build_id[27] ^= 1; }, KORL_CRC_UNREADABLE},
    {"header longer than its record", 1000, 2, 2,
     [](korl_pinfometa& m, korl_partinfo&) { m.hdr_length = 65; }, KORL_CRC_UNREADABLE},
    {"header-first partition read as body only", 1000, 2, 1, nullptr, KORL_CRC_MISMATCH},
    {"the device end ends the CRC", kPartSize, 1, 1,
     [](korl_pinfometa& m, korl_partinfo&) { m.body_length += 100; }, KORL_CRC_OK},
};

void PrintTo(const crc_row& r, std::ostream* os) { *os << r.name; }

class CrcCheck : public testing::TestWithParam<crc_row> {};

TEST_P(CrcCheck, ReadsThePartitionBack)
{
    KOR_SANDBOX_OR_SKIP();
    const crc_row& row = GetParam();
    sandbox::Device dev;
    dev.with_default_layout(kPartSize);
    korl_data d = default_layout();
    put_content(dev, d, 13, row.length, row.write_wts);
    if (row.tweak) row.tweak(d.pinfometa[13], d.partinfo[13]);
    korl_data before = d;
    EXPECT_EQ(crc32_check(&d, 13, row.check_wts), row.result);
    EXPECT_EQ(std::memcmp(&d, &before, sizeof d), 0);
}

INSTANTIATE_TEST_SUITE_P(Partitions, CrcCheck, testing::ValuesIn(kCrcRows),
                         [](const testing::TestParamInfo<crc_row>& i) {
                             std::string s = i.param.name;
                             for (char& c : s)
                                 if (!isalnum(static_cast<unsigned char>(c))) c = '_';
                             return s;
                         });

TEST(CrcCheck, SeesWhatTheDeviceHoldsAfterARewrite)
{
    KOR_SANDBOX_OR_SKIP();
    sandbox::Device dev;
    dev.with_default_layout(kPartSize);
    korl_data d = default_layout();
    put_content(dev, d, 14, 5000, 1);
    ASSERT_EQ(crc32_check(&d, 14, 1), KORL_CRC_OK);
    dev.write(sandbox::Device::part(14), 4999, {0x5A});
    EXPECT_EQ(crc32_check(&d, 14, 1), KORL_CRC_MISMATCH);
}

// Planning that finds (or rejects) an installed copy on the device.
struct installed_row {
    const char* name;
    std::function<void(const sandbox::Device&, korl_data&)> setup;
    korm_element element;
    planned out;
};

const installed_row kInstalledRows[] = {
    {"intact copy in 15 is reused",
     [](const sandbox::Device& dev, korl_data& d) { put_content(dev, d, 15, 3000, 1, {1, 2, 3}); },
     elem(0, "KNLS", 1, {1, 2, 3}), {2, 15}},
    {"header-first copy is checked with its header",
     [](const sandbox::Device& dev, korl_data& d) { put_content(dev, d, 15, 3000, 2, {1, 2, 3}); },
     elem(0, "KNLS", 1, {1, 2, 3}, "-", 2), {2, 15}},
    {"corrupt copy is written anew",
     [](const sandbox::Device& dev, korl_data& d) {
         put_content(dev, d, 15, 3000, 1, {1, 2, 3});
         dev.write(sandbox::Device::part(15), 0, {0xFF, 0xFF});
     },
     elem(0, "KNLS", 1, {1, 2, 3}), {1, 11}},
    {"another version is written",
     [](const sandbox::Device& dev, korl_data& d) { put_content(dev, d, 15, 3000, 1, {1, 2, 4}); },
     elem(0, "KNLS", 1, {1, 2, 3}), {1, 11}},
    {"the version in another pool is not taken",
     [](const sandbox::Device& dev, korl_data& d) { put_content(dev, d, 16, 3000, 1, {1, 2, 3}); },
     elem(0, "KNLS", 1, {1, 2, 3}), {1, 11}},
    {"version on arrival matches a recorded 0.0-0",
     [](const sandbox::Device& dev, korl_data& d) { put_content(dev, d, 15, 3000, 1, {0, 0, 0}); },
     elem(0, "KNLS", 2), {2, 15}},
    {"an intact copy satisfies a dependency",
     [](const sandbox::Device& dev, korl_data& d) { put_content(dev, d, 18, 3000, 1, {4, 0, 1}); },
     elem(-1, "APPLS", 1, {4, 0, 1}), {2, 18}},
};

void PrintTo(const installed_row& r, std::ostream* os) { *os << r.name; }

class Installed : public testing::TestWithParam<installed_row> {};

TEST_P(Installed, PlansAgainstTheDevice)
{
    KOR_SANDBOX_OR_SKIP();
    const installed_row& row = GetParam();
    sandbox::Device dev;
    dev.with_default_layout(kPartSize);
    korl_data d = default_layout();
    row.setup(dev, d);
    korm_element e[KORL_KORM_ELEMENTS] = {row.element};
    korl_rhdr rh{};
    ASSERT_EQ(korl_meta_install_part1(&d, 1, &rh, e, "", 0), 1);
    EXPECT_EQ(e[0].action, row.out.action);
    EXPECT_EQ(e[0].partinfo_idx, row.out.idx);
}

INSTANTIATE_TEST_SUITE_P(Partitions, Installed, testing::ValuesIn(kInstalledRows),
                         [](const testing::TestParamInfo<installed_row>& i) {
                             std::string s = i.param.name;
                             for (char& c : s)
                                 if (!isalnum(static_cast<unsigned char>(c))) c = '_';
                             return s;
                         });

TEST(LateAction, ArrivingVersionDecidesBetweenReuseAndWrite)
{
    KOR_SANDBOX_OR_SKIP();
    sandbox::Device dev;
    dev.with_default_layout(kPartSize);
    korl_data d = default_layout();
    put_content(dev, d, 17, 2000, 1, {2, 0, 9});
    struct {
        ver arriving;
        int found;
        planned out;
    } rows[] = {{{2, 0, 9}, 17, {2, 17}}, {{2, 0, 10}, -1, {1, 13}}};
    for (const auto& r : rows) {
        korm_element e = elem(2, "ROOTS", 2);
        e.action = 3;
        e.partinfo_idx = 13;
        EXPECT_EQ(late_action_update(&d, &e, r.arriving.major, r.arriving.minor, r.arriving.build),
                  r.found);
        EXPECT_EQ(e.action, r.out.action);
        EXPECT_EQ(e.partinfo_idx, r.out.idx);
    }
}

// --- set verification ---

enum part_state { good, bad, empty, header_first, no_device };

struct verify_row {
    const char* name;
    std::vector<std::pair<int, part_state>> refs;  // of SET1
    int result;
    const char* report;  // verbose output; null: not compared
};

const verify_row kVerifyRows[] = {
    {"no refs", {}, 1, "verify_set: Set 1: SET1\nverify_set:   no refs\n"},
    {"all good", {{11, good}, {13, good}}, 0,
     "verify_set: Set 1: SET1\n"
     "verify_set:   ref 11: KNLS         c11         : ok\n"
     "verify_set:   ref 13: ROOTS        c13         : ok\n"},
    {"good then bad", {{11, good}, {12, bad}}, 4,
     "verify_set: Set 1: SET1\n"
     "verify_set:   ref 11: KNLS         c11         : ok\n"
     "verify_set:   ref 12: DTS          c12         : bad\n"},
    {"bad then good", {{12, bad}, {11, good}}, 4, nullptr},
    {"marked empty", {{11, good}, {14, empty}}, 2,
     "verify_set: Set 1: SET1\n"
     "verify_set:   ref 11: KNLS         c11         : ok\n"
     "verify_set:   ref 14: APPLS                    : empty\n"},
    {"header-first partition is bad", {{15, header_first}}, 4,
     "verify_set: Set 1: SET1\nverify_set:   ref 15: KNLS         c15         : bad\n"},
    {"last failure decides", {{11, no_device}, {12, empty}}, 2, nullptr},
    {"unreadable last", {{12, empty}, {11, no_device}}, 3, nullptr},
};

void prepare(const sandbox::Device& dev, korl_data& d, int idx, part_state st)
{
    put_content(dev, d, idx, 1500, st == header_first ? 2 : 1);
    if (st == bad) d.pinfometa[idx].body_crc ^= 0x100;
    if (st == empty) korl_partinfo_mark_meta_invalid(&d, idx);
    if (st == no_device) d.partinfo[idx].pn = 40;
}

void PrintTo(const verify_row& r, std::ostream* os) { *os << r.name; }

class VerifySet : public testing::TestWithParam<verify_row> {};

TEST_P(VerifySet, ChecksEveryRef)
{
    KOR_SANDBOX_OR_SKIP();
    const verify_row& row = GetParam();
    sandbox::Device dev;
    dev.with_default_layout(kPartSize);
    korl_data d = default_layout();
    std::vector<int> refs;
    for (const auto& [idx, st] : row.refs) {
        prepare(dev, d, idx, st);
        refs.push_back(idx);
    }
    set_refs(d, 1, refs);
    put_content(dev, d, 16, 100, 1);  // not in the set: never looked at
    d.pinfometa[16].body_crc ^= 1;

    EXPECT_EQ(verify_set(nullptr, &d, 1, 0), row.result);
    testing::internal::CaptureStdout();
    int verbose = verify_set(nullptr, &d, 1, 1);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(verbose, row.result);
    if (row.report) {
        EXPECT_EQ(out, row.report);
    }
}

INSTANTIATE_TEST_SUITE_P(Partitions, VerifySet, testing::ValuesIn(kVerifyRows),
                         [](const testing::TestParamInfo<verify_row>& i) {
                             std::string s = i.param.name;
                             for (char& c : s)
                                 if (!isalnum(static_cast<unsigned char>(c))) c = '_';
                             return s;
                         });

}  // namespace
