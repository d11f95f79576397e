// Install planning and recording on in-memory records; the CRC32 check and
// set verification against real partitions in the sandbox.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
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

}  // namespace
