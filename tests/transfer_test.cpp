// Installs by URL against real servers in the sandbox: nginx (http, https),
// vsftpd (ftp) and file://.
#include <memory>

#include "support/servers.h"

namespace {

using servers::count;
using servers::strings;

const servers::Release& rel()  // bodies of odd lengths, so that the padding behind them matters
{
    static const servers::Release r({1000003, 1500001, 700002});
    return r;
}

// Every source writes the file's bytes; a re-install skips every body and asks
// only for what lies behind each skipped one. -iptos reaches the http socket.
TEST(TransferTest, InstallAndReinstallFromEverySource)
{
    KOR_SANDBOX_OR_SKIP();
    const struct { std::string kind; strings args; std::string tos; bool reinstall; } cases[] = {
        {"file", {}, "", false}, {"http", {}, "0", true}, {"http", {"-iptos=0x28"}, "40", false},
        {"http", {"-iptos=184"}, "184", false}, {"ftp", {}, "", true}, {"file://", {}, "", true}};
    for (auto c : cases) {
        SCOPED_TRACE(c.kind + " " + c.tos);
        servers::World w(rel());
        std::string source = (c.kind == "file://" ? c.kind : "") + w.file;
        std::unique_ptr<servers::Daemon> server;
        if (c.kind == "http" || c.kind == "ftp") server = std::make_unique<servers::Daemon>(w, c.kind);
        if (server) source = server->url("img.velk");
        if (!c.tos.empty()) c.args.push_back("-plugin=" + w.dev.stage(KOR_PLUGIN_tos_plugin));
        w.install(source, 0, "", c.args);
        if (!c.tos.empty()) { EXPECT_EQ(w.dev.read_file(w.dev.workdir() + "/tos"), c.tos); }
        if (!c.reinstall) continue;
        const size_t before = server ? server->log(1).size() : 0;
        auto r = w.install(source);
        for (const char* i : {"0", "1", "2"})
            EXPECT_EQ(count(r.err, "  " + std::string(i) + " should not be downloaded, SKIP\n"), 1u) << i;
        EXPECT_EQ(count(r.out, "Writing out"), 0u);
        if (!server) continue;
        const auto log = server->log(before + 3);
        strings ranges;
        uint64_t sent = 0;  // with what was in flight when kor closed each connection (vsftpd: far more)
        for (size_t i = before; i < log.size(); ++i) ranges.push_back(log[i].range), sent += log[i].bytes;
        const auto from = [&](size_t at) { return c.kind == "ftp" ? "REST " + std::to_string(at) : "bytes=" + std::to_string(at) + "-"; };
        EXPECT_EQ(ranges, (strings{c.kind == "ftp" ? "" : from(0), from(rel().ends[0]), from(rel().ends[1])}));
        EXPECT_TRUE(c.kind == "ftp" || sent < rel().image.size() / 2) << sent << " bytes sent: skipped bodies too";
    }
}

TEST(TransferTest, NginxAuthRedirectAndCertificate)
{
    KOR_SANDBOX_OR_SKIP();
    const struct { const char* name; bool tls; std::string user, path; int status; std::string error; } cases[] = {
        {"user and password", false, "kor:secret@", "private/img.velk", 0, "install: http://***@127.0.0.1:"},
        {"wrong password", false, "kor:wrong@", "private/img.velk", 16, "returned error: 401"},
        {"301", false, "", "moved.velk", 16, "install: server answered with a redirect (301)"},
        {"self-signed certificate", true, "", "img.velk", 16, "curl returned: 60 == "},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        servers::World w(rel());
        const std::string dir = w.dev.workdir();
        w.dev.write_file(w.www + "/private/img.velk", rel().image);
        auto hash = w.dev.run({"openssl", "passwd", "-apr1", "secret"});
        w.dev.write_file(dir + "/htpasswd", "kor:" + (hash.status ? "{PLAIN}secret\n" : hash.out));
        std::string conf = "location /private/ { auth_basic kor; auth_basic_user_file " + dir +
                           "/htpasswd; }\nlocation = /moved.velk { return 301 /img.velk; }\n";
        strings req = {"openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "1",
                       "-subj", "/CN=127.0.0.1", "-keyout", dir + "/key", "-out", dir + "/cert"};
        if (c.tls && w.dev.run(req).status != 0) GTEST_SKIP() << "openssl makes no certificate";
        if (c.tls) conf += "ssl_certificate " + dir + "/cert;\nssl_certificate_key " + dir + "/key;";
        servers::Daemon nginx(w, c.tls ? "https" : "http", conf);
        if (!nginx.pid && c.tls) GTEST_SKIP() << "nginx without ssl: " << nginx.error;
        ASSERT_TRUE(nginx.pid) << nginx.error;
        std::string url = nginx.url(c.path);
        w.install(url.insert(url.find("//") + 2, c.user), c.status, c.error);
    }
}

}  // namespace
