// KORM descriptor parsing and the release checks, one row per case.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>

#include "korl/korl.h"
#include "mkvelk.h"

// first: the first element as cidx|pool|extra|mount|fstype|platform|meta_valid|version|wts, then the slots not reset.
// wrong: the r of the "Wrong syntax" report that echoes the first line (bounded); -1 none.
TEST(KormParse, Lines)
{
    const std::string line = "0,ROOTS,0,/,squashfs,-,2.1.37,1", first = "0|ROOTS|0|/|squashfs|-|1|2.1.37|1", p17(17, 'p'), m30(30, 'm'),
                      f9(9, 'f'), x21(21, 'x'), fill = line + "," + std::string(1999 - line.size() - 1, 'x');
    std::string l44;
    for (int i = 0; i < 44; i++) l44 += line + "\n";
    const struct { const char* what; std::string text; int result; std::string first; int wrong = -1; } rows[] = {
        {"dotted", line, 1, first},
        {"no version", "-1,APPLS,0,-,-,-,-1.-1.-1,1", 1, "-1|APPLS|0|||-|0|0.0.0|1"},
        {"hex", "1,KNLS,0,-,-,-,0x0201000A,2", 1, "1|KNLS|0|||-|1|2.1.10|2"},
        {"hex all ones", "1,K,0,-,-,-,FFFFFFFF,3", 1, "1|K|0|||-|1|255.255.65535|3"},
        {"late", "2,P,0,-,-,-,1.-2.0,1", 1, "2|P|0|||-|2|0.0.0|1"},
        {"none wins over late", "2,P,0,-,-,-,-2.2.-1,1", 1, "2|P|0|||-|0|0.0.0|1"},
        {"octal and hex ints", "010,P,0x10,-x,-y,a b,1.2.0x10,1", 1, "8|P|16|||a b|1|1.2.16|1"},
        {"blanks kept", "0,P,0,/mnt/a b,ext4,arm7,1.2.3,1", 1, "0|P|0|/mnt/a b|ext4|arm7|1|1.2.3|1"},
        {"widest fields", "0," + p17 + ",0,/" + m30 + "," + f9 + "," + x21 + ",1.2.3,1", 1,
         "0|" + p17 + "|0|/" + m30 + "|" + f9 + "|" + x21 + "|1|1.2.3|1"},
        {"pool too wide", "0," + p17 + "p,0,-,-,-,1.2.3,1", 0, "", 2},
        {"mount too wide", "0,P,0,/" + m30 + "m,-,-,1.2.3,1", 0, "", 4},
        {"fstype too wide", "0,P,0,-," + f9 + "f,-,1.2.3,1", 0, "", 5},
        {"platform too wide", "0,P,0,-,-," + x21 + "x,1.2.3,1", 0, "", 6},
        {"1999 characters", fill, 1, first},
        {"2000 characters", fill + "x", 0, "", 0},
        {"empty field", "0,,0,-,-,-,1.2.3,1\n", 0, "", 1},
        {"short version", "0,P,0,-,-,-,1.2,1", 0, "", 7},
        {"comments only", "#a\n#0,P,0,-,-,-,1.2.3,1\n", 0, ""},
        {"empty text", "", 0, ""},
        {"empty first line", "\n" + line, 0, ""},
        {"empty line ends", line + "\n\n1,B,0,-,-,-,1.2.3,1\n", 1, first},
        {"bad line frees no slot", "junk\n#c\n1,B,0,-,-,-,1.2.3,2", 1, "1|B|0|||-|1|1.2.3|2", 0},
        {"44 lines and comments", l44 + "#x\n#y", 44, first},
        {"45 lines", l44 + line, -1, ""},
        {"44 lines and junk", l44 + "junk", -1, ""},
    };
    for (const auto& row : rows) {
        korm_element e[KORL_KORM_ELEMENTS];
        std::memset(static_cast<void*>(e), 0x5A, sizeof e);
        testing::internal::CaptureStdout();
        const int r = korl_parse_kormd(e, KORL_KORM_ELEMENTS, row.text.c_str());
        const std::string echo = row.text.substr(0, std::min<size_t>(row.text.find('\n'), 1999));
        EXPECT_EQ(testing::internal::GetCapturedStdout(), (row.result < 0 ? "Wups, too many KORM elements, abort.\n" : "") +
                  (row.wrong < 0 ? "" : "Wrong syntax, skip (r=" + std::to_string(row.wrong) + ")\n\n" + echo + "\n")) << row.what;
        ASSERT_EQ(r, row.result) << row.what;
        std::string slots;  // every slot is reset: used ones point to no partition entry yet
        for (int i = 0; i < KORL_KORM_ELEMENTS && r >= 0; ++i)
            slots += e[i].used == (i < r) && e[i].partinfo_idx == (i < r ? -1 : 0) && e[i].action == 0 ? "" : " " + std::to_string(i);
        char d[200] = "";
        if (r > 0)
            std::snprintf(d, sizeof d, "%d|%s|%d|%s|%s|%s|%u|%u.%u.%u|%u", e[0].cidx, e[0].poolname, e[0].extra, e[0].mountpnt,
                          e[0].fstype, e[0].platform, e[0].meta_valid, e[0].ver_major, e[0].ver_minor, e[0].ver_build, e[0].wts);
        EXPECT_EQ(d + slots, row.first) << row.what;
    }
}

TEST(KormRelease, MatchModelAndMinimumVersion)
{
    using namespace std::string_literals;
    const struct { std::string body; const char* model; bool match; } rows[] = {
        {"products=a,b\n", "a", true}, {"products=a,b\n", "b", true}, {"products=a,b\n", "ab", false},
        {"products=a,b\n", "", false}, {"products=a,b\0"s, "a", true}, {"products=a,b\0"s, "b", false},
        {"products=a,b", "b", false}, {"products=a,", "a", true}, {"rel=1\nproducts=x,a\nk=v\n", "a", true},
        {"products=\n", "a", false}, {"products=abc\n", "ab", false}, {"products=ab,a\n", "a", true},
        {"no list\n", "a", false}, {"x\0products=a\n"s, "a", false}, {"products=a\nb\n", "b", false},
        {"products", "a", false},
    };
    for (const auto& row : rows) {  // exactly body_length bytes: a read beyond the body leaves the allocation
        std::vector<uint8_t> part(sizeof(velk_release_header) + row.body.size());
        auto* h = reinterpret_cast<velk_content_header*>(part.data());
        h->type_id = VELK_TYPE_RELEASE_HEADER, h->hdr_length = sizeof(velk_release_header), h->body_length = uint32_t(row.body.size());
        std::memcpy(part.data() + sizeof(velk_release_header), row.body.data(), row.body.size());
        EXPECT_EQ(korl_match_model(h, row.model) == 1, row.match) << row.body << " / " << row.model;
    }
    const uint32_t minver[][4] = {{1, 2, 3, 1}, {1, 3, 0, 0}, {0, 9, 999, 1},  {1, 2, 4, 0},
                                  {2, 0, 0, 0}, {1, 1, 65535, 1}, {256, 0, 0, 0}, {1, 2, 65536, 0}};
    for (const auto& m : minver)
        EXPECT_EQ(korl_check_minver(1, 2, 3, m[0], m[1], m[2]), int(m[3])) << m[0] << "." << m[1] << "-" << m[2];
}

TEST(KormCsv, Split)
{
    std::string names19 = "n0";
    for (int i = 1; i < 19; ++i) names19 += ",n" + std::to_string(i);
    const struct { std::string text; int n; int result; std::string fields; } rows[] = {
        {"a,b", 20, 2, "a|b|"}, {"a,", 20, 2, "a||"}, {"", 20, 0, ""}, {"a", 1, -1, ""}, {"a", 20, 1, "a|"},
        {",", 20, 2, "||"}, {"a,b,c", 3, -1, ""}, {"a,b,c", 4, 3, "a|b|c|"}, {names19, 20, 19, ""},
        {names19 + ",n19", 20, -1, ""}, {std::string(99, 'x'), 20, 1, std::string(99, 'x') + "|"},
        {std::string(100, 'x'), 20, -1, ""},
    };
    for (const auto& row : rows) {
        char buffer[100];
        std::vector<char*> table(size_t(std::max(row.n, 2)) + 1, nullptr);
        table[0] = buffer;
        const int r = korl_parse_csv(row.text.c_str(), table.data(), row.n, sizeof buffer);
        std::string got = std::to_string(r) + " ";
        for (int i = 1; i <= r && !row.fields.empty(); ++i) got += std::string(table[size_t(i)]) + "|";
        EXPECT_EQ(got, std::to_string(row.result) + " " + row.fields) << row.text;
    }
}

TEST(KormElements, CidxMatchStopsAtNullOr22AndImportCopiesTheHeaderOnly)
{
    korm_element e[23]{}, *ptrs[23];
    for (int i = 0; i < 23; ++i) e[i].cidx = int8_t(i + 2), ptrs[i] = &e[i];
    e[1].cidx = e[2].cidx = 7;
    EXPECT_EQ(std::vector({korl_korm_cidx_match(ptrs, 7), korl_korm_cidx_match(ptrs, 23), korl_korm_cidx_match(ptrs, 24)}),
              std::vector({1, 21, -1}));  // the 23rd pointer is never read
    ptrs[5] = nullptr;
    EXPECT_EQ(korl_korm_cidx_match(ptrs, 8), -1);

    for (size_t id_len : {0, 27}) {  // 40- and 64-byte headers
        const auto img = mkvelk::build_image({mkvelk::software("rootfs", 2, 1, 37, std::string(id_len, 'g'), {1, 2, 3, 4, 5})});
        const uint8_t* part = img.data() + 24;
        static korl_data d;
        std::memset(static_cast<void*>(&d), 0xEE, sizeof d);
        korm_element k{};
        k.partinfo_idx = 3, std::strcpy(k.mountpnt, "/"), std::strcpy(k.fstype, "squashfs");
        korl_meta_import_pinfometa(&d, part, &k);
        uint8_t want[64] = {};  // the header, then zeros
        std::memcpy(want, part, part[6]);
        EXPECT_TRUE(std::memcmp(&d.pinfometa[3], want, 64) == 0 && d.pinfometa[2].hdr_crc == 0xEEEEEEEEu) << id_len;
        EXPECT_EQ(std::string(d.partinfo[3].mountpnt) + d.partinfo[3].fstype, "/squashfs");
    }
}
