// The metadata model: pools, set lookups and partition entry operations.
#include <unistd.h>

#include <cstring>

#include "base/console.h"
#include "korl/korl.h"
#include "support/sandbox.h"

TEST(KorlModel, PoolsSetLookupsAndMetaInvalid)
{
    KOR_SANDBOX_OR_SKIP();  // the left-out pool member is reported to syslog
    auto record = [](const std::vector<std::string>& pools) {  // entries named by `pools` and the three default sets
        korl_data d;
        EXPECT_EQ(korl_init(&d), 1);
        for (size_t i = 0; i < pools.size(); i++) partinfo_init(&d, int(i), pools[i].c_str(), 0x1000, 0x2000);
        for (int s = 0; s < KORL_SETS; s++) partset_init(&d, s, s ? (s == 1 ? "SET1" : "SET2") : "SAFESET");
        return d;
    };
    std::vector<std::string> many, full(KORL_PARTINFOS, "ALL16CHARSPOOLNM");
    for (int i = 0; i < 21; i++) many.push_back("P" + std::to_string(i));
    const struct { std::vector<std::string> pools; std::vector<const char*> q; const char* want; } rows[] = {  // pool count, "n: members"
        {{"", "", "", "A", "", "B", "", "A", "", "A"}, {"A", "B", "C", ""}, "2 3: 3 7 9 1: 5 -1: 0:"},
        {many, {"P19", "P20", ""}, "20 1: 19 -1: -1:"},  // the 21st name finds no slot
        {full, {"ALL16CHARSPOOLNM", "ALL16CHARSPOOLNMX"}, "1 21: 0 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20 -1:"}};  // 22nd left out
    sandbox::Device dev;
    openlog("KOR", LOG_NDELAY, LOG_USER);
    for (const auto& r : rows) {
        korl_data d = record(r.pools);
        korl_partpool_generate(&d);
        std::string got = std::to_string(korl_partpool_count(&d));
        for (const char* pool : r.q) {
            int8_t it[KORL_REFS], n = int8_t(korl_partpool_items(&d, pool, it));
            got += " " + std::to_string(n) + ":";
            for (int i = 0; i < n; i++) got += " " + std::to_string(it[i]);
        }
        EXPECT_EQ(got, r.want);
    }
    auto log = dev.take_log();  // on a terminal it goes to stderr instead
    EXPECT_EQ(log.size() == 1 ? log[0].text : "", isatty(1) ? "" : "korl: pool ALL16CHARSPOOLNM is full; partition entry 21 is in no pool\n");

    korl_data d = record({"", "", "", "", "", "", "", "", "", "", "", "", "", "ROOTS"});
    partset_init(&d, 2, "ABCDEFGHIJKLMNOPQ");  // kept: 15 characters, no NUL; more set arguments: see the setedit tests
    for (const auto& [arg, parsed, by_name] : {std::tuple{"0x1", 1, -1}, {"2x", 2, -1}, {"SAFESET", 0, 0}, {"", -1, -2}, {"010", -1, -1},
             {"4294967297", -1, -1}, {"ABCDEFGHIJKLMNO", 2, 2}, {"ABCDEFGHIJKLMNOZZ", 2, 2}, {"ABCDEFGHIJKLMN", -1, -1}})
        EXPECT_EQ(std::pair(parse_setidx_arg(&d, arg), korl_getsetidx(&d, arg)), std::pair(parsed, by_name)) << arg;
    korl_data before = d;  // marking keeps placement and clears the rest of the entry
    kor_field_copy(d.partinfo[13].mountpnt, 32, "/mnt/root"), kor_field_copy(d.partinfo[13].fstype, 10, "ext4");
    std::memset(&d.pinfometa[13], 0x5A, sizeof d.pinfometa[13]), d.pinfometa[14].body_length = before.pinfometa[14].body_length = 7;
    EXPECT_EQ(korl_partinfo_mark_meta_invalid(&d, 13) + korl_partinfo_mark_meta_invalid(&d, 22), 0);
    EXPECT_EQ(std::memcmp(&d, &before, KORL_STORED_SIZE), 0);
}
