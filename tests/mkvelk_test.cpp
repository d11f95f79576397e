// Images made by the mkvelk library and tool, judged by a decoder written from the byte tables and by kor's validation.
#include "mkvelk.h"
#include "support/sandbox.h"
#include "velk/velk.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

using mkvelk::bytes;

namespace {

uint32_t rd16(const bytes& b, size_t at) { return b[at] | b[at + 1] << 8; }
uint32_t rd32(const bytes& b, size_t at) { return rd16(b, at) | rd16(b, at + 2) << 16; }
std::string str(const bytes& b, size_t at, size_t n) { return std::string(&b[at], &b[at] + n).c_str(); }

constexpr uint16_t kRelease = 1, kKorm = 2, kData = 3, kSoftware = 4, kSignature = 7;  // type ids

// One content part as its bytes lay it out: what the decoder reads, or what a test expects.
class Laid {
public:
    Laid(std::string name, uint16_t type) : name(std::move(name)), type(type) {}
    Laid& at(size_t offset) { at_ = offset; return *this; }
    Laid& header(uint32_t length) { header_ = length; return *this; }
    Laid& body(uint32_t length) { body_ = length; return *this; }
    Laid& release(const std::string& version, uint32_t date, const std::string& build_id)  // version "2.1-37"
    {
        details_ = "release " + version + " of " + std::to_string(date) + ", build id \"" + build_id + "\"";
        return *this;
    }
    Laid& software(uint32_t version_word, const std::string& build_id)  // major, minor, build high, build low
    {
        char word[16];
        std::snprintf(word, sizeof word, "%#x", version_word);
        details_ = std::string("version word ") + word + ", build id \"" + build_id + "\"";
        return *this;
    }
    Laid& signature(unsigned algorithm) { details_ = "algorithm " + std::to_string(algorithm); return *this; }
    Laid& text(const std::string& t, bool nul_terminated = true)  // the body of a release header or a "korm"
    {
        text_ = "text \"" + t + "\"" + (nul_terminated ? "" : " without its NUL");
        return *this;
    }

    std::string describe() const
    {
        std::string d = "\"" + name + "\" type " + std::to_string(type) + " at " + std::to_string(at_) + ", header " +
                        std::to_string(header_) + ", body " + std::to_string(body_);
        for (const std::string& more : {details_, text_})
            if (!more.empty()) d += "; " + more;
        return d;
    }

    std::string name;
    uint16_t type;

private:
    size_t at_ = 0;
    uint32_t header_ = 0, body_ = 0;
    std::string details_, text_;
};

// Walks the image by offsets alone; every part passes kor's checks and its padding is zero.
std::vector<std::string> decode(const bytes& img)
{
    if (img.size() < 24) return {"short image"};
    const auto* h = reinterpret_cast<const velk_header*>(img.data() + 8);
    EXPECT_EQ(str(img, 0, 8), "KLEVVELK");
    EXPECT_EQ(img[12], 1);
    EXPECT_EQ(rd16(img, 14), 16u);
    EXPECT_EQ(24 + size_t(rd32(img, 16)), img.size());
    EXPECT_EQ(velk_validate_identification(img.data()), VELK_OK);
    EXPECT_EQ(velk_validate_header(h), VELK_OK);
    EXPECT_EQ(velk_validate_body_from_hdr(h), VELK_OK);
    std::vector<std::string> parts;
    size_t o = 24;
    while (o + 32 <= img.size()) {
        const uint16_t type = uint16_t(rd16(img, o + 4));
        const uint32_t hdr = rd16(img, o + 6), body = rd32(img, o + 8);
        Laid p(str(img, o + 12, 16), type);
        p.at(o).header(hdr).body(body);
        if (type == kRelease) {
            const std::string version = std::to_string(img[o + 32]) + "." + std::to_string(img[o + 33]) + "-" +
                                        std::to_string(rd16(img, o + 34));
            p.release(version, rd32(img, o + 36), str(img, o + 40, 36));
        }
        if (type == kSoftware) p.software(rd32(img, o + 32), str(img, o + 36, hdr - 36));
        if (type == kSignature) p.signature(img[o + 32]);
        if (type == kRelease || type == kKorm) p.text(str(img, o + hdr, body - 1), body && !img[o + hdr + body - 1]);
        parts.push_back(p.describe());
        const auto* part = reinterpret_cast<const velk_content_header*>(&img[o]);
        EXPECT_EQ(velk_validate_content_part_from_hdr(part), VELK_OK) << p.describe();
        EXPECT_EQ(hdr % 4, 0u) << p.describe();
        for (o += hdr + body; o % 4 && o < img.size(); ++o) EXPECT_EQ(img[o], 0) << "padding of " << p.describe();
    }
    EXPECT_EQ(o, img.size());
    return parts;
}

std::vector<std::string> described(const std::vector<Laid>& parts)
{
    std::vector<std::string> d;
    for (const Laid& p : parts) d.push_back(p.describe());
    return d;
}

}  // namespace

TEST(MkvelkLibrary, LayoutPaddingAndLimits)
{
    const bytes img = mkvelk::build_image({mkvelk::release_header(2, 1, 37, 1700000000, "b42", "products=a,b\n"),
                                           mkvelk::korm("2,ROOTS,0,/,squashfs,-,2.1.37,1\n"),
                                           mkvelk::software("rootfs", 2, 1, 0x1234, "g1234567", bytes(5, 0xAB)),
                                           mkvelk::data("0123456789abcdef", {}),
                                           mkvelk::signature("sig", 9, bytes(3, 0xCD))});
    EXPECT_EQ(decode(img), described({  // padding of 2, 3, 3, 0 and 1
        Laid("release", kRelease).at(24).header(76).body(14).release("2.1-37", 1700000000, "b42")
            .text("products=a,b\n"),
        Laid("korm", kKorm).at(116).header(32).body(33).text("2,ROOTS,0,/,squashfs,-,2.1.37,1\n"),
        Laid("rootfs", kSoftware).at(184).header(48).body(5).software(0x12340102, "g1234567"),
        Laid("0123456789abcdef", kData).at(240).header(32).body(0),
        Laid("sig", kSignature).at(272).header(36).body(3).signature(9),
    }));
    const std::string x3 = "xxx", x27(27, 'x');  // the software header rounded up, at most 64
    for (const auto& [id, header] : {std::pair{x3, 40u}, {x27, 64u}}) {
        const auto sw = mkvelk::software("s", 1, 2, 3, id, {});
        EXPECT_EQ(mkvelk::part_problem(sw), nullptr) << id;
        EXPECT_EQ(decode(mkvelk::build_image({sw})),
                  described({Laid("s", kSoftware).at(24).header(header).body(0).software(0x30201, id)}));
    }
    const auto too_long = mkvelk::software("s", 1, 2, 3, x27 + "x", {});
    EXPECT_NE(mkvelk::part_problem(too_long), nullptr);
    EXPECT_TRUE(mkvelk::build_image({too_long}).empty());
    EXPECT_TRUE(mkvelk::build_image({mkvelk::part{3, "x", {1, 2, 3}, {}}}).empty());  // header not a multiple of 4
}

TEST(MkvelkTool, GeneratesOrRefuses)
{
    KOR_SANDBOX_OR_SKIP();
    sandbox::Device dev;  // the tool runs in its work directory, with the files named relative to it
    const std::string at = dev.workdir() + "/", sw = " --software s:1.2.3:k",  // common arguments; a later value wins
                      with = "--version 2.1.37 --date 1700000000 --build-id b42 --products a,b -o bad.velk";
    const char* emulator = std::getenv("KOR_TEST_EMULATOR");  // the shell is the host's, mkvelk maybe not
    const std::string tool = (emulator ? std::string(emulator) + " " : "") + "'" MKVELK_BINARY "' ";
    const auto run = [&](auto args) { return dev.run({"sh", "-c", "cd " + at + " && " + tool + args}); };
    const auto image = [&] {
        const std::string s = dev.read_file(at + "out.velk");
        return bytes(s.begin(), s.end());
    };
    std::string many, eighteen;  // KORM lines, data parts besides one software part
    for (int i = 0; i < 45; ++i) many += "-1,P,0,-,-,-,1.2.3,1\n";
    for (int i = 0; i < 18; ++i) eighteen += " --data d:k";
    for (const auto& [name, text] : {std::pair<std::string, std::string>{"root", "rootfs!"}, {"k", "kernel"},
             {"s", "sig"}, {"empty.korm", "# nothing\n"}, {"many.korm", many},
             {"order.korm", "3,A,0,-,-,-,1.2.3,1\n2,B,0,-,-,-,1.2.3,1\n"},
             {"release.korm", "# partial release\n-1,APPLS,0,-,-,-,-1.-1.-1,1\n2,ROOTS,0,/,squashfs,-,0x02010025,1\n"}})
        dev.write_file(at + name, text);
    auto r = run(with + " -o out.velk --info channel=beta --software rootfs:2.1.37:root:ROOTS:/:squashfs --data cfg:k "
                 "--software kernel:2.1.10+g1:k:KNLS::::2 --signature sig:1:s");
    EXPECT_EQ(r.out, "out.velk: 396 bytes, 6 content parts\n");
    EXPECT_EQ(dev.read_file(at + "out.velk").substr(260, 7), "rootfs!");
    EXPECT_EQ(decode(image()), described({
        Laid("release", kRelease).at(24).header(76).body(27).release("2.1-37", 1700000000, "b42")
            .text("products=a,b\nchannel=beta\n"),
        Laid("korm", kKorm).at(128).header(32).body(57)
            .text("2,ROOTS,0,/,squashfs,-,2.1.37,1\n4,KNLS,0,-,-,-,2.1.10,2\n"),
        Laid("rootfs", kSoftware).at(220).header(40).body(7).software(0x250102, "b42"),  // the release's build id
        Laid("cfg", kData).at(268).header(32).body(6),
        Laid("kernel", kSoftware).at(308).header(40).body(6).software(0xa0102, "g1"),
        Laid("sig", kSignature).at(356).header(36).body(3).signature(1),
    }));
    r = run(with + " -o out.velk --korm release.korm --software rootfs:2.1.37:root");
    const std::vector<std::string> parts = decode(image());  // the descriptor as given, its NUL behind it
    const std::string korm_text = "; text \"" + dev.read_file(at + "release.korm") + "\"";
    EXPECT_TRUE(std::any_of(parts.begin(), parts.end(), [&](const std::string& p) {
        return p.rfind("\"korm\"", 0) == 0 && p.size() > korm_text.size() &&
               p.compare(p.size() - korm_text.size(), korm_text.size(), korm_text) == 0;
    })) << r.err;
    const struct {
        std::string args;
        const char* message;  // in stderr
    } rows[] = {
        {"", "Usage: mkvelk"},
        {"--bogus", "unknown argument"},
        {"--version 1.2.3 --products a" + sw, "missing -o"},
        {"-o x --version 256.0.0", "--version wants"},
        {with + " --products a,,b" + sw, "product ''"},
        {with + " --info products=c" + sw, "use --products"},
        {with + " --korm empty.korm" + sw, "no install line"},
        {with + " --build-id " + std::string(36, 'b') + sw, "--build-id"},
        {with + " --data d:k", "nothing to install"},
        {with + " --software 0123456789abcdefg:1.2.3:k", "name longer than 16 characters"},
        {with + " --software s:1.2.3+" + std::string(28, 'x') + ":k", "header of 68 bytes is over 64"},
        {with + sw + ":P:::-:4", "WTS wants"},
        {with + sw + ":P:/a,b", "contains a comma"},
        {with + " --software korm:1.2.3:k", "kept for the KORM"},
        {with + sw + eighteen, "too many content parts"},
        {with + " --software s:1.2.3:gone", "gone'"},
        {with + " --korm many.korm" + sw, "more than 44 lines"},
        {with + " --korm order.korm" + sw + sw, "content index 2"},
        {with + " --korm release.korm" + sw + ":ROOTS", "not used with --korm"},
    };
    for (const auto& row : rows) {  // a refusal leaves no output file
        SCOPED_TRACE(row.args);
        r = run(row.args);
        EXPECT_EQ(r.status, 1);
        EXPECT_NE(r.err.find(row.message), std::string::npos) << r.err;
        EXPECT_FALSE(dev.exists(at + "bad.velk"));
    }
}
