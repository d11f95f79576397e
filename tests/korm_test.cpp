// KORM descriptor parsing and the release checks, one row per case.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>

#include "korl/korl.h"
#include "mkvelk.h"

// want: the result, element 0 as cidx|pool|extra|mount|fstype|platform|meta_valid|version|wts, the slots not reset;
// wrong: the r of the "Wrong syntax" report that echoes the first line (bounded), -1 none.
TEST(KormParse, Lines)
{
    const std::string line = "0,ROOTS,0,/,squashfs,-,2.1.37,1", first = "1 0|ROOTS|0|/|squashfs|-|1|2.1.37|1", p17(17, 'p'),
                      m30(30, 'm'), f9(9, 'f'), x21(21, 'x'), fill = line + "," + std::string(1999 - line.size() - 1, 'x');
    std::string l44;
    for (int i = 0; i < 44; i++) l44 += line + "\n";  // KORL_KORM_ELEMENTS lines
    const struct { const char* what; std::string text, want; int wrong = -1; } rows[] = {
        {"dotted", line, first},
        {"no version", "-1,APPLS,0,-,-,-,-1.-1.-1,1", "1 -1|APPLS|0|||-|0|0.0.0|1"},
        {"hex", "1,KNLS,0,-,-,-,0xFF01FFFE,2", "1 1|KNLS|0|||-|1|255.1.65534|2"},
        {"late", "2,P,0,-,-,-,1.-2.0,1", "1 2|P|0|||-|2|0.0.0|1"},
        {"octal and hex ints", "010,P,0x10,-x,-y,a b,1.2.0x10,1", "1 8|P|16|||a b|1|1.2.16|1"},
        {"widest fields", "0," + p17 + ",0,/" + m30 + "," + f9 + "," + x21 + ",1.2.3,1",
         "1 0|" + p17 + "|0|/" + m30 + "|" + f9 + "|" + x21 + "|1|1.2.3|1"},
        {"pool too wide", "0," + p17 + "p,0,-,-,-,1.2.3,1", "0 ", 2},  // the other fields one too wide: see the bad input tests
        {"1999 characters", fill, first},
        {"2000 characters", fill + "x", "0 ", 0},
        {"empty field", "0,,0,-,-,-,1.2.3,1\n", "0 ", 1},
        {"empty line ends", line + "\n\n1,B,0,-,-,-,1.2.3,1\n", first},
        {"bad line frees no slot", "junk\n#c\n1,B,0,-,-,-,1.2.3,2", "1 1|B|0|||-|1|1.2.3|2", 0},
        {"44 lines and comments", l44 + "#x\n#y", "44" + first.substr(1)},
        {"45 lines", l44 + line, "-1 "},
    };
    for (const auto& row : rows) {
        korm_element e[KORL_KORM_ELEMENTS];
        std::memset(static_cast<void*>(e), 0x5A, sizeof e);
        testing::internal::CaptureStdout();
        const int r = korl_parse_kormd(e, KORL_KORM_ELEMENTS, row.text.c_str());
        const std::string echo = "Wrong syntax, skip (r=" + std::to_string(row.wrong) + ")\n\n" +  // bounded
                                 row.text.substr(0, std::min<size_t>(row.text.find('\n'), 1999)) + "\n";
        EXPECT_EQ(testing::internal::GetCapturedStdout(), (r < 0 ? "Wups, too many KORM elements, abort.\n" : "") + (row.wrong < 0 ? "" : echo));
        char d[200] = "";  // every slot is reset: used ones point to no partition entry yet
        if (r > 0)
            std::snprintf(d, sizeof d, "%d|%s|%d|%s|%s|%s|%u|%u.%u.%u|%u", e[0].cidx, e[0].poolname, e[0].extra, e[0].mountpnt,
                          e[0].fstype, e[0].platform, e[0].meta_valid, e[0].ver_major, e[0].ver_minor, e[0].ver_build, e[0].wts);
        std::string got = std::to_string(r) + " " + d;
        for (int i = 0; i < KORL_KORM_ELEMENTS && r >= 0; ++i)
            got += e[i].used == (i < r) && e[i].partinfo_idx == (i < r ? -1 : 0) && e[i].action == 0 ? "" : " " + std::to_string(i);
        EXPECT_EQ(got, row.want) << row.what;
    }
}

TEST(Korm, ModelMinimumVersionCidxMatchAndImport)
{
    using namespace std::string_literals;
    const struct { std::string body; const char* model; bool match; } rows[] = {
        {"products=a,b\n", "", false}, {"products=a,b\0"s, "b", false}, {"products=a,", "a", true}, {"products=a,b", "b", false},
        {"rel=1\nproducts=x,a\nk=v\n", "a", true}, {"products=abc\n", "ab", false}, {"products=ab,a\n", "a", true},
        {"x\0products=a\n"s, "a", false}, {"products=a\nb\n", "b", false}, {"products", "a", false}};
    for (const auto& row : rows) {  // exactly body_length bytes: a read beyond the body leaves the allocation
        std::vector<uint8_t> part(sizeof(velk_release_header) + row.body.size());
        const velk_content_header h{0, VELK_TYPE_RELEASE_HEADER, sizeof(velk_release_header), uint32_t(row.body.size()), "", 0};
        std::memcpy(part.data(), &h, sizeof h), std::copy(row.body.begin(), row.body.end(), part.data() + sizeof(velk_release_header));
        EXPECT_EQ(korl_match_model(reinterpret_cast<velk_content_header*>(part.data()), row.model) == 1, row.match) << row.body << row.model;
    }
    for (const auto& m : {std::array{1u, 2u, 3u, 1u}, {1, 3, 0, 0}, {1, 2, 4, 0}, {1, 1, 65535, 1}, {1, 2, 65536, 0}, {256, 0, 0, 0}})
        EXPECT_EQ(korl_check_minver(1, 2, 3, m[0], m[1], m[2]), int(m[3])) << m[0] << "." << m[1] << "-" << m[2];
    korm_element e[23]{}, *ptrs[23];
    for (int i = 0; i < 23; ++i) e[i].cidx = int8_t(i + 2), ptrs[i] = &e[i];
    e[1].cidx = e[2].cidx = 7;  // the 23rd pointer is never read; a null one ends the search
    const int found[] = {korl_korm_cidx_match(ptrs, 7), korl_korm_cidx_match(ptrs, 23), korl_korm_cidx_match(ptrs, 24),
                         (ptrs[5] = nullptr, korl_korm_cidx_match(ptrs, 8))};
    EXPECT_EQ(std::vector(found, found + 4), std::vector({1, 21, -1, -1}));
    static korl_data d;  // a 40-byte header; 64-byte ones: see the recording tests of the plan
    std::memset(static_cast<void*>(&d), 0xEE, sizeof d);
    const auto img = mkvelk::build_image({mkvelk::software("rootfs", 2, 1, 37, "", {1, 2, 3, 4, 5})});
    const korm_element k{1, 0, "", 0, "/", "squashfs", "", 0, 0, 0, 0, 0, 0, 3};
    korl_meta_import_pinfometa(&d, img.data() + 24, &k);
    uint8_t want[64] = {};  // the header, then zeros
    std::memcpy(want, img.data() + 24, 40);
    EXPECT_TRUE(std::memcmp(&d.pinfometa[3], want, 64) == 0 && d.pinfometa[2].hdr_crc == 0xEEEEEEEEu &&
                std::string(d.partinfo[3].mountpnt) + d.partinfo[3].fstype == "/squashfs");
}
