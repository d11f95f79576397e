// The metadata model: pools, set lookups and partition entry operations.
#include <unistd.h>

#include <cstring>

#include "base/console.h"
#include "korl/korl.h"
#include "support/sandbox.h"

namespace {

// Entries named by `pools` (by index) and the three default sets.
korl_data record(const std::vector<std::string>& pools)
{
    korl_data d;
    EXPECT_EQ(korl_init(&d), 1);
    for (size_t i = 0; i < pools.size(); i++) partinfo_init(&d, int(i), pools[i].c_str(), 0x1000, 0x2000);
    for (int s = 0; s < KORL_SETS; s++) partset_init(&d, s, s ? (s == 1 ? "SET1" : "SET2") : "SAFESET");
    return d;
}

constexpr int kNoSuchPool = -1;

struct PoolQuery {
    const char* pool;
    int count;  // korl_partpool_items
    std::vector<int> members;
};

TEST(KorlModel, Pools)
{
    KOR_SANDBOX_OR_SKIP();  // the left-out pool member is reported to syslog
    std::vector<std::string> many, full(KORL_PARTINFOS, "ALL16CHARSPOOLNM");
    for (int i = 0; i < 21; i++) many.push_back("P" + std::to_string(i));
    std::vector<int> first21(21);
    for (int i = 0; i < 21; i++) first21[size_t(i)] = i;
    const struct {
        const char* what;
        std::vector<std::string> pools;  // of the entries, by index
        int pool_count;
        std::vector<PoolQuery> queries;
    } rows[] = {
        {"two pools", {"", "", "", "A", "", "B", "", "A", "", "A"}, 2,
         {{"A", 3, {3, 7, 9}}, {"B", 1, {5}}, {"C", kNoSuchPool, {}}, {"", 0, {}}}},  // "": the first unused slot
        {"the 21st name finds no slot", many, 20, {{"P19", 1, {19}}, {"P20", kNoSuchPool, {}}, {"", kNoSuchPool, {}}}},
        {"the 22nd member is left out", full, 1,
         {{"ALL16CHARSPOOLNM", 21, first21}, {"ALL16CHARSPOOLNMX", kNoSuchPool, {}}}},
    };
    sandbox::Device dev;
    openlog("KOR", LOG_NDELAY, LOG_USER);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        korl_data d = record(row.pools);
        korl_partpool_generate(&d);
        EXPECT_EQ(korl_partpool_count(&d), row.pool_count);
        for (const PoolQuery& q : row.queries) {
            int8_t items[KORL_REFS];
            const int n = korl_partpool_items(&d, q.pool, items);
            EXPECT_EQ(n, q.count) << q.pool;
            EXPECT_EQ(std::vector<int>(items, items + std::max(n, 0)), q.members) << q.pool;
        }
    }
    const auto log = dev.take_log();  // on a terminal it goes to stderr instead
    if (isatty(1)) {
        EXPECT_TRUE(log.empty());
    } else {
        ASSERT_EQ(log.size(), 1u);
        EXPECT_EQ(log[0].text, "korl: pool ALL16CHARSPOOLNM is full; partition entry 21 is in no pool\n");
    }
}

TEST(KorlModel, SetLookupsOwnershipAndMetaInvalid)
{
    korl_data d = record({"", "", "", "", "", "", "", "", "", "", "", "", "", "ROOTS"});
    partset_init(&d, 2, "ABCDEFGHIJKLMNOPQ");  // kept: 15 characters, no NUL; more set arguments: see the setedit tests
    const struct {
        const char* arg;
        int parsed;   // parse_setidx_arg
        int by_name;  // korl_getsetidx
    } sets[] = {
        {"0x1", 1, -1}, {"2x", 2, -1}, {"SAFESET", 0, 0}, {"", -1, -2}, {"010", -1, -1}, {"4294967297", -1, -1},
        {"ABCDEFGHIJKLMNO", 2, 2}, {"ABCDEFGHIJKLMNOZZ", 2, 2}, {"ABCDEFGHIJKLMN", -1, -1},
    };
    for (const auto& s : sets) {
        EXPECT_EQ(parse_setidx_arg(&d, s.arg), s.parsed) << s.arg;
        EXPECT_EQ(korl_getsetidx(&d, s.arg), s.by_name) << s.arg;
    }

    korl_data owned = d;  // SET1 lists 13, 14, the end, then 15; SET2 lists 15 and, damaged, 22
    std::memcpy(owned.partset[1].refs, "\x0d\x0e\xff\x0f", 4);
    owned.partset[2].refs[0] = 15;
    owned.partset[2].refs[1] = 22;
    const struct {
        int idx, excluded_set, owned;
    } owners[] = {
        {13, 1, 0}, {13, 0, 1}, {15, 1, 1}, {15, 2, 1},  // behind the end of the list counts too
        {16, 0, 0}, {-1, 0, 0}, {22, 0, 0},              // the end marker and what is not an entry: never owned
    };
    for (const auto& o : owners)
        EXPECT_EQ(korl_partinfo_owned_by_set(&owned, o.idx, o.excluded_set), o.owned)
            << "entry " << o.idx << ", set " << o.excluded_set << " left out";

    korl_data before = d;  // marking keeps placement and clears the rest of the entry
    kor_field_copy(d.partinfo[13].mountpnt, 32, "/mnt/root");
    kor_field_copy(d.partinfo[13].fstype, 10, "ext4");
    std::memset(&d.pinfometa[13], 0x5A, sizeof d.pinfometa[13]);
    d.pinfometa[14].body_length = before.pinfometa[14].body_length = 7;
    EXPECT_EQ(korl_partinfo_mark_meta_invalid(&d, 13), 1);
    EXPECT_EQ(korl_partinfo_mark_meta_invalid(&d, 22), -1);
    EXPECT_EQ(std::memcmp(&d, &before, KORL_STORED_SIZE), 0);
}

}  // namespace
