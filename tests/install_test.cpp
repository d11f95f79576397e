// The install action through the command line, on a sandboxed device:
// exit statuses and messages, the bytes each write type leaves on the
// partition, the recorded metadata, write failures and the hooks.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "mkvelk.h"
#include "support/sandbox.h"

using sandbox::bytes;
using sandbox::Device;
using sandbox::RunResult;

namespace {

const std::string kKorm = "2,KNLS,0,-,-,-,1.0.1,1\n3,ROOTS,0,-,-,-,1.0.1,1\n";

bytes pattern(size_t n, uint8_t seed)
{
    bytes b(n);
    for (size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>(seed + i * 7);
    return b;
}

// Release header, "korm", kernel (1001 bytes, not a multiple of 4), root.
std::vector<mkvelk::part> parts(const std::string& korm, bool kernel_as_data = false)
{
    bytes kernel = pattern(1001, 1);
    return {mkvelk::release_header(1, 0, 1, 0, "b1", "products=dev1\n"), mkvelk::korm(korm),
            kernel_as_data ? mkvelk::data("kernel", kernel)
                           : mkvelk::software("kernel", 1, 0, 1, "k1", kernel),
            mkvelk::software("root", 1, 0, 1, "r1", pattern(3001, 2))};
}

std::string put(Device& d, const bytes& img, const std::string& name = "img.velk")
{
    std::string path = d.workdir() + "/" + name;
    d.write_file(path, std::string(img.begin(), img.end()));
    return path;
}

// The "KOR data" body of the hostconfig on p3, found by walking the VELK
// layout (identification, 16-byte file header, content parts).
bytes kor_data(const Device& d)
{
    bytes img = d.read(Device::part(3), 0, 5120);
    auto u16 = [&](size_t o) { return uint32_t(img[o] | img[o + 1] << 8); };
    auto u32 = [&](size_t o) { return u16(o) | u16(o + 2) << 16; };
    size_t end = 8 + u16(14) + u32(16);
    for (size_t pos = 8 + u16(14); pos + 32 <= end && end <= img.size();) {
        size_t body = pos + u16(pos + 6);
        if (std::strncmp(reinterpret_cast<const char*>(&img[pos + 12]), "KOR data", 16) == 0)
            return bytes(img.begin() + body, img.begin() + body + 3240);
        pos = body + ((u32(pos + 8) + 3) & ~3u);
    }
    return {};
}
int actset(const bytes& kd) { return kd.empty() ? -1 : kd[0]; }
int ref(const bytes& kd, int set, int i) { return int8_t(kd[1 + 38 * set + 16 + i]); }
uint32_t meta_crc(const bytes& kd, int p)
{
    const uint8_t* m = &kd[1832 + 64 * p + 28];
    return m[0] | m[1] << 8 | m[2] << 16 | uint32_t(m[3]) << 24;
}

// The kernel part's bytes in the image: its header and its body.
void kernel_bytes(const bytes& img, bytes* header, bytes* body)
{
    size_t pos = 24;
    for (int k = 0; k < 3; ++k) {
        size_t hl = img[pos + 6] | img[pos + 7] << 8;
        size_t bl = img[pos + 8] | img[pos + 9] << 8 | img[pos + 10] << 16;
        if (k == 2) {
            *header = bytes(img.begin() + pos, img.begin() + pos + hl);
            *body = bytes(img.begin() + pos + hl, img.begin() + pos + hl + bl);
        }
        pos += hl + ((bl + 3) & ~size_t{3});
    }
}

struct StatusRow {
    const char* name;
    std::vector<std::string> args;  // after "install IMG"
    std::string korm;
    int image;  // 0 normal, 1 kernel as a data part, 2 truncated, 3 empty, 4 missing
    int status;
    const char* message;  // a line expected on stderr
    int actset = 1;       // recorded afterwards; -1: hostconfig not saved
};

const StatusRow status_rows[] = {
    {"installs", {"1"}, kKorm, 0, 0, "install: release 1.0-1, 'products=dev1\n"},
    {"missing set idx", {}, kKorm, 0, 1, "install: missing set idx?\n"},
    {"set idx 3", {"3"}, kKorm, 0, 1, "install: invalid set idx?\n"},
    {"set idx -2", {"-2"}, kKorm, 0, 1, "install: invalid set idx?\n"},
    {"set idx 0x2", {"0x2"}, kKorm, 0, 0, "into set idx = 2\n", 2},
    {"no file", {"1"}, kKorm, 4, 8, "install: could not open VELK\n"},
    {"empty file", {"1"}, kKorm, 3, 9, "install: empty VELK\n"},
    {"file too big", {"1", "-velksize=1000"}, kKorm, 0, 9, "install: VELK too big\n"},
    {"truncated", {"1"}, kKorm, 2, 9, "install: incomplete VELK\n"},
    {"singleton without -f", {"1"}, "2,SAFEKNLS,0,-,-,-,1.0.1,1\n", 0, 9,
     "install: Can't install into singleton partitions without -f\n"},
    {"singleton with -f", {"1", "-f"}, "2,SAFEKNLS,0,-,-,-,1.0.1,1\n", 0, 0, ""},
    {"no such pool", {"1"}, "2,NOPOOL,0,-,-,-,1.0.1,1\n", 0, 9,
     "install: korl_meta_install_part1 failed: -4\n"},
    {"missing dependency", {"1"}, "-1,KNLS,0,-,-,-,1.0.1,1\n", 0, 9,
     "install: korl_meta_install_part1 failed: -2\n"},
    {"no element", {"1"}, "# nothing\n", 0, 9, "install: korl_parse_kormd failed: 0\n"},
    {"undecided element", {"1"}, "2,KNLS,0,-,-,-,1.-2.0,1\n", 1, 2,
     "install: partinfo korm match\n"},
    {"product mismatch", {"1", "-product=other"}, kKorm, 0, 6,
     "install: Release header does not contain model 'other'\n"},
    {"product mismatch with -f", {"1", "-product=other", "-f"}, kKorm, 0, 0, ""},
    {"product matches", {"1", "-product=dev1"}, kKorm, 0, 0, ""},
    {"minver above", {"1", "-minver=1.0.2", "-f"}, kKorm, 0, 7,
     "install: Version in release header lower than 1.0-2\n"},
    {"minver equal", {"1", "-minver=1.0.1"}, kKorm, 0, 0, ""},
};

TEST(Install, StatusesAndMessages)
{
    KOR_SANDBOX_OR_SKIP();
    for (const StatusRow& row : status_rows) {
        SCOPED_TRACE(row.name);
        Device d;
        d.with_default_layout();
        bytes img = mkvelk::build_image(parts(row.korm, row.image == 1));
        if (row.image == 2) img.resize(img.size() - 4);
        if (row.image == 3) img.clear();
        std::string path = row.image == 4 ? d.workdir() + "/none" : put(d, img);
        std::vector<std::string> args{"install", path};
        args.insert(args.end(), row.args.begin(), row.args.end());
        RunResult r = d.kor(args);
        EXPECT_EQ(r.status, row.status) << r.err;
        EXPECT_NE(r.err.find(row.message), std::string::npos) << r.err;
        EXPECT_EQ(actset(kor_data(d)), row.status == 0 ? row.actset : -1);
    }
}

TEST(Install, WriteTypesLayOutThePartition)
{
    KOR_SANDBOX_OR_SKIP();
    for (int wts = 1; wts <= 3; ++wts) {
        SCOPED_TRACE(wts);
        Device d;
        d.with_default_layout();
        std::string korm = "2,KNLS,0,-,-,-,1.0.1," + std::to_string(wts) + "\n";
        bytes img = mkvelk::build_image(parts(korm));
        RunResult r = d.kor({"install", put(d, img), "1"});
        ASSERT_EQ(r.status, 0) << r.err;
        bytes header, body;
        kernel_bytes(img, &header, &body);
        bytes expect = wts == 2 ? header : body;
        const bytes& second = wts == 2 ? body : header;
        if (wts == 3) expect.resize((body.size() + 3) & ~size_t{3}, 0);
        if (wts != 1) expect.insert(expect.end(), second.begin(), second.end());
        expect.push_back(0);  // nothing written behind
        EXPECT_EQ(d.read(Device::part(11), 0, expect.size()), expect);
        bytes kd = kor_data(d);
        EXPECT_EQ(ref(kd, 1, 0), 11);
        EXPECT_EQ(ref(kd, 1, 1), -1);
        EXPECT_NE(meta_crc(kd, 11), 0u);
    }
}

}  // namespace
