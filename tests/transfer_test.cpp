// Installs by URL against real servers in the sandbox: nginx (http), vsftpd
// (ftp), file:// and a scripted HTTP server for faults.
#include <gtest/gtest.h>

#include <memory>
#include <random>

#include "mkvelk.h"
#include "support/sandbox.h"
#include "support/servers.h"

namespace {

using sandbox::bytes;
using sandbox::Device;
using strings = std::vector<std::string>;

// Bodies of odd lengths, so that the padding behind them matters.
struct Release {
    bytes image;
    std::vector<bytes> bodies;
    std::vector<uint64_t> ends;  // offset behind each body (padded)
    Release()
    {
        std::vector<mkvelk::part> parts = {
            mkvelk::release_header(1, 0, 1, 0, "b1", "products=kortest\n"),
            mkvelk::korm("2,KNLS,0,-,-,-,1.0.1,1\n3,ROOTS,0,-,-,-,1.0.1,1\n"
                         "4,APPLS,0,-,-,-,1.0.1,1\n")};
        std::mt19937 gen(1);
        for (size_t size : {1000003, 1500001, 700002}) {
            bodies.emplace_back(size);
            for (auto& x : bodies.back()) x = static_cast<uint8_t>(gen());
            parts.push_back(mkvelk::software(std::to_string(size), 1, 0, 1, "b1", bodies.back()));
        }
        image = mkvelk::build_image(parts);
        const auto length = [&](size_t i) {  // 32-byte header, its extra, padded body
            return 32 + parts[i + 2].header_extra.size() + ((bodies[i].size() + 3) & ~3u);
        };
        ends = {image.size() - length(2) - length(1), image.size() - length(2), image.size()};
    }
};
const Release& release() { static const Release r; return r; }

size_t count(const std::string& text, const std::string& what)
{
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

// A sandboxed device with the default layout and the image served as `kind`:
// "file", "file://", "http" (nginx) or "ftp" (vsftpd). Servers stop first.
struct World {
    Device dev;
    std::string source;
    std::unique_ptr<servers::Nginx> nginx;
    std::unique_ptr<servers::Vsftpd> ftp;

    explicit World(const std::string& kind)
    {
        dev.with_default_layout();
        const std::string www = dev.workdir() + "/www", image = www + "/img.velk";
        dev.write_file(image, std::string(release().image.begin(), release().image.end()));
        source = (kind == "file://" ? "file://" : "") + image;
        if (kind == "http") nginx = std::make_unique<servers::Nginx>(www + "/../nginx", www);
        if (kind == "ftp") ftp = std::make_unique<servers::Vsftpd>(www + "/../ftp", www);
        if (nginx || ftp) source = nginx ? nginx->url("img.velk") : ftp->url("img.velk");
    }
    sandbox::RunResult install(const std::string& src, strings args = {})
    {
        args.insert(args.begin(), {"install", src, "1"});
        return dev.kor(args, sandbox::RunOptions().set("KOR_TEST_TOS", dev.workdir() + "/tos"));
    }
    std::vector<bytes> partitions() const
    {
        std::vector<bytes> out;
        for (int p : {11, 13, 14})  // KNLS, ROOTS, APPLS of set 1
            out.push_back(dev.read(Device::part(p), 0, release().bodies[out.size()].size()));
        return out;
    }
};

// Every source writes the file's bytes; a re-install resumes behind each skipped
// body's header. -iptos reaches the http socket (kept in libcurl's cache).
TEST(TransferTest, InstallAndReinstallFromEverySource)
{
    KOR_SANDBOX_OR_SKIP();
    const Release& rel = release();
    const auto from = [&](int i) { return "bytes=" + std::to_string(rel.ends[i]) + "-"; };
    const struct { const char* kind; strings args; std::string tos; bool reinstall; } cases[] = {
        {"file", {}, "", false}, {"http", {}, "0", true}, {"http", {"-iptos=0x28"}, "40", false},
        {"http", {"-iptos=184"}, "184", false}, {"ftp", {}, "", true}, {"file://", {}, "", true}};
    for (auto c : cases) {
        SCOPED_TRACE(c.kind + (" " + c.tos));
        World w(c.kind);
        if (!c.tos.empty()) c.args.push_back("-plugin=" + w.dev.stage(KOR_PLUGIN_tos_plugin));
        auto r = w.install(w.source, c.args);
        ASSERT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(w.partitions(), rel.bodies);
        if (!c.tos.empty()) { EXPECT_EQ(w.dev.read_file(w.dev.workdir() + "/tos"), c.tos); }
        if (!c.reinstall) continue;
        const size_t requests = w.nginx ? w.nginx->log(1).size() : 0;
        const size_t downloads = w.ftp ? w.ftp->log(1).downloads : 0;
        r = w.install(w.source);
        ASSERT_EQ(r.status, 0) << r.err;
        for (const char* e : {"  0 ", "  1 ", "  2 "})
            EXPECT_EQ(count(r.err, e + std::string("should not be downloaded, SKIP\n")), 1u);
        EXPECT_EQ(count(r.out, "Writing out"), 0u);
        EXPECT_EQ(w.partitions(), rel.bodies);
        if (w.nginx) {  // nothing is asked for behind the last skipped body
            auto log = w.nginx->log(requests + 3);
            strings ranges;
            uint64_t sent = 0;  // with what was in flight when kor closed each connection
            for (size_t i = requests; i < log.size(); ++i)
                ranges.push_back(log[i].range), sent += log[i].bytes;
            EXPECT_EQ(ranges, (strings{"bytes=0-", from(0), from(1)}));
            EXPECT_LT(sent, rel.image.size() / 2) << "skipped bodies were sent";
        }
        if (w.ftp) {  // SIZE tells libcurl that nothing is left behind the last body
            servers::FtpLog log = w.ftp->log(downloads + 3);
            EXPECT_EQ(log.downloads, downloads + 3);
            EXPECT_EQ(log.rests, (std::vector<uint64_t>{rel.ends[0], rel.ends[1]}));
        }
    }
}

// The first `sent` bytes of `body` behind a header announcing all of it.
std::string response(const std::string& status, const std::string& body,
                     size_t sent = std::string::npos)
{
    return "HTTP/1.1 " + status + "\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\nConnection: close\r\n\r\n" + body.substr(0, sent);
}

TEST(TransferTest, ScriptedResponses)
{
    KOR_SANDBOX_OR_SKIP();
    const std::string img(release().image.begin(), release().image.end());
    const std::string ok = response("200 OK", img);
    // Installed from the file beforehand?, the response, the args, the error in stderr
    // (kor ends with 16; "": with 0), the Range header of the only request, "Writing out" lines.
    const struct { const char* name; bool installed; std::string response; strings args;
        std::string error, range; size_t written; } cases[] = {
        {"server ignores Range", true, ok, {}, "", "bytes=0-", 0},
        {"-rewrite", true, ok, {"-rewrite"}, "", "", 3},
        {"one byte below -velksize", false, ok, {"-velksize=" + std::to_string(img.size() + 1)}, "", "bytes=0-", 3},
        {"image of -velksize bytes", false, ok, {"-velksize=" + std::to_string(img.size())},
         "Too much data received. Try increasing -velksize\n", "bytes=0-", 0},
        {"connection dropped", false, response("200 OK", img, img.size() / 2), {}, "curl returned: 18 == ", "bytes=0-", 0},
        {"long header", false, response("200 OK\r\nX-Pad: " + std::string(1200, 'x'), img),
         {}, "curl returned: 23 == ", "bytes=0-", 0},
        {"404, even with a short page", false, response("404 Not Found", "<html/>"), {},
         "curl returned: 22 == The requested URL returned error: 404", "bytes=0-", 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        World w("file");
        if (c.installed) { ASSERT_EQ(w.install(w.source).status, 0); }
        const auto before = w.partitions();
        const bytes hostconfig = w.dev.read(Device::part(3), 0, 5120);
        servers::Scripted server(c.response);
        auto r = w.install(server.url("img.velk"), c.args);
        EXPECT_EQ(r.status, c.error.empty() ? 0 : 16) << r.err;
        EXPECT_NE(r.err.find(c.error), std::string::npos) << r.err;
        EXPECT_EQ(count(r.err, "SKIP"), 0u);
        EXPECT_EQ(count(r.out, "Writing out"), c.written);
        EXPECT_EQ(server.ranges(), strings{c.range});
        EXPECT_EQ(w.partitions(), c.error.empty() ? release().bodies : before);  // nothing written
        if (!c.error.empty()) { EXPECT_EQ(w.dev.read(Device::part(3), 0, 5120), hostconfig); }
    }
}

}  // namespace
