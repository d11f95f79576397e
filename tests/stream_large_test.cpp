// Streaming installs of images larger than memory should hold: 1 GiB by file and by URL against an install that
// holds the image, and parts that lie beyond 2 and 4 GiB in the image. The images are sparse files (zeros but for a
// few marks), so that they take no memory on the sandbox's tmpfs; only what is written to a partition does.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <map>
#include <memory>

#include "mkvelk.h"
#include "support/servers.h"

using sandbox::bytes, sandbox::Device;
using Args = std::vector<std::string>;

namespace {

void put32(uint8_t* p, uint32_t v) { for (int i = 0; i < 4; ++i) p[i] = uint8_t(v >> 8 * i); }
uint32_t get32(const uint8_t* p) { return p[0] | p[1] << 8 | p[2] << 16 | uint32_t(p[3]) << 24; }

// A body of `size` bytes that reads as zero but for `marks`.
struct Sparse {
    uint64_t size;
    std::map<uint64_t, bytes> marks;
    uint32_t crc() const
    {
        uLong c = crc32(0, nullptr, 0);
        const bytes zero(1 << 20, 0);
        uint64_t at = 0;
        for (const auto& [off, b] : marks) {
            for (; at < off; at += std::min<uint64_t>(zero.size(), off - at))
                c = crc32(c, zero.data(), uInt(std::min<uint64_t>(zero.size(), off - at)));
            c = crc32(c, b.data(), uInt(b.size())), at += b.size();
        }
        for (; at < size; at += std::min<uint64_t>(zero.size(), size - at))
            c = crc32(c, zero.data(), uInt(std::min<uint64_t>(zero.size(), size - at)));
        return uint32_t(c);
    }
};

Sparse marked(uint64_t size)  // a 4 KiB mark every 128 MiB and at the very end
{
    Sparse s{size, {}};
    for (uint64_t at = 0; at + 4096 <= size; at += 128 << 20) {
        bytes b(4096);
        for (size_t i = 0; i < b.size(); ++i) b[i] = uint8_t(at >> 20) ^ uint8_t(i * 13 + 1);
        s.marks[at] = b;
    }
    s.marks[size - 8] = bytes{1, 2, 3, 4, 5, 6, 7, 8};
    return s;
}

// Writes mkvelk's image of `parts` to `path`, with the body of part `big` (built empty) replaced by `body`,
// which is left as a hole but for its marks, and the file header `file_header` bytes long. When `crc` is false
// the big body's CRC is not computed: the image is for installs that never read that body. The file header's own
// CRCs are not kept: no install reads them.
void write_image(const std::string& path, std::vector<mkvelk::part> parts, size_t big, const Sparse& body,
                 uint16_t file_header = 16, bool crc = true)
{
    bytes img = mkvelk::build_image(parts);
    ASSERT_FALSE(img.empty());
    size_t at = 24;
    for (size_t k = 0; k < big; ++k) at += (img[at + 6] | img[at + 7] << 8) + ((get32(&img[at + 8]) + 3) & ~3u);
    const size_t hdr = img[at + 6] | img[at + 7] << 8;
    ASSERT_EQ(get32(&img[at + 8]), 0u);
    put32(&img[at + 8], uint32_t(body.size));
    put32(&img[at + 28], crc ? body.crc() : 0);
    put32(&img[at], uint32_t(::crc32(0, &img[at + 4], uInt(hdr - 4))));
    const uint64_t padded = (body.size + 3) & ~uint64_t{3};
    put32(&img[16], uint32_t(get32(&img[16]) + padded));
    img[14] = uint8_t(file_header), img[15] = uint8_t(file_header >> 8);
    img.insert(img.begin() + 24, file_header - 16u, 0);
    const size_t split = at + hdr + file_header - 16;
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(pwrite(fd, img.data(), split, 0), ssize_t(split));
    for (const auto& [off, b] : body.marks) ASSERT_EQ(pwrite(fd, b.data(), b.size(), off_t(split + off)), ssize_t(b.size()));
    ASSERT_EQ(pwrite(fd, img.data() + split, img.size() - split, off_t(split + padded)), ssize_t(img.size() - split));
    close(fd);
}

uint32_t crc_of(const Device& d, int part, uint64_t length)
{
    uLong c = crc32(0, nullptr, 0);
    for (uint64_t at = 0; at < length; at += 16 << 20) {
        const bytes b = d.read(Device::part(part), at, std::min<uint64_t>(16 << 20, length - at));
        c = crc32(c, b.data(), uInt(b.size()));
    }
    return uint32_t(c);
}

// The hostconfig copies with the flags area, and the CRC of what the partitions hold.
struct Outcome {
    int status;
    bytes hostconfig;
    uint32_t root, kernel;
    bool operator==(const Outcome& o) const
    {
        return status == o.status && hostconfig == o.hostconfig && root == o.root && kernel == o.kernel;
    }
};

TEST(StreamLarge, OneGiBByFileAndByURLAsAnInstallHoldingTheImage)
{
    KOR_SANDBOX_OR_SKIP();
    if (std::getenv("KOR_TEST_EMULATOR")) GTEST_SKIP() << "a GiB through the CRC several times, too slow under emulation";
    constexpr uint64_t kSize = uint64_t{1} << 30;
    static const servers::Release unused({64});
    servers::World w(unused);
    Device& d = w.dev;
    d.add_partition(13, kSize + (1 << 20));
    const bytes kernel(5001, 0x5A);
    const Sparse root = marked(kSize);
    write_image(w.file, {mkvelk::release_header(1, 0, 1, 0, "b1", "products=dev1\n"),
                         mkvelk::korm("2,KNLS,0,-,-,-,1.0.1,1\n3,ROOTS,0,-,-,-,1.0.1,1\n"),
                         mkvelk::software("kernel", 1, 0, 1, "k", kernel), mkvelk::software("root", 1, 0, 1, "r", {})},
                3, root);
    const bytes empty = d.read(Device::part(3), 0, sandbox::kHostconfigPartSize);
    struct stat st{};
    ASSERT_EQ(stat(w.file.c_str(), &st), 0);
    servers::Daemon nginx(w, "http");
    ASSERT_TRUE(nginx.pid) << nginx.error;
    const struct { const char* name; Args args; } runs[] = {
        {"held whole", {w.file, "1", "-velksize=" + std::to_string(st.st_size)}},
        {"file, -stream", {w.file, "1", "-stream"}},
        {"URL, -stream", {nginx.url("img.velk"), "1", "-stream"}},
    };
    std::vector<Outcome> seen;
    for (const auto& run : runs) {
        SCOPED_TRACE(run.name);
        d.write(Device::part(3), 0, empty), d.write(Device::part(4), 0, empty);  // nothing installed
        for (const auto& [off, b] : root.marks) d.write(Device::part(13), off, bytes(b.size(), 0));
        Args args{"install"};
        args.insert(args.end(), run.args.begin(), run.args.end());
        const sandbox::RunResult r = d.kor(args);
        EXPECT_NE(r.out.find("Writing out 1073741824 bytes of data to /dev/mmcblk0p13\n"), std::string::npos) << r.err;
        bytes hostconfig = d.read(Device::part(3), 0, sandbox::kHostconfigPartSize), backup = d.read(Device::part(4), 0, 8192);
        hostconfig.insert(hostconfig.end(), backup.begin(), backup.end());
        seen.push_back({r.status, hostconfig, crc_of(d, 13, kSize), crc_of(d, 11, kernel.size())});
        EXPECT_EQ(seen.back().status, 0) << r.err;
        EXPECT_EQ(seen.back().root, root.crc());
        EXPECT_TRUE(seen.back() == seen.front());
    }
}

// Parts found behind a body of nearly 4 GiB: the file's second reading seeks there, the URL's asks for a range that
// starts beyond 4 GiB. The big body is never read: its KORM line names a version already installed nowhere, but it is
// on another platform.
TEST(StreamLarge, PartsBeyondFourGiBInTheImage)
{
    KOR_SANDBOX_OR_SKIP();
    constexpr uint64_t kBig = 0xFFFF0000;
    static const servers::Release unused({64});
    servers::World w(unused);
    Device& d = w.dev;
    const bytes kernel(3001, 0xA5);
    write_image(w.file, {mkvelk::release_header(1, 0, 1, 0, "b1", "products=dev1\n"),
                         mkvelk::korm("2,ROOTS,0,-,-,other,1.0.1,1\n3,KNLS,0,-,-,-,1.0.1,1\n"),
                         mkvelk::software("root", 1, 0, 1, "r", {}), mkvelk::software("kernel", 1, 0, 1, "k", kernel)},
                2, Sparse{kBig, {}}, 0xFFFC, false);
    struct stat st{};
    ASSERT_EQ(stat(w.file.c_str(), &st), 0);
    ASSERT_GT(uint64_t(st.st_size), uint64_t{1} << 32);
    servers::Daemon nginx(w, "http");
    ASSERT_TRUE(nginx.pid) << nginx.error;
    for (const std::string& source : {w.file, nginx.url("img.velk")}) {
        SCOPED_TRACE(source);
        const sandbox::RunResult r = d.kor({"install", source, "1", "-stream", "-platform=dev"});
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(d.read(Device::part(11), 0, kernel.size()), kernel);
        d.write(Device::part(11), 0, bytes(kernel.size(), 0));
        d.write(Device::part(3), 0, bytes(8192, 0)), d.write(Device::part(4), 0, bytes(8192, 0));
    }
    uint64_t furthest = 0;  // the second reading asks for the kernel behind the big body
    for (const auto& request : nginx.log(2))
        if (request.range.rfind("bytes=", 0) == 0) furthest = std::max<uint64_t>(furthest, std::stoull(request.range.substr(6)));
    EXPECT_GT(furthest, uint64_t{1} << 32);
}

}  // namespace
