// Images made by the mkvelk library and tool, judged by a decoder written from the byte tables and by kor's validation.
#include "mkvelk.h"
#include "support/sandbox.h"
#include "velk/velk.h"

using mkvelk::bytes;

static uint32_t rd16(const bytes& b, size_t at) { return b[at] | b[at + 1] << 8; }
static uint32_t rd32(const bytes& b, size_t at) { return rd16(b, at) | rd16(b, at + 2) << 16; }
static std::string str(const bytes& b, size_t at, size_t n) { return std::string(reinterpret_cast<const char*>(&b[at]), n).c_str(); }
template <typename... A>
static std::string fmt(const char* f, A... a) { char b[128]; return std::snprintf(b, sizeof b, f, a...), b; }

// Walks the image by offsets alone (parts pass kor's checks, padding is zero): "offset:type/hdr/body/name fields" per part.
static std::string decode(bytes img)
{
    if (img.size() < 24) return "short image";
    const auto* h = reinterpret_cast<const velk_header*>(img.data() + 8);
    EXPECT_EQ(std::tuple(velk_validate_identification(img.data()), velk_validate_header(h), velk_validate_body_from_hdr(h)),
              std::tuple(VELK_OK, VELK_OK, VELK_OK));
    EXPECT_EQ(str(img, 0, 8) + fmt(" %u %u %zu", img[12], rd16(img, 14), 24 + size_t(rd32(img, 16))), fmt("KLEVVELK 1 16 %zu", img.size()));
    std::string s;
    size_t o = 24;
    while (o + 32 <= img.size()) {
        const uint32_t type = rd16(img, o + 4), hdr = rd16(img, o + 6), body = rd32(img, o + 8);
        s += fmt(s.empty() ? "%zu:%u/%u/%u/" : " %zu:%u/%u/%u/", o, type, hdr, body) + str(img, o + 12, 16);
        if (type == 1) s += fmt(" %u.%u-%u %u ", img[o + 32], img[o + 33], rd16(img, o + 34), rd32(img, o + 36)) + str(img, o + 40, 36);
        if (type == 4) s += fmt(" %#x ", rd32(img, o + 32)) + str(img, o + 36, hdr - 36);  // version word: build number high
        if (type == 7) s += fmt(" %u", img[o + 32]);
        if (type <= 2) s += " {" + str(img, o + hdr, body - 1) + "}" + (body && !img[o + hdr + body - 1] ? "" : "no NUL");
        EXPECT_EQ(velk_validate_content_part_from_hdr(reinterpret_cast<const velk_content_header*>(&img[o])), VELK_OK) << s;
        EXPECT_EQ(hdr % 4, 0u) << s;
        for (o += hdr + body; o % 4 && o < img.size(); ++o) EXPECT_EQ(img[o], 0) << s;
    }
    EXPECT_EQ(o, img.size());
    return s;
}

TEST(MkvelkLibrary, LayoutPaddingAndLimits)
{
    EXPECT_EQ(decode(mkvelk::build_image({mkvelk::release_header(2, 1, 37, 1700000000, "b42", "products=a,b\n"),
        mkvelk::korm("2,ROOTS,0,/,squashfs,-,2.1.37,1\n"), mkvelk::software("rootfs", 2, 1, 0x1234, "g1234567", bytes(5, 0xAB)),
        mkvelk::data("0123456789abcdef", {}), mkvelk::signature("sig", 9, bytes(3, 0xCD))})),  // padding of 2, 3, 3, 0 and 1
        "24:1/76/14/release 2.1-37 1700000000 b42 {products=a,b\n} 116:2/32/33/korm {2,ROOTS,0,/,squashfs,-,2.1.37,1\n} "
        "184:4/48/5/rootfs 0x12340102 g1234567 240:3/32/0/0123456789abcdef 272:7/36/3/sig 9");
    for (const auto& [id_len, want] : {std::pair{3, "24:4/40/0/s 0x30201 xxx"}, {4, "24:4/44/0/s 0x30201 xxxx"},
                                       {27, "24:4/64/0/s 0x30201 xxxxxxxxxxxxxxxxxxxxxxxxxxx"}, {28, "short image refused"}}) {  // header up to 64
        const auto sw = mkvelk::software("s", 1, 2, 3, std::string(size_t(id_len), 'x'), {});
        EXPECT_EQ(decode(mkvelk::build_image({sw})) + (mkvelk::part_problem(sw) ? " refused" : ""), want);
    }
    EXPECT_TRUE(mkvelk::build_image({mkvelk::part{3, "x", {1, 2, 3}, {}}}).empty());  // header not a multiple of 4
}

TEST(MkvelkTool, GeneratesOrRefuses)
{
    KOR_SANDBOX_OR_SKIP();
    sandbox::Device dev;  // the tool's files live in its work directory
    const auto path = [&](const std::string& name) { return dev.workdir() + "/" + name; };
    const auto run = [&](std::vector<std::string> a) { return a.insert(a.begin(), MKVELK_BINARY), dev.run(a); };
    const auto with = [&](std::vector<std::string> a, const std::string& out = "out.velk") {  // 2.1.37 for products a, b
        return a.insert(a.begin(), {"-o", path(out), "--version", "2.1.37", "--date", "1700000000", "--build-id", "b42",
                                    "--products", "a,b"}), a; };
    const auto image = [&] { std::string s = dev.read_file(path("out.velk")); return decode(bytes(s.begin(), s.end())); };
    const std::string korm = "# partial release\n-1,APPLS,0,-,-,-,-1.-1.-1,1\n2,ROOTS,0,/,squashfs,-,0x02010025,1\n", k = path("k.img");
    for (const auto& [name, text] : {std::pair{"root.img", std::string("rootfs!")}, {"k.img", "kernel"}, {"s.bin", "sig"},
             {"release.korm", korm},
             {"many.korm", [] { std::string m; for (int i = 0; i < 45; ++i) m += "-1,P,0,-,-,-,1.2.3,1\n"; return m; }()}, {"bad.korm", "2,ROOTS,,/,squashfs,-,1.2.3,1\n"}, {"empty.korm", "# nothing\n"},
             {"order.korm", "3,A,0,-,-,-,1.2.3,1\n2,B,0,-,-,-,1.2.3,1\n"}})
        dev.write_file(path(name), text);
    auto r = run(with({"--info", "channel=beta", "--software", "rootfs:2.1.37:" + path("root.img") + ":ROOTS:/:squashfs", "--data",
                       "cfg:" + k, "--software", "kernel:2.1.10+g1:" + k + ":KNLS::::2", "--signature", "sig:1:" + path("s.bin")}));
    EXPECT_EQ(std::to_string(r.status) + " " + r.out + r.err, "0 " + path("out.velk") + ": 396 bytes, 6 content parts\n");
    EXPECT_EQ(dev.read_file(path("out.velk")).substr(260, 7), "rootfs!");
    EXPECT_EQ(image(), "24:1/76/27/release 2.1-37 1700000000 b42 {products=a,b\nchannel=beta\n} "
                       "128:2/32/57/korm {2,ROOTS,0,/,squashfs,-,2.1.37,1\n4,KNLS,0,-,-,-,2.1.10,2\n} 220:4/40/7/rootfs 0x250102 b42 "
                       "268:3/32/6/cfg 308:4/40/6/kernel 0xa0102 g1 356:7/36/3/sig 1");  // rootfs: the release's build id
    r = run(with({"--korm", path("release.korm"), "--software", "rootfs:2.1.37:" + path("root.img")}));
    EXPECT_NE(image().find(" {" + korm + "} "), std::string::npos) << r.err << image();
    const std::string sw = "s:1.2.3:" + k;
    std::vector<std::string> nineteen = {"--software", sw};
    for (int i = 0; i < 19; ++i) nineteen.insert(nineteen.end(), {"--data", "d" + std::to_string(i) + ":" + k});
    const auto bad = [&](std::vector<std::string> a) { return with(a, "bad.velk"); };
    const auto and_sw = [&](std::vector<std::string> a) { return a.insert(a.end(), {"--software", sw}), bad(a); };
    const struct { std::vector<std::string> args; const char* message; } rows[] = {
        {{}, "Usage: mkvelk"}, {{"--bogus"}, "unknown argument"}, {{"-o"}, "missing value"},
        {{"--version", "1.2.3", "--products", "a", "--software", sw}, "missing -o"}, {{"-o", "x", "--version", "256.0.0"}, "--version wants"},
        {{"-o", "x", "--version", "1.2.3", "--date", "-5"}, "--date wants"}, {and_sw({"--products", "a,,b"}), "product ''"},
        {and_sw({"--products", "0123456789abcdef"}), "product '0123456789abcdef'"}, {and_sw({"--info", "novalue"}), "KEY=VALUE"},
        {and_sw({"--build-id", std::string(36, 'b')}), "--build-id"}, {and_sw({"--info", "products=c"}), "use --products"},
        {bad({"--software", "0123456789abcdefg:1.2.3:" + k}), "name longer than 16 characters"},
        {bad({"--software", "s:1.2.3+" + std::string(28, 'x') + ":" + k}), "header of 68 bytes is over 64"},
        {bad({"--software", "s:1.2:" + k}), "VERSION wants"}, {bad({"--software", sw + ":P:::-:4"}), "WTS wants"},
        {bad({"--data", "d:" + k}), "nothing to install"},
        {bad({"--software", sw + ":P:/a,b"}), "contains a comma"}, {bad({"--software", "korm:1.2.3:" + k}), "kept for the KORM"},
        {bad({"--software", "s:1.2.3:" + path("missing.img")}), "missing.img'"}, {bad(nineteen), "too many content parts"},
        {and_sw({"--signature", "g:256:" + path("s.bin")}), "--signature wants"}, {and_sw({"--korm", path("empty.korm")}), "no install line"},
        {and_sw({"--korm", path("many.korm")}), "more than 44 lines"}, {and_sw({"--korm", path("bad.korm")}), "1 line(s) of wrong syntax"},
        {and_sw({"--korm", path("order.korm"), "--software", sw}), "KORM line 2: content index 2"},
        {bad({"--korm", path("bad.korm"), "--software", sw + ":ROOTS"}), "not used with --korm"},
    };
    for (const auto& row : rows)  // a refusal leaves no output file
        EXPECT_TRUE((r = run(row.args)).status == 1 && r.err.find(row.message) + 1 && !dev.exists(path("bad.velk")))
            << row.message << ": " << r.err;
}
