// Installs by URL against real servers in the sandbox: nginx (http),
// vsftpd (ftp), file:// and a scripted HTTP/1.1 server for faults.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstring>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "mkvelk.h"
#include "support/sandbox.h"
#include "support/servers.h"

namespace {

using sandbox::bytes;
using servers::Scripted;

// Bodies of odd lengths so that the padding behind them matters.
const std::vector<size_t> kBodySizes = {1000003, 1500001, 700002};
const int kParts[] = {11, 13, 14};  // KNLS, ROOTS, APPLS of set 1

bytes random_bytes(size_t n, unsigned seed)
{
    std::mt19937 gen(seed);
    bytes b(n);
    for (auto& x : b) x = static_cast<uint8_t>(gen());
    return b;
}

uint32_t le(const bytes& b, size_t at, int width)
{
    uint32_t v = 0;
    for (int i = width - 1; i >= 0; --i) v = v << 8 | b[at + static_cast<size_t>(i)];
    return v;
}

struct Release {
    bytes image;
    std::vector<bytes> bodies;
    std::vector<uint64_t> part_ends;  // offset behind each content part (padded body)
};

// A release of three software parts for KNLS, ROOTS and APPLS. Part ends are
// read back from the bytes: identification (8), file header, then each
// content part's hdr_length (u16 at +6) and body_length (u32 at +8).
Release make_release()
{
    Release r;
    std::vector<mkvelk::part> parts = {
        mkvelk::release_header(1, 0, 1, 0, "b1", "products=kortest\n"),
        mkvelk::korm("2,KNLS,0,-,-,-,1.0.1,1\n3,ROOTS,0,-,-,-,1.0.1,1\n"
                     "4,APPLS,0,-,-,-,1.0.1,1\n")};
    const char* names[] = {"kernel", "rootfs", "appl"};
    for (size_t i = 0; i < kBodySizes.size(); ++i) {
        r.bodies.push_back(random_bytes(kBodySizes[i], static_cast<unsigned>(i + 1)));
        parts.push_back(mkvelk::software(names[i], 1, 0, 1, "b1", r.bodies.back()));
    }
    r.image = mkvelk::build_image(parts);
    size_t pos = 8 + le(r.image, 8 + 6, 2);
    while (pos < r.image.size()) {
        pos += le(r.image, pos + 6, 2) + ((le(r.image, pos + 8, 4) + 3u) & ~3u);
        r.part_ends.push_back(pos);
    }
    return r;
}

enum class Kind { file, http, ftp, file_url };

const char* kind_name(Kind k)
{
    switch (k) {
    case Kind::file: return "file";
    case Kind::http: return "http";
    case Kind::ftp: return "ftp";
    case Kind::file_url: return "file_url";
    }
    return "?";
}

// One sandboxed device with the default layout and the image served the
// chosen way. Servers are declared after the device so they stop first.
struct World {
    sandbox::Device dev;
    std::string www;
    std::string source;
    std::unique_ptr<servers::Nginx> nginx;
    std::unique_ptr<servers::Vsftpd> ftp;

    World(Kind kind, const bytes& image)
    {
        dev.with_default_layout();
        www = dev.workdir() + "/www";
        mkdir(www.c_str(), 0755);
        std::ofstream(www + "/img.velk", std::ios::binary)
            .write(reinterpret_cast<const char*>(image.data()),
                   static_cast<std::streamsize>(image.size()));
        chmod((www + "/img.velk").c_str(), 0644);
        switch (kind) {
        case Kind::file: source = www + "/img.velk"; break;
        case Kind::file_url: source = "file://" + www + "/img.velk"; break;
        case Kind::http: source = start_nginx()->url("img.velk"); break;
        case Kind::ftp: source = start_ftp()->url("img.velk"); break;
        }
    }
    servers::Nginx* start_nginx()
    {
        std::string dir = dev.workdir() + "/nginx";
        mkdir(dir.c_str(), 0755);
        nginx = std::make_unique<servers::Nginx>(dir, www);
        EXPECT_TRUE(nginx->ok()) << nginx->error();
        return nginx.get();
    }
    servers::Vsftpd* start_ftp()
    {
        std::string dir = dev.workdir() + "/ftp";
        mkdir(dir.c_str(), 0755);
        ftp = std::make_unique<servers::Vsftpd>(dir, www);
        EXPECT_TRUE(ftp->ok()) << ftp->error();
        return ftp.get();
    }
    sandbox::RunResult install(const std::string& src, std::vector<std::string> extra = {})
    {
        std::vector<std::string> args = {"install", src, "1"};
        args.insert(args.end(), extra.begin(), extra.end());
        return dev.kor(args);
    }
    std::vector<bytes> partitions(const Release& r) const
    {
        std::vector<bytes> out;
        for (size_t i = 0; i < r.bodies.size(); ++i)
            out.push_back(dev.read(sandbox::Device::part(kParts[i]), 0, r.bodies[i].size()));
        return out;
    }
};

std::string diag(const sandbox::RunResult& r) { return "stderr:\n" + r.err + "\nout:\n" + r.out; }

size_t count(const std::string& text, const std::string& what)
{
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

// ---- first install ------------------------------------------------------

TEST(TransferTest, FirstInstallWritesTheSameBytesForEverySource)
{
    KOR_SANDBOX_OR_SKIP();
    const Release rel = make_release();
    std::vector<bytes> reference;
    for (Kind kind : {Kind::file, Kind::http, Kind::ftp, Kind::file_url}) {
        SCOPED_TRACE(kind_name(kind));
        World w(kind, rel.image);
        auto r = w.install(w.source);
        ASSERT_EQ(r.status, 0) << diag(r);
        EXPECT_EQ(count(r.err, "SKIP"), 0u);
        std::vector<bytes> got = w.partitions(rel);
        if (kind == Kind::file) {
            EXPECT_EQ(got, rel.bodies);
            reference = got;
        } else {
            EXPECT_EQ(got, reference);
        }
    }
}

// ---- re-install: skipped bodies are not fetched -------------------------

TEST(TransferTest, ReinstallFetchesOnlyUpToEachSkippedBody)
{
    KOR_SANDBOX_OR_SKIP();
    const Release rel = make_release();
    const auto& ends = rel.part_ends;  // release header, korm, kernel, rootfs, appl
    ASSERT_EQ(ends.size(), 5u);
    for (Kind kind : {Kind::http, Kind::ftp, Kind::file_url}) {
        SCOPED_TRACE(kind_name(kind));
        World w(kind, rel.image);
        ASSERT_EQ(w.install(w.source).status, 0);
        size_t first_requests = w.nginx ? w.nginx->log(1).size() : 0;
        size_t first_downloads = w.ftp ? w.ftp->downloads(1).size() : 0;

        auto r = w.install(w.source);
        ASSERT_EQ(r.status, 0) << diag(r);
        for (int e = 0; e < 3; ++e)
            EXPECT_EQ(count(r.err, "  " + std::to_string(e) + " should not be downloaded, SKIP\n"),
                      1u);
        EXPECT_EQ(count(r.out, "Writing out"), 0u);
        EXPECT_EQ(w.partitions(rel), rel.bodies);

        if (w.nginx) {
            auto log = w.nginx->log(first_requests + 4);
            ASSERT_EQ(log.size(), first_requests + 4);
            std::vector<std::string> ranges;
            uint64_t sent = 0;
            for (size_t i = first_requests; i < log.size(); ++i) {
                ranges.push_back(log[i].range);
                sent += log[i].bytes;
            }
            EXPECT_EQ(ranges, (std::vector<std::string>{
                                  "bytes=0-", "bytes=" + std::to_string(ends[2]) + "-",
                                  "bytes=" + std::to_string(ends[3]) + "-",
                                  "bytes=" + std::to_string(ends[4]) + "-"}));
            // What nginx handed to the kernel: the wanted bytes plus what was
            // in flight when kor closed each connection (nginx sndbuf 64k).
            EXPECT_LT(sent, rel.image.size() / 2) << "skipped bodies were sent";
        }
        // libcurl sees from SIZE that nothing is left behind the last body
        // and fetches nothing for the last resume.
        if (w.ftp) {
            EXPECT_EQ(w.ftp->downloads(first_downloads + 3).size(), first_downloads + 3);
            EXPECT_EQ(w.ftp->rests(), (std::vector<uint64_t>{ends[2], ends[3]}));
        }
    }
}

// ---- servers and options that turn ranges off -----------------------------

TEST(TransferTest, WithoutRangesTheWholeImageIsFetchedOnce)
{
    KOR_SANDBOX_OR_SKIP();
    const Release rel = make_release();
    struct Case {
        const char* name;
        bool ignore_range;  // scripted server that never answers with 206
        bool rewrite;
        std::string first_range;
        size_t written;  // "Writing out" lines of the re-install
    };
    const Case cases[] = {
        {"server ignores Range", true, false, "bytes=0-", 0},
        {"-rewrite asks for no range", false, true, "", 3},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        World w(Kind::file, rel.image);
        ASSERT_EQ(w.install(w.source).status, 0);
        Scripted server(c.ignore_range ? Scripted::Fault::ignore_range : Scripted::Fault::none,
                        rel.image);
        std::vector<std::string> extra;
        if (c.rewrite) extra.push_back("-rewrite");
        auto r = w.install(server.url("img.velk"), extra);
        ASSERT_EQ(r.status, 0) << diag(r);
        EXPECT_EQ(count(r.err, "SKIP"), 0u);
        EXPECT_EQ(count(r.out, "Writing out"), c.written);
        EXPECT_EQ(server.ranges(), std::vector<std::string>{c.first_range});
        EXPECT_EQ(w.partitions(rel), rel.bodies);
    }
}

// ---- transfers that fail ------------------------------------------------

TEST(TransferTest, FailedTransfersWriteNothing)
{
    KOR_SANDBOX_OR_SKIP();
    const Release rel = make_release();
    const std::string size = std::to_string(rel.image.size());
    struct Case {
        const char* name;
        Scripted::Fault fault;
        std::string path;
        std::vector<std::string> extra;
        int status;
        std::string message;
    };
    const Case cases[] = {
        {"connection dropped in the body", Scripted::Fault::drop_mid_body, "img.velk", {}, 16,
         "curl returned: 18 == "},
        {"response header over 999 bytes", Scripted::Fault::long_header, "img.velk", {}, 16,
         "curl returned: 23 == "},
        {"image of exactly -velksize bytes", Scripted::Fault::none, "img.velk",
         {"-velksize=" + size}, 16, "Too much data received. Try increasing -velksize\n"},
        {"404 from nginx", Scripted::Fault::none, "missing.velk", {}, 16, "curl returned: 23 == "},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        World w(Kind::file, rel.image);
        bytes hostconfig_before = w.dev.read(sandbox::Device::part(3), 0, 5120);
        Scripted server(c.fault, rel.image);
        std::string url = server.url(c.path);
        if (c.path == "missing.velk") url = w.start_nginx()->url(c.path);
        auto r = w.install(url, c.extra);
        EXPECT_EQ(r.status, c.status) << diag(r);
        EXPECT_NE(r.err.find(c.message), std::string::npos) << diag(r);
        EXPECT_EQ(count(r.out, "Writing out"), 0u);
        for (int p : kParts)
            EXPECT_EQ(w.dev.read(sandbox::Device::part(p), 0, 4096), bytes(4096, 0)) << p;
        EXPECT_EQ(w.dev.read(sandbox::Device::part(3), 0, 5120), hostconfig_before);
    }
}

TEST(TransferTest, ImageOneByteBelowVelksizeIsAccepted)
{
    KOR_SANDBOX_OR_SKIP();
    const Release rel = make_release();
    World w(Kind::http, rel.image);
    auto r = w.install(w.source, {"-velksize=" + std::to_string(rel.image.size() + 1)});
    ASSERT_EQ(r.status, 0) << diag(r);
    EXPECT_EQ(w.partitions(rel), rel.bodies);
}

// ---- socket options ------------------------------------------------------

#ifdef KOR_PLUGIN_tos_plugin
TEST(TransferTest, IptosReachesTheSocket)
{
    KOR_SANDBOX_OR_SKIP();
    const Release rel = make_release();
    struct Case {
        std::vector<std::string> extra;
        std::string tos;
    };
    const Case cases[] = {{{}, "0"}, {{"-iptos=0x28"}, "40"}, {{"-iptos=184"}, "184"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.tos);
        World w(Kind::http, rel.image);
        std::string out = w.dev.workdir() + "/tos.txt";
        std::vector<std::string> args = {"install", w.source, "1",
                                         "-plugin=" + w.dev.stage(KOR_PLUGIN_tos_plugin)};
        args.insert(args.end(), c.extra.begin(), c.extra.end());
        sandbox::RunOptions o;
        o.env["KOR_TEST_TOS_FILE"] = out;
        auto r = w.dev.kor(args, o);
        ASSERT_EQ(r.status, 0) << diag(r);
        EXPECT_EQ(w.dev.read_file(out), c.tos);
    }
}
#endif

}  // namespace
