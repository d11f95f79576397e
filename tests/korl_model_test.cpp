// The metadata model: pools, set lookups and partition entry operations.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "frontend/console.h"
#include "korl/korl.h"
#include "support/sandbox.h"

namespace {

// Entries named by `pools` (index -> pool name) and the three default sets.
korl_data record(const std::vector<std::string>& pools)
{
    korl_data d;
    EXPECT_EQ(korl_init(&d), 1);
    for (size_t i = 0; i < pools.size(); i++) partinfo_init(&d, int(i), pools[i].c_str(), 0x1000, 0x2000);
    const char* sets[] = {"SAFESET", "SET1", "SET2"};
    for (int s = 0; s < KORL_SETS; s++) partset_init(&d, s, sets[s]);
    return d;
}

std::string members(const korl_data& d, const char* pool)
{
    int8_t items[KORL_REFS];
    int n = korl_partpool_items(&d, pool, items);
    std::string s = std::to_string(n) + ":";
    for (int i = 0; i < n; i++) s += " " + std::to_string(items[i]);
    return s;
}

TEST(KorlPools, Generate)
{
    std::vector<std::string> many, full(KORL_PARTINFOS, "ALL16CHARSPOOLNM");
    for (int i = 0; i < 21; i++) many.push_back("P" + std::to_string(i));
    struct Row {
        std::vector<std::string> pools;
        int count;
        std::vector<std::pair<const char*, std::string>> queries;
    } rows[] = {
        {{"", "", "", "A", "", "B", "", "A", "", "A"}, 2,
         {{"A", "3: 3 7 9"}, {"B", "1: 5"}, {"C", "-1:"}, {"", "0:"}}},
        {many, 20, {{"P19", "1: 19"}, {"P20", "-1:"}, {"", "-1:"}}},  // 21st name: no slot
        {full, 1, {{"ALL16CHARSPOOLNM", "21: 0 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20"},
                   {"ALL16CHARSPOOLNMX", "-1:"}}},  // 22nd member left out; longer name no match
    };
    KOR_SANDBOX_OR_SKIP();  // the left-out member is reported to syslog
    sandbox::Device dev;
    openlog("KOR", LOG_NDELAY, LOG_USER);
    for (const Row& r : rows) {
        korl_data d = record(r.pools);
        EXPECT_EQ(korl_partpool_count(&d), -1);
        EXPECT_EQ(korl_partpool_items_count(&d, r.pools.back().c_str()), -1);
        korl_partpool_generate(&d);
        EXPECT_EQ(korl_partpool_count(&d), r.count);
        for (const auto& [pool, want] : r.queries) EXPECT_EQ(members(d, pool), want) << pool;
    }
    std::string log;
    for (const auto& l : dev.take_log()) log += l.text;
    EXPECT_EQ(log, isatty(1) ? "" : "korl: pool ALL16CHARSPOOLNM is full; partition entry 21 is in no pool\n");
}

TEST(KorlSets, ParseSetidxArgAndGetsetidx)
{
    korl_data d = record({});
    struct Row { const char* arg; int want; } rows[] = {
        {"1", 1}, {"SET1", 1}, {"0x1", 1}, {"3", -1}, {"SET2", 2}, {"2x", 2}, {"-1", -1}, {"SAFESET", 0},
        {"", -1}, {nullptr, -1}, {"02", 2}, {"010", -1}, {"set1", -1}, {"99999999999999999999", -1},
    };
    for (const Row& r : rows) EXPECT_EQ(parse_setidx_arg(&d, r.arg), r.want) << (r.arg ? r.arg : "null");
    partset_init(&d, 2, "ABCDEFGHIJKLMNOPQ");  // kept: 15 characters, no NUL
    Row names[] = {{"SET1", 1},           {"", -2},
                   {"NOPE", -1},          {"ABCDEFGHIJKLMNO", 2},
                   {"ABCDEFGHIJKLMNOZZ", 2}, {"ABCDEFGHIJKLMN", -1}};
    for (const Row& r : names) EXPECT_EQ(korl_getsetidx(&d, r.arg), r.want) << r.arg;
}

TEST(KorlSets, OwnedBySetComparesAllRefs)
{
    korl_data d = record({});
    const int8_t set1[] = {13, 14, -1, 15};
    std::memcpy(d.partset[1].refs, set1, sizeof set1);
    d.partset[2].refs[0] = 15;
    struct Row { int idx, exclude, want; } rows[] = {
        {13, 1, 0}, {13, 0, 1}, {15, 1, 1}, {15, 2, 1}, {16, 0, 0}, {-1, 0, 0}, {22, 0, 0}};
    for (const Row& r : rows)
        EXPECT_EQ(korl_partinfo_owned_by_set(&d, r.idx, r.exclude), r.want) << r.idx << "/" << r.exclude;
}

TEST(KorlPartinfo, MarkMetaInvalidKeepsPlacement)
{
    korl_data d = record({"", "", "", "", "", "", "", "", "", "", "", "", "", "ROOTS"}), before = d;
    kor_field_copy(d.partinfo[13].mountpnt, 32, "/mnt/root");
    kor_field_copy(d.partinfo[13].fstype, 10, "ext4");
    std::memset(&d.pinfometa[13], 0x5A, sizeof d.pinfometa[13]);
    d.pinfometa[14].body_length = before.pinfometa[14].body_length = 7;
    EXPECT_EQ(korl_partinfo_mark_meta_invalid(&d, 13) + korl_partinfo_mark_meta_invalid(&d, 22), 0);
    EXPECT_EQ(std::memcmp(&d, &before, KORL_STORED_SIZE), 0);
}

}  // namespace
