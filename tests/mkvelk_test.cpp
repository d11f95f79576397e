// Images made by the mkvelk library and tool, judged by an independent
// decoder written from the byte tables and by kor's own validation and parser.
#include <memory>

#include "mkvelk.h"
#include "support/sandbox.h"
#include "velk/velk.h"
#include "velk/velk_stream_parser.h"

using mkvelk::bytes;

static uint32_t rd16(const bytes& b, size_t at) { return b[at] | b[at + 1] << 8; }
static uint32_t rd32(const bytes& b, size_t at) { return rd16(b, at) | rd16(b, at + 2) << 16; }
static std::string str(const bytes& b, size_t at, size_t n) { return std::string(reinterpret_cast<const char*>(&b[at]), n).c_str(); }
template <typename... A>
static std::string fmt(const char* f, A... a) { char b[128]; return std::snprintf(b, sizeof b, f, a...), b; }

// Walks the image by offsets alone; every part must pass kor's checks, every padding byte must be zero and kor's
// stream parser must take the image in one piece. Returns "offset:type/hdr_length/body_length/name" per part, with
// the fields of a release (version-build date id {body}), KORM {body}, software (version word, id) or signature (algorithm).
static std::string decode(bytes img)
{
    if (img.size() < 24) return "short image";
    EXPECT_EQ(velk_validate_identification(img.data()), VELK_OK);
    const auto* h = reinterpret_cast<const velk_header*>(img.data() + 8);
    EXPECT_EQ(std::pair(velk_validate_header(h), velk_validate_body_from_hdr(h)), std::pair(VELK_OK, VELK_OK));
    EXPECT_EQ(str(img, 0, 8) + fmt(" %u %u %zu", img[12], rd16(img, 14), 24 + size_t(rd32(img, 16))), fmt("KLEVVELK 1 16 %zu", img.size()));
    std::string s;
    size_t o = 24, n = 0;
    for (; o + 32 <= img.size(); n++) {
        const uint32_t type = rd16(img, o + 4), hdr = rd16(img, o + 6), body = rd32(img, o + 8);
        const size_t next = o + hdr + ((body + 3) & ~3u);
        const std::string text(img.begin() + long(o + hdr), img.begin() + long(o + hdr + body));
        s += fmt(s.empty() ? "%zu:%u/%u/%u/" : " %zu:%u/%u/%u/", o, type, hdr, body) + str(img, o + 12, 16);
        if (type == 1) s += fmt(" %u.%u-%u %u ", img[o + 32], img[o + 33], rd16(img, o + 34), rd32(img, o + 36)) + str(img, o + 40, 36);
        if (type == 4) s += fmt(" %#x ", rd32(img, o + 32)) + str(img, o + 36, hdr - 36);  // version word: build number high
        if (type == 7) s += fmt(" %u", img[o + 32]);
        if (type <= 2) s += " {" + text.substr(0, body - 1) + "}" + (body && text.back() == '\0' ? "" : "no NUL");
        EXPECT_EQ(velk_validate_content_part_from_hdr(reinterpret_cast<const velk_content_header*>(&img[o])), VELK_OK) << s;
        EXPECT_EQ(hdr % 4, 0u) << s;
        for (size_t i = o + hdr + body; i < next && i < img.size(); ++i) EXPECT_EQ(img[i], 0) << s;
        o = next;
    }
    EXPECT_EQ(o, img.size());
    velk_stream_parser p;
    velk_stream_parser_init(&p, img.data());
    EXPECT_EQ(velk_stream_parser_hdr(&p, 24), 1);
    EXPECT_EQ(velk_stream_parser_next(&p, uint32_t(img.size() - 24)), VELK_SP_COMPLETE);
    EXPECT_EQ(std::pair(velk_stream_parser_get_status(&p), velk_stream_parser_get_valid_content_parts(&p)), std::pair(3, int(n)));
    return s;
}

TEST(MkvelkLibrary, LayoutPaddingAndLimits)
{
    EXPECT_EQ(decode(mkvelk::build_image({mkvelk::release_header(2, 1, 37, 1700000000, "b42", "products=a,b\n"),
                                          mkvelk::korm("2,ROOTS,0,/,squashfs,-,2.1.37,1\n"),
                                          mkvelk::software("rootfs", 2, 1, 0x1234, "g1234567", bytes(5, 0xAB)), mkvelk::data("cfg", {}),
                                          mkvelk::signature("sig", 9, bytes(3, 0xCD))})),
              "24:1/76/14/release 2.1-37 1700000000 b42 {products=a,b\n} 116:2/32/33/korm {2,ROOTS,0,/,squashfs,-,2.1.37,1\n} "
              "184:4/48/5/rootfs 0x12340102 g1234567 240:3/32/0/cfg 272:7/36/3/sig 9");
    std::vector<mkvelk::part> padded;  // bodies of 0, 1, 2, 3, 4, 5 and 8 bytes
    for (size_t n : {0, 1, 2, 3, 4, 5, 8}) padded.push_back(mkvelk::data("d" + std::to_string(n), bytes(n, 0xFF)));
    EXPECT_EQ(decode(mkvelk::build_image(padded)),
              "24:3/32/0/d0 56:3/32/1/d1 92:3/32/2/d2 128:3/32/3/d3 164:3/32/4/d4 200:3/32/5/d5 240:3/32/8/d8");
    for (const auto& [id_len, want] : {std::pair{0, "24:4/40/0/s 0x30201 "}, {3, "24:4/40/0/s 0x30201 xxx"}, {4, "24:4/44/0/s 0x30201 xxxx"},
                                       {27, "24:4/64/0/s 0x30201 xxxxxxxxxxxxxxxxxxxxxxxxxxx"}, {28, "short image"}}) {  // header grows to 64
        const auto sw = mkvelk::software("s", 1, 2, 3, std::string(size_t(id_len), 'x'), {});
        EXPECT_EQ(decode(mkvelk::build_image({sw})), want) << id_len;
        EXPECT_EQ(mkvelk::part_problem(sw) != nullptr, id_len == 28) << id_len;
    }
    const bytes named = mkvelk::build_image({mkvelk::data("0123456789abcdef", {})});  // names fill the field
    EXPECT_EQ(decode(named) + " " + std::to_string(rd32(named, 52)), "24:3/32/0/0123456789abcdef 0");  // the empty body's CRC follows
    mkvelk::part odd = mkvelk::data("x", {});
    odd.header_extra = {1, 2, 3};
    EXPECT_TRUE(mkvelk::build_image({mkvelk::data("0123456789abcdefg", {})}).empty() && mkvelk::build_image({odd}).empty());
}

// The tool runs in the sandbox: its files live in the work directory.
struct MkvelkTool : ::testing::Test {
    std::unique_ptr<sandbox::Device> dev;  // made once the sandbox is known to work
    std::string path(const std::string& name) const { return dev->workdir() + "/" + name; }
    sandbox::RunResult run(std::vector<std::string> a) { return a.insert(a.begin(), MKVELK_BINARY), dev->run(a); }
    std::string image() const { std::string s = dev->read_file(path("out.velk")); return decode(bytes(s.begin(), s.end())); }
    std::vector<std::string> with(std::vector<std::string> a) const  // a release of 2.1.37 for products a and b
    {
        return a.insert(a.begin(), {"-o", path("out.velk"), "--version", "2.1.37", "--date", "1700000000", "--build-id", "b42",
                                    "--products", "a,b"}), a;
    }
    void SetUp() override
    {
        KOR_SANDBOX_OR_SKIP();
        dev = std::make_unique<sandbox::Device>();
        for (const auto& [name, text] : {std::pair{"root.img", "rootfs!"}, {"k.img", "kernel"}, {"s.bin", "sig"}})
            dev->write_file(path(name), text);
    }
};

TEST_F(MkvelkTool, GeneratesTheDescriptorInPartOrderOrTakesAGivenOne)
{
    auto r = run(with({"--info", "channel=beta", "--software", "rootfs:2.1.37:" + path("root.img") + ":ROOTS:/:squashfs", "--data",
                       "cfg:" + path("k.img"), "--software", "kernel:2.1.10+g1:" + path("k.img") + ":KNLS::::2", "--signature",
                       "sig:1:" + path("s.bin")}));
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out + r.err, path("out.velk") + ": 396 bytes, 6 content parts\n");
    EXPECT_EQ(dev->read_file(path("out.velk")).substr(260, 7), "rootfs!");
    EXPECT_EQ(image(), "24:1/76/27/release 2.1-37 1700000000 b42 {products=a,b\nchannel=beta\n} "
                       "128:2/32/57/korm {2,ROOTS,0,/,squashfs,-,2.1.37,1\n4,KNLS,0,-,-,-,2.1.10,2\n} 220:4/40/7/rootfs 0x250102 b42 "
                       "268:3/32/6/cfg 308:4/40/6/kernel 0xa0102 g1 356:7/36/3/sig 1");  // rootfs: the release's build id
    const std::string korm = "# partial release\n-1,APPLS,0,-,-,-,-1.-1.-1,1\n2,ROOTS,0,/,squashfs,-,0x02010025,1\n";
    dev->write_file(path("release.korm"), korm);
    r = run(with({"--korm", path("release.korm"), "--software", "rootfs:2.1.37:" + path("root.img")}));
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(image().find(" {" + korm + "} "), std::string::npos) << image();
    r = run({"--help"});
    EXPECT_EQ(std::to_string(r.status) + r.out.substr(0, 13), "0Usage: mkvelk");
}

TEST_F(MkvelkTool, RefusesWhatKorCouldNotUse)
{
    std::string many;
    for (int i = 0; i < 45; ++i) many += "-1,P,0,-,-,-,1.2.3,1\n";
    for (const auto& [name, text] : {std::pair{"many.korm", many}, {"bad.korm", "2,ROOTS,,/,squashfs,-,1.2.3,1\n"},
                                     {"empty.korm", "# nothing\n"}, {"range.korm", "3,ROOTS,0,/,squashfs,-,1.2.3,1\n"},
                                     {"order.korm", "3,A,0,-,-,-,1.2.3,1\n2,B,0,-,-,-,1.2.3,1\n"}})
        dev->write_file(path(name), text);
    const std::string sw = "s:1.2.3:" + path("k.img"), k = path("k.img");
    std::vector<std::string> nineteen = {"--software", sw};
    for (int i = 0; i < 19; ++i) nineteen.insert(nineteen.end(), {"--data", "d" + std::to_string(i) + ":" + k});
    const auto and_sw = [&](std::vector<std::string> a) { return a.insert(a.end(), {"--software", sw}), with(a); };
    const struct { std::vector<std::string> args; const char* message; } rows[] = {
        {{}, "Usage: mkvelk"}, {{"--bogus"}, "unknown argument"}, {{"-o"}, "missing value"},
        {{"--version", "1.2.3", "--products", "a", "--software", sw}, "missing -o"},
        {{"-o", "x", "--products", "a", "--software", sw}, "missing --version"},
        {{"-o", "x", "--version", "1.2.3", "--software", sw}, "missing --products"}, {{"-o", "x", "--version", "1.2"}, "--version wants"},
        {{"-o", "x", "--version", "256.0.0"}, "--version wants"}, {{"-o", "x", "--version", "1.2.3", "--date", "-5"}, "--date wants"},
        {and_sw({"--products", "0123456789abcdef"}), "product '0123456789abcdef'"}, {and_sw({"--products", "a,,b"}), "product ''"},
        {and_sw({"--build-id", std::string(36, 'b')}), "--build-id"}, {and_sw({"--info", "novalue"}), "KEY=VALUE"},
        {and_sw({"--info", "products=c"}), "use --products"},
        {with({"--software", "0123456789abcdefg:1.2.3:" + k}), "name longer than 16 characters"},
        {with({"--software", "s:1.2.3+" + std::string(28, 'x') + ":" + k}), "header of 68 bytes is over 64"},
        {with({"--software", "s:1.2:" + k}), "VERSION wants"}, {with({"--software", sw + ":P:::-:4"}), "WTS wants"},
        {with({"--software", sw + ":0123456789abcdef"}), "POOL '0123456789abcdef'"},
        {with({"--software", sw + ":P:/a,b"}), "contains a comma"}, {with({"--software", "korm:1.2.3:" + k}), "kept for the KORM"},
        {with({"--software", "s:1.2.3:" + path("missing.img")}), "missing.img'"}, {with({"--data", "d:" + k}), "nothing to install"},
        {with({"--data", "d"}), "--data wants"}, {and_sw({"--signature", "g:256:" + path("s.bin")}), "--signature wants"},
        {with(nineteen), "too many content parts"}, {and_sw({"--korm", path("many.korm")}), "more than 44 lines"},
        {and_sw({"--korm", path("bad.korm")}), "1 line(s) of wrong syntax"},
        {and_sw({"--korm", path("range.korm")}), "KORM line 1: content index 3"},
        {and_sw({"--korm", path("order.korm"), "--software", sw}), "KORM line 2: content index 2"},
        {and_sw({"--korm", path("empty.korm")}), "no install line"},
        {with({"--korm", path("bad.korm"), "--software", sw + ":ROOTS"}), "not used with --korm"},
    };
    for (const auto& row : rows) {
        const auto r = run(row.args);
        EXPECT_TRUE(r.status == 1 && r.err.find(row.message) != std::string::npos) << "wanted: " << row.message << "\ngot: " << r.err;
        EXPECT_FALSE(dev->exists(path("out.velk"))) << row.message;
    }
}
