// KORM descriptor parsing and the release checks, one row per case.
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <optional>

#include "korl/korl.h"
#include "mkvelk.h"

// What the parse leaves in element 0; what a row does not name is as a line "C,POOL,0,-,-,-,-1.-1.-1,1" gives it.
class Element {
public:
    Element(int cidx, std::string pool) : cidx_(cidx), pool_(std::move(pool)) {}
    Element& extra(int32_t e) { extra_ = e; return *this; }
    Element& mount(std::string m) { mount_ = std::move(m); return *this; }
    Element& fstype(std::string f) { fstype_ = std::move(f); return *this; }
    Element& platform(std::string p) { platform_ = std::move(p); return *this; }
    Element& version(int major, int minor, int build)  // meta_valid 1
    {
        meta_valid_ = 1;
        version_ = {major, minor, build};
        return *this;
    }
    Element& version_on_arrival() { meta_valid_ = 2; return *this; }
    Element& wts(int w) { wts_ = w; return *this; }

    // One line per field that differs.
    std::string differences(const korm_element& e) const
    {
        std::string d;
        const auto field = [&d](const char* name, const std::string& got, const std::string& want) {
            if (got != want) d += std::string(name) + ": \"" + got + "\", not \"" + want + "\"\n";
        };
        const auto n = [](auto v) { return std::to_string(v); };
        field("cidx", n(e.cidx), n(cidx_));
        field("poolname", e.poolname, pool_);
        field("extra", n(e.extra), n(extra_));
        field("mountpnt", e.mountpnt, mount_);
        field("fstype", e.fstype, fstype_);
        field("platform", e.platform, platform_);
        field("meta_valid", n(e.meta_valid), n(meta_valid_));
        field("version", n(e.ver_major) + "." + n(e.ver_minor) + "." + n(e.ver_build),
              n(version_[0]) + "." + n(version_[1]) + "." + n(version_[2]));
        field("wts", n(e.wts), n(wts_));
        return d;
    }

private:
    int cidx_;
    std::string pool_, mount_, fstype_, platform_ = "-";
    int32_t extra_ = 0;
    uint32_t meta_valid_ = 0;
    std::array<int, 3> version_{};
    int wts_ = 1;
};

constexpr int kNoReport = -2;  // no "Wrong syntax" report

// One descriptor parsed: the result, element 0 when any, and the r of the "Wrong syntax" report that echoes the
// first line (bounded). Every slot is reset: used ones point to no partition entry yet.
class Parse {
public:
    Parse(std::string what, std::string text) : what(std::move(what)), text(std::move(text)) {}
    Parse& result(int r) { result_ = r; return *this; }
    Parse& first(Element e) { first_ = std::move(e); return *this; }
    Parse& wrong_syntax(int r) { wrong = r; return *this; }

    std::string what, text;
    int result_ = -99, wrong = kNoReport;
    std::optional<Element> first_;
};

TEST(KormParse, Lines)
{
    const std::string line = "0,ROOTS,0,/,squashfs,-,2.1.37,1", p17(17, 'p'), m30(30, 'm'), f9(9, 'f'), x21(21, 'x'),
                      fill = line + "," + std::string(1999 - line.size() - 1, 'x');
    const Element roots = Element(0, "ROOTS").mount("/").fstype("squashfs").version(2, 1, 37);
    std::string l44;
    for (int i = 0; i < 44; i++) l44 += line + "\n";  // KORL_KORM_ELEMENTS lines
    const Parse rows[] = {
        Parse("dotted", line).result(1).first(roots),
        Parse("no version", "-1,APPLS,0,-,-,-,-1.-1.-1,1").result(1).first(Element(-1, "APPLS")),
        Parse("hex", "1,KNLS,0,-,-,-,0xFF01FFFE,2").result(1).first(Element(1, "KNLS").version(255, 1, 65534).wts(2)),
        Parse("late", "2,P,0,-,-,-,1.-2.0,1").result(1).first(Element(2, "P").version_on_arrival()),
        Parse("octal and hex ints", "010,P,0x10,-x,-y,a b,1.2.0x10,1").result(1)
            .first(Element(8, "P").extra(16).platform("a b").version(1, 2, 16)),
        Parse("widest fields", "0," + p17 + ",0,/" + m30 + "," + f9 + "," + x21 + ",1.2.3,1").result(1)
            .first(Element(0, p17).mount("/" + m30).fstype(f9).platform(x21).version(1, 2, 3)),
        // the other fields one too wide: see the bad input tests
        Parse("pool too wide", "0," + p17 + "p,0,-,-,-,1.2.3,1").result(0).wrong_syntax(2),
        Parse("1999 characters", fill).result(1).first(roots),
        Parse("2000 characters", fill + "x").result(0).wrong_syntax(0),
        Parse("empty field", "0,,0,-,-,-,1.2.3,1\n").result(0).wrong_syntax(1),
        Parse("empty line ends", line + "\n\n1,B,0,-,-,-,1.2.3,1\n").result(1).first(roots),
        Parse("bad line frees no slot", "junk\n#c\n1,B,0,-,-,-,1.2.3,2").result(1)
            .first(Element(1, "B").version(1, 2, 3).wts(2)).wrong_syntax(0),
        Parse("44 lines and comments", l44 + "#x\n#y").result(44).first(roots),
        Parse("45 lines", l44 + line).result(-1),
    };
    for (const Parse& row : rows) {
        SCOPED_TRACE(row.what);
        korm_element e[KORL_KORM_ELEMENTS];
        std::memset(static_cast<void*>(e), 0x5A, sizeof e);
        testing::internal::CaptureStdout();
        const int r = korl_parse_kormd(e, KORL_KORM_ELEMENTS, row.text.c_str());
        const std::string echo = "Wrong syntax, skip (r=" + std::to_string(row.wrong) + ")\n\n" +  // bounded
                                 row.text.substr(0, std::min<size_t>(row.text.find('\n'), 1999)) + "\n";
        EXPECT_EQ(testing::internal::GetCapturedStdout(),
                  (r < 0 ? "Wups, too many KORM elements, abort.\n" : "") + (row.wrong == kNoReport ? "" : echo));
        EXPECT_EQ(r, row.result_);
        if (r > 0) {
            ASSERT_TRUE(row.first_) << "the row names no element 0";
            EXPECT_EQ(row.first_->differences(e[0]), "");
        }
        for (int i = 0; i < KORL_KORM_ELEMENTS && r >= 0; ++i) {
            EXPECT_EQ(e[i].used, i < r) << "slot " << i;
            EXPECT_EQ(e[i].partinfo_idx, i < r ? -1 : 0) << "slot " << i;
            EXPECT_EQ(e[i].action, 0u) << "slot " << i;
        }
    }
}

TEST(Korm, ModelMinimumVersionCidxMatchAndImport)
{
    using namespace std::string_literals;
    const struct { std::string body; const char* model; bool match; } rows[] = {
        {"products=a,b\n", "", false}, {"products=a,b\0"s, "b", false}, {"products=a,", "a", true},
        {"products=a,b", "b", false},
        {"rel=1\nproducts=x,a\nk=v\n", "a", true}, {"products=abc\n", "ab", false}, {"products=ab,a\n", "a", true},
        {"x\0products=a\n"s, "a", false}, {"products=a\nb\n", "b", false}, {"products", "a", false}};
    for (const auto& row : rows) {  // exactly body_length bytes: a read beyond the body leaves the allocation
        std::vector<uint8_t> part(sizeof(velk_release_header) + row.body.size());
        const velk_content_header h{0, VELK_TYPE_RELEASE_HEADER, sizeof(velk_release_header), uint32_t(row.body.size()),
                                    "", 0};
        std::memcpy(part.data(), &h, sizeof h);
        std::copy(row.body.begin(), row.body.end(), part.data() + sizeof(velk_release_header));
        const auto* header = reinterpret_cast<velk_content_header*>(part.data());
        EXPECT_EQ(korl_match_model(header, row.model) == 1, row.match) << row.body << row.model;
    }
    const struct {
        uint32_t major, minor, build;  // the minimum, against release 1.2-3
        int result;
    } minimums[] = {{1, 2, 3, 1}, {1, 3, 0, 0}, {1, 2, 4, 0}, {1, 1, 65535, 1}, {1, 2, 65536, 0}, {256, 0, 0, 0}};
    for (const auto& m : minimums)
        EXPECT_EQ(korl_check_minver(1, 2, 3, m.major, m.minor, m.build), m.result)
            << m.major << "." << m.minor << "-" << m.build;
    korm_element e[23]{}, *ptrs[23];
    for (int i = 0; i < 23; ++i) {
        e[i].cidx = int8_t(i + 2);
        ptrs[i] = &e[i];
    }
    e[1].cidx = e[2].cidx = 7;  // the 23rd pointer is never read; a null one ends the search
    EXPECT_EQ(korl_korm_cidx_match(ptrs, 7), 1);
    EXPECT_EQ(korl_korm_cidx_match(ptrs, 23), 21);
    EXPECT_EQ(korl_korm_cidx_match(ptrs, 24), -1);
    ptrs[5] = nullptr;
    EXPECT_EQ(korl_korm_cidx_match(ptrs, 8), -1);
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
