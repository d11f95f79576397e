// Images made by the mkvelk library and tool, judged by a decoder written from the byte tables and by kor's validation.
#include "mkvelk.h"
#include "support/sandbox.h"
#include "velk/velk.h"

#include <cstdlib>

using mkvelk::bytes;

static uint32_t rd16(const bytes& b, size_t at) { return b[at] | b[at + 1] << 8; }
static uint32_t rd32(const bytes& b, size_t at) { return rd16(b, at) | rd16(b, at + 2) << 16; }
static std::string str(const bytes& b, size_t at, size_t n) { return std::string(&b[at], &b[at] + n).c_str(); }
template <typename... A>
static std::string fmt(const char* f, A... a) { char b[128]; return std::snprintf(b, sizeof b, f, a...), b; }

// Walks the image by offsets alone (parts pass kor's checks, padding is zero): "offset:type/hdr/body/name ..." each.
static std::string decode(bytes img)
{
    if (img.size() < 24) return "short image";
    const auto* h = reinterpret_cast<const velk_header*>(img.data() + 8);
    EXPECT_EQ(str(img, 0, 8) + fmt(" %u %u %zu valid %d%d%d", img[12], rd16(img, 14), 24 + size_t(rd32(img, 16)),
              velk_validate_identification(img.data()), velk_validate_header(h), velk_validate_body_from_hdr(h)),
              fmt("KLEVVELK 1 16 %zu valid 111", img.size()));
    std::string s;
    size_t o = 24;
    while (o + 32 <= img.size()) {
        const uint32_t type = rd16(img, o + 4), hdr = rd16(img, o + 6), body = rd32(img, o + 8);
        s += fmt(s.empty() ? "%zu:%u/%u/%u/" : " %zu:%u/%u/%u/", o, type, hdr, body) + str(img, o + 12, 16);
        if (type == 1) s += fmt(" %u.%u-%u %u ", img[o + 32], img[o + 33], rd16(img, o + 34), rd32(img, o + 36));
        if (type == 1 || type == 4)  // the build id; for software after the version word, build number high
            s += type == 1 ? str(img, o + 40, 36) : fmt(" %#x ", rd32(img, o + 32)) + str(img, o + 36, hdr - 36);
        if (type == 7) s += fmt(" %u", img[o + 32]);
        if (type <= 2) s += " {" + str(img, o + hdr, body - 1) + (body && !img[o + hdr + body - 1] ? "}" : "}no NUL");
        const auto* part = reinterpret_cast<const velk_content_header*>(&img[o]);
        EXPECT_TRUE(velk_validate_content_part_from_hdr(part) == VELK_OK && hdr % 4 == 0) << s;
        for (o += hdr + body; o % 4 && o < img.size(); ++o) EXPECT_EQ(img[o], 0) << s;
    }
    EXPECT_EQ(o, img.size());
    return s;
}

TEST(MkvelkLibrary, LayoutPaddingAndLimits)
{
    EXPECT_EQ(decode(mkvelk::build_image({mkvelk::release_header(2, 1, 37, 1700000000, "b42", "products=a,b\n"),
        mkvelk::korm("2,ROOTS,0,/,squashfs,-,2.1.37,1\n"),
        mkvelk::software("rootfs", 2, 1, 0x1234, "g1234567", bytes(5, 0xAB)), mkvelk::data("0123456789abcdef", {}),
        mkvelk::signature("sig", 9, bytes(3, 0xCD))})),  // padding of 2, 3, 3, 0 and 1
        "24:1/76/14/release 2.1-37 1700000000 b42 {products=a,b\n} 116:2/32/33/korm {2,ROOTS,0,/,squashfs,-,2.1.37,1\n}"
        " 184:4/48/5/rootfs 0x12340102 g1234567 240:3/32/0/0123456789abcdef 272:7/36/3/sig 9");
    const std::string x3 = "xxx", x27(27, 'x');  // header rounded up, at most 64
    for (const auto& [id, want] : {std::pair{x3, "24:4/40/0/s 0x30201 " + x3},
                                   {x27, "24:4/64/0/s 0x30201 " + x27}, {x27 + "x", "short image refused"}}) {
        const auto sw = mkvelk::software("s", 1, 2, 3, id, {});
        EXPECT_EQ(decode(mkvelk::build_image({sw})) + (mkvelk::part_problem(sw) ? " refused" : ""), want);
    }
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
    const auto image = [&] { std::string s = dev.read_file(at + "out.velk"); return bytes(s.begin(), s.end()); };
    std::string many, eighteen;  // KORM lines, data parts besides one software part
    for (int i = 0; i < 45; ++i) many += "-1,P,0,-,-,-,1.2.3,1\n", eighteen += i < 18 ? " --data d:k" : "";
    for (const auto& [name, text] : {std::pair<std::string, std::string>{"root", "rootfs!"}, {"k", "kernel"},
             {"s", "sig"}, {"empty.korm", "# nothing\n"}, {"many.korm", many},
             {"order.korm", "3,A,0,-,-,-,1.2.3,1\n2,B,0,-,-,-,1.2.3,1\n"},
             {"release.korm", "# partial release\n-1,APPLS,0,-,-,-,-1.-1.-1,1\n2,ROOTS,0,/,squashfs,-,0x02010025,1\n"}})
        dev.write_file(at + name, text);
    auto r = run(with + " -o out.velk --info channel=beta --software rootfs:2.1.37:root:ROOTS:/:squashfs --data cfg:k "
                 "--software kernel:2.1.10+g1:k:KNLS::::2 --signature sig:1:s");
    EXPECT_EQ(r.out + dev.read_file(at + "out.velk").substr(260, 7), "out.velk: 396 bytes, 6 content parts\nrootfs!");
    EXPECT_EQ(decode(image()), "24:1/76/27/release 2.1-37 1700000000 b42 {products=a,b\nchannel=beta\n} "
              "128:2/32/57/korm {2,ROOTS,0,/,squashfs,-,2.1.37,1\n4,KNLS,0,-,-,-,2.1.10,2\n} 220:4/40/7/rootfs "
              "0x250102 b42 268:3/32/6/cfg 308:4/40/6/kernel 0xa0102 g1 356:7/36/3/sig 1");  // rootfs: the release's id
    r = run(with + " -o out.velk --korm release.korm --software rootfs:2.1.37:root");
    EXPECT_NE(decode(image()).find(" {" + dev.read_file(at + "release.korm") + "} "), std::string::npos) << r.err;
    const struct { std::string args; const char* message; } rows[] = {
        {"", "Usage: mkvelk"}, {"--bogus", "unknown argument"}, {"--version 1.2.3 --products a" + sw, "missing -o"},
        {"-o x --version 256.0.0", "--version wants"}, {with + " --products a,,b" + sw, "product ''"},
        {with + " --info products=c" + sw, "use --products"}, {with + " --korm empty.korm" + sw, "no install line"},
        {with + " --build-id " + std::string(36, 'b') + sw, "--build-id"}, {with + " --data d:k", "nothing to install"},
        {with + " --software 0123456789abcdefg:1.2.3:k", "name longer than 16 characters"},
        {with + " --software s:1.2.3+" + std::string(28, 'x') + ":k", "header of 68 bytes is over 64"},
        {with + sw + ":P:::-:4", "WTS wants"}, {with + sw + ":P:/a,b", "contains a comma"},
        {with + " --software korm:1.2.3:k", "kept for the KORM"}, {with + sw + eighteen, "too many content parts"},
        {with + " --software s:1.2.3:gone", "gone'"}, {with + " --korm many.korm" + sw, "more than 44 lines"},
        {with + " --korm order.korm" + sw + sw, "content index 2"},
        {with + " --korm release.korm" + sw + ":ROOTS", "not used with --korm"},
    };
    for (const auto& row : rows)  // a refusal leaves no output file
        EXPECT_TRUE((r = run(row.args)).status == 1 && r.err.find(row.message) + 1 && !dev.exists(at + "bad.velk"))
            << r.err;
}
