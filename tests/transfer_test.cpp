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

// An install from one source: "file" (a path), "file://", or "http" and "ftp" from nginx and vsftpd.
class Source {
public:
    explicit Source(std::string kind) : kind(std::move(kind)) {}
    Source& args(strings a) { args_ = std::move(a); return *this; }
    // The IP type of service the http socket had, as the tos test plugin saw it.
    Source& tos_seen(std::string tos) { tos_ = std::move(tos); return *this; }
    // Installed again: every body skipped, and what lies behind each requested.
    Source& reinstalled() { reinstall = true; return *this; }

    std::string kind, tos_;
    strings args_;
    bool reinstall = false;
};

// Every source writes the file's bytes; a re-install skips every body and asks
// only for what lies behind each skipped one. -iptos reaches the http socket.
TEST(TransferTest, InstallAndReinstallFromEverySource)
{
    KOR_SANDBOX_OR_SKIP();
    const Source cases[] = {
        Source("file"),
        Source("http").tos_seen("0").reinstalled(),
        Source("http").args({"-iptos=0x28"}).tos_seen("40"),
        Source("http").args({"-iptos=184"}).tos_seen("184"),
        Source("ftp").reinstalled(),
        Source("file://").reinstalled(),
    };
    for (const Source& c : cases) {
        SCOPED_TRACE(c.kind + " " + c.tos_);
        servers::World w(rel());
        std::string source = (c.kind == "file://" ? c.kind : "") + w.file;
        std::unique_ptr<servers::Daemon> server;
        if (c.kind == "http" || c.kind == "ftp") server = std::make_unique<servers::Daemon>(w, c.kind);
        if (server) source = server->url("img.velk");
        strings args = c.args_;
        if (!c.tos_.empty()) args.push_back("-plugin=" + w.dev.stage(KOR_PLUGIN_tos_plugin));
        w.install(source, 0, "", args);
        if (!c.tos_.empty()) {
            EXPECT_EQ(w.dev.read_file(w.dev.workdir() + "/tos"), c.tos_);
        }
        if (!c.reinstall) continue;
        const size_t before = server ? server->log(1).size() : 0;
        const auto r = w.install(source);
        for (const char* i : {"0", "1", "2"})
            EXPECT_EQ(count(r.err, "  " + std::string(i) + " should not be downloaded, SKIP\n"), 1u) << i;
        EXPECT_EQ(count(r.out, "Writing out"), 0u);
        if (!server) continue;
        const auto log = server->log(before + 3);
        strings ranges;
        uint64_t sent = 0;  // with what was in flight when kor closed each connection (vsftpd: far more)
        for (size_t i = before; i < log.size(); ++i) {
            ranges.push_back(log[i].range);
            sent += log[i].bytes;
        }
        const auto from = [&](size_t at) {
            return c.kind == "ftp" ? "REST " + std::to_string(at) : "bytes=" + std::to_string(at) + "-";
        };
        EXPECT_EQ(ranges, (strings{c.kind == "ftp" ? "" : from(0), from(rel().ends[0]), from(rel().ends[1])}));
        EXPECT_TRUE(c.kind == "ftp" || sent < rel().image.size() / 2) << sent << " bytes sent: skipped bodies too";
    }
}

// An install from nginx at `path`, with `user` ("name:password@") in the URL.
class Nginx {
public:
    explicit Nginx(std::string name) : name(std::move(name)) {}
    Nginx& tls() { tls_ = true; return *this; }  // https, with a self-signed certificate
    Nginx& user(std::string u) { user_ = std::move(u); return *this; }
    Nginx& path(std::string p) { path_ = std::move(p); return *this; }
    Nginx& status(int s) { status_ = s; return *this; }
    Nginx& stderr_has(std::string t) { error = std::move(t); return *this; }

    std::string name, user_, path_ = "img.velk", error;
    bool tls_ = false;
    int status_ = -1;
};

TEST(TransferTest, NginxAuthRedirectAndCertificate)
{
    KOR_SANDBOX_OR_SKIP();
    const Nginx cases[] = {
        Nginx("user and password").user("kor:secret@").path("private/img.velk")
            .status(0).stderr_has("install: http://***@127.0.0.1:"),
        Nginx("wrong password").user("kor:wrong@").path("private/img.velk")
            .status(16).stderr_has("returned error: 401"),
        Nginx("301").path("moved.velk").status(16).stderr_has("install: server answered with a redirect (301)"),
        Nginx("self-signed certificate").tls().status(16).stderr_has("curl returned: 60 == "),
    };
    for (const Nginx& c : cases) {
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
        if (c.tls_ && w.dev.run(req).status != 0) GTEST_SKIP() << "openssl makes no certificate";
        if (c.tls_) conf += "ssl_certificate " + dir + "/cert;\nssl_certificate_key " + dir + "/key;";
        servers::Daemon nginx(w, c.tls_ ? "https" : "http", conf);
        if (!nginx.pid && c.tls_) GTEST_SKIP() << "nginx without ssl: " << nginx.error;
        ASSERT_TRUE(nginx.pid) << nginx.error;
        std::string url = nginx.url(c.path_);
        w.install(url.insert(url.find("//") + 2, c.user_), c.status_, c.error);
    }
}

}  // namespace
