// KORM descriptor parsing and the release checks, one row per case.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "korl/korl.h"
#include "mkvelk.h"

namespace {

std::string lines(int n, const std::string& line)
{
    std::string s;
    for (int i = 0; i < n; ++i) s += line + "\n";
    return s;
}

struct parse_row {
    const char* what;
    std::string text;
    int result;
    std::string first;  // the first element as cidx|pool|extra|mount|fstype|platform|meta_valid|version|wts
};

std::string describe(const korm_element& e)
{
    char s[200];
    std::snprintf(s, sizeof s, "%d|%s|%d|%s|%s|%s|%u|%u.%u.%u|%u", e.cidx, e.poolname, e.extra, e.mountpnt,
                  e.fstype, e.platform, e.meta_valid, e.ver_major, e.ver_minor, e.ver_build, e.wts);
    return s;
}

const std::string kLine = "0,ROOTS,0,/,squashfs,-,2.1.37,1";
const std::string kFirst = "0|ROOTS|0|/|squashfs|-|1|2.1.37|1";
const std::string kFill1999 = kLine + "," + std::string(1999 - kLine.size() - 1, 'x');
const std::string p17(17, 'p'), m30(30, 'm'), f9(9, 'f'), x21(21, 'x');

const parse_row kParseRows[] = {
    {"dotted", kLine, 1, kFirst},
    {"no version", "-1,APPLS,0,-,-,-,-1.-1.-1,1", 1, "-1|APPLS|0|||-|0|0.0.0|1"},
    {"hex", "1,KNLS,0,-,-,-,0x0201000A,2", 1, "1|KNLS|0|||-|1|2.1.10|2"},
    {"hex all ones", "1,K,0,-,-,-,FFFFFFFF,3", 1, "1|K|0|||-|1|255.255.65535|3"},
    {"late", "2,P,0,-,-,-,1.-2.0,1", 1, "2|P|0|||-|2|0.0.0|1"},
    {"none wins over late", "2,P,0,-,-,-,-2.2.-1,1", 1, "2|P|0|||-|0|0.0.0|1"},
    {"octal and hex ints", "010,P,0x10,-x,-y,a b,1.2.0x10,1", 1, "8|P|16|||a b|1|1.2.16|1"},
    {"blanks kept", "0,P,0,/mnt/a b,ext4,arm7,1.2.3,1", 1, "0|P|0|/mnt/a b|ext4|arm7|1|1.2.3|1"},
    {"widest fields", "0," + p17 + ",0,/" + m30 + "," + f9 + "," + x21 + ",1.2.3,1", 1,
     "0|" + p17 + "|0|/" + m30 + "|" + f9 + "|" + x21 + "|1|1.2.3|1"},
    {"pool too wide", "0," + p17 + "p,0,-,-,-,1.2.3,1", 0, ""},
    {"mount too wide", "0,P,0,/" + m30 + "m,-,-,1.2.3,1", 0, ""},
    {"fstype too wide", "0,P,0,-," + f9 + "f,-,1.2.3,1", 0, ""},
    {"platform too wide", "0,P,0,-,-," + x21 + "x,1.2.3,1", 0, ""},
    {"1999 characters", kFill1999, 1, kFirst},
    {"2000 characters", kFill1999 + "x", 0, ""},
    {"empty field", "0,,0,-,-,-,1.2.3,1", 0, ""},
    {"short version", "0,P,0,-,-,-,1.2,1", 0, ""},
    {"comments only", "#a\n#0,P,0,-,-,-,1.2.3,1\n", 0, ""},
    {"empty text", "", 0, ""},
    {"empty first line", "\n" + kLine, 0, ""},
    {"empty line ends", kLine + "\n\n1,B,0,-,-,-,1.2.3,1\n", 1, kFirst},
    {"bad line frees no slot", "junk\n#c\n1,B,0,-,-,-,1.2.3,2", 1, "1|B|0|||-|1|1.2.3|2"},
    {"44 lines", lines(44, kLine), 44, kFirst},
    {"44 lines and comments", lines(44, kLine) + "#x\n#y", 44, kFirst},
    {"45 lines", lines(45, kLine), -1, ""},
    {"44 lines and junk", lines(44, kLine) + "junk", -1, ""},
};

TEST(KormParse, Lines)
{
    for (const parse_row& row : kParseRows) {
        korm_element e[KORL_KORM_ELEMENTS];
        std::memset(static_cast<void*>(e), 0x5A, sizeof e);
        testing::internal::CaptureStdout();
        const int r = korl_parse_kormd(e, KORL_KORM_ELEMENTS, row.text.c_str());
        testing::internal::GetCapturedStdout();
        ASSERT_EQ(r, row.result) << row.what;
        for (int i = 0; i < KORL_KORM_ELEMENTS && r >= 0; ++i) {
            EXPECT_EQ(e[i].used, i < r ? 1 : 0) << row.what << " slot " << i;
            EXPECT_EQ(e[i].partinfo_idx, i < r ? -1 : 0) << row.what << " slot " << i;
            EXPECT_EQ(e[i].action, 0u) << row.what << " slot " << i;
        }
        EXPECT_EQ(r > 0 ? describe(e[0]) : "", row.first) << row.what;
    }
}

TEST(KormParse, Messages)
{
    const struct { std::string text; int capacity; std::string out; } rows[] = {
        {"0,,0,-,-,-,1.2.3,1\n", 44, "Wrong syntax, skip (r=1)\n\n0,,0,-,-,-,1.2.3,1\n"},
        {"0,P,0,-,-,-,1.2,1", 44, "Wrong syntax, skip (r=7)\n\n0,P,0,-,-,-,1.2,1\n"},
        {kLine + "\n#c\n" + kLine, 1, "Wups, too many KORM elements, abort.\n"},
        {kLine + "\n#c\n", 1, ""},
    };
    for (const auto& row : rows) {
        korm_element e[KORL_KORM_ELEMENTS];
        testing::internal::CaptureStdout();
        (void)korl_parse_kormd(e, row.capacity, row.text.c_str());
        EXPECT_EQ(testing::internal::GetCapturedStdout(), row.out) << row.text;
    }
}

// The release header part followed by exactly body_length bytes, so that a
// read beyond the body is a read beyond the allocation.
bool matches(const std::string& body, const char* model)
{
    std::vector<uint8_t> part(sizeof(velk_release_header) + body.size());
    velk_content_header h{};
    h.type_id = VELK_TYPE_RELEASE_HEADER;
    h.hdr_length = sizeof(velk_release_header);
    h.body_length = uint32_t(body.size());
    std::memcpy(part.data(), &h, sizeof h);
    std::memcpy(part.data() + sizeof(velk_release_header), body.data(), body.size());
    return korl_match_model(reinterpret_cast<const velk_content_header*>(part.data()), model) == 1;
}

TEST(KormRelease, MatchModel)
{
    using namespace std::string_literals;
    const struct { std::string body; const char* model; bool match; } rows[] = {
        {"products=a,b\n", "a", true},         {"products=a,b\n", "b", true},
        {"products=a,b\n", "ab", false},       {"products=a,b\n", "", false},
        {"products=a,b\0"s, "a", true},        {"products=a,b\0"s, "b", false},
        {"products=a,b", "b", false},          {"products=a,", "a", true},
        {"rel=1\nproducts=x,a\nk=v\n", "a", true}, {"products=\n", "a", false},
        {"products=abc\n", "ab", false},       {"products=ab,a\n", "a", true},
        {"no list\n", "a", false},             {"x\0products=a\n"s, "a", false},
        {"products=a\nb\n", "b", false},       {"products", "a", false},
    };
    for (const auto& row : rows) EXPECT_EQ(matches(row.body, row.model), row.match) << row.body << " / " << row.model;
}

TEST(KormRelease, MinimumVersion)
{
    const struct { uint32_t major, minor, build; int result; } rows[] = {
        {1, 2, 3, 1}, {1, 3, 0, 0}, {0, 9, 999, 1}, {1, 2, 4, 0},
        {2, 0, 0, 0}, {1, 1, 65535, 1}, {256, 0, 0, 0}, {1, 2, 65536, 0},
    };
    for (const auto& row : rows)
        EXPECT_EQ(korl_check_minver(1, 2, 3, row.major, row.minor, row.build), row.result)
            << row.major << "." << row.minor << "-" << row.build;
}

TEST(KormCsv, Split)
{
    std::string names19 = "n0";
    for (int i = 1; i < 19; ++i) names19 += ",n" + std::to_string(i);
    const std::string names20 = names19 + ",n19";
    const struct { std::string text; int n; uint32_t size; int result; std::string fields; } rows[] = {
        {"a,b", 20, 100, 2, "a|b|"},      {"a,", 20, 100, 2, "a||"},   {"", 20, 100, 0, ""},
        {"a", 1, 100, -1, ""},            {"a", 20, 100, 1, "a|"},     {",", 20, 100, 2, "||"},
        {"a,b,c", 3, 100, -1, ""},        {"a,b,c", 4, 100, 3, "a|b|c|"},
        {names19, 20, 100, 19, ""},       {names20, 20, 100, -1, ""},
        {std::string(99, 'x'), 20, 100, 1, std::string(99, 'x') + "|"},
        {std::string(100, 'x'), 20, 100, -1, ""},
    };
    for (const auto& row : rows) {
        char buffer[100];
        std::vector<char*> table(size_t(row.n < 2 ? 2 : row.n) + 1, nullptr);
        table[0] = buffer;
        const int r = korl_parse_csv(row.text.c_str(), table.data(), row.n, row.size);
        ASSERT_EQ(r, row.result) << row.text;
        if (row.fields.empty()) continue;
        std::string got;
        for (int i = 1; i <= r; ++i) got += std::string(table[size_t(i)]) + "|";
        EXPECT_EQ(got, row.fields) << row.text;
    }
}

TEST(KormElements, CidxMatchStopsAtNullOr22)
{
    korm_element e[23]{};
    korm_element* ptrs[23];
    for (int i = 0; i < 23; ++i) {
        e[i].cidx = int8_t(i + 2);
        ptrs[i] = &e[i];
    }
    e[1].cidx = e[2].cidx = 7;
    EXPECT_EQ(korl_korm_cidx_match(ptrs, 7), 1);
    EXPECT_EQ(korl_korm_cidx_match(ptrs, 23), 21);
    EXPECT_EQ(korl_korm_cidx_match(ptrs, 24), -1);  // the 23rd pointer is never read
    ptrs[5] = nullptr;
    EXPECT_EQ(korl_korm_cidx_match(ptrs, 8), -1);
}

TEST(KormElements, ImportCopiesTheHeaderOnly)
{
    for (size_t id_len : {0, 27}) {  // 40- and 64-byte headers
        const auto img = mkvelk::build_image({mkvelk::software("rootfs", 2, 1, 37, std::string(id_len, 'g'), {1, 2, 3, 4, 5, 6, 7, 8})});
        const uint8_t* part = img.data() + 24;
        const size_t hdr = part[6];
        static korl_data d;
        std::memset(static_cast<void*>(&d), 0xEE, sizeof d);
        korm_element e{};
        e.partinfo_idx = 3;
        std::strcpy(e.mountpnt, "/");
        std::strcpy(e.fstype, "squashfs");
        korl_meta_import_pinfometa(&d, part, &e);
        const auto* meta = reinterpret_cast<const uint8_t*>(&d.pinfometa[3]);
        EXPECT_EQ(std::memcmp(meta, part, hdr), 0);
        for (size_t i = hdr; i < 64; ++i) EXPECT_EQ(meta[i], 0) << i;
        EXPECT_STREQ(d.partinfo[3].mountpnt, "/");
        EXPECT_STREQ(d.partinfo[3].fstype, "squashfs");
        EXPECT_EQ(d.pinfometa[2].hdr_crc, 0xEEEEEEEEu);
    }
}

}  // namespace
