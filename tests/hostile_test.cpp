// Installs by URL from servers that misbehave. Each ends in a correct install
// or in a refusal that wrote nothing.
#include <gtest/gtest.h>
#include <zlib.h>

#include <random>

#include "mkvelk.h"
#include "support/sandbox.h"
#include "support/servers.h"

namespace {

using strings = std::vector<std::string>;
using parts = std::vector<sandbox::bytes>;
constexpr size_t kBody = 120000;  // 4n bytes: no padding behind a body

// Three software parts; `resume` is where a reinstall goes on, behind the first body.
struct Release {
    std::string image;
    parts bodies = parts(3, sandbox::bytes(kBody));
    size_t resume = 0;
    Release()
    {
        std::vector<mkvelk::part> p = {
            mkvelk::release_header(1, 0, 1, 0, "b1", "products=kortest\n"),
            mkvelk::korm("2,KNLS,0,-,-,-,1.0.1,1\n3,ROOTS,0,-,-,-,1.0.1,1\n"
                         "4,APPLS,0,-,-,-,1.0.1,1\n")};
        std::mt19937 gen(7);
        for (auto& b : bodies) {
            for (auto& x : b) x = static_cast<uint8_t>(gen());
            p.push_back(mkvelk::software("sw" + std::to_string(p.size()), 1, 0, 1, "b1", b));
        }
        auto b = mkvelk::build_image(p);
        image.assign(b.begin(), b.end());
        resume = image.find(std::string(bodies[0].begin(), bodies[0].begin() + 64)) + kBody;
    }
};
const Release& release() { static const Release r; return r; }

std::string gzipped(std::string in)
{
    std::string out(compressBound(in.size()) + 32, '\0');
    z_stream z{};
    z.next_in = reinterpret_cast<Bytef*>(&in[0]), z.avail_in = uInt(in.size());
    z.next_out = reinterpret_cast<Bytef*>(&out[0]), z.avail_out = uInt(out.size());
    deflateInit2(&z, 9, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY);  // +16: gzip wrapper
    deflate(&z, Z_FINISH);
    deflateEnd(&z);
    return out.substr(0, z.total_out);
}

// `sent` bytes of `body` (all by default) behind a header announcing `length` (0: all).
std::string response(const std::string& status, const std::string& body, size_t length = 0,
                     size_t sent = std::string::npos)
{
    const std::string announced = std::to_string(length ? length : body.size());
    return "HTTP/1.1 " + status + "\r\nContent-Length: " + announced +
           "\r\nConnection: close\r\n\r\n" + body.substr(0, sent);
}

// A 206 that claims to start at `claimed` and sends the image from `from`.
std::string partial(size_t claimed, size_t from)
{
    const std::string& img = release().image;
    const std::string range = std::to_string(claimed) + "-" + std::to_string(img.size() - 1) + "/" +
                              std::to_string(img.size());
    return response("206 Partial Content\r\nContent-Range: bytes " + range, img.substr(from),
                    img.size() - claimed);
}

// A device, installed from a file first if `installed`; `install` checks that a
// refusal left hostconfig and partitions alone.
struct World {
    sandbox::Device dev;
    explicit World(bool installed)
    {
        dev.with_default_layout();
        const std::string file = dev.workdir() + "/www/img.velk";
        dev.write_file(file, release().image);
        if (installed) { EXPECT_EQ(dev.kor({"install", file, "1"}).status, 0); }
    }
    parts state() const  // KNLS, ROOTS, APPLS of set 1, then hostconfig
    {
        parts out;
        for (int p : {11, 13, 14, 3}) out.push_back(dev.read(sandbox::Device::part(p), 0, kBody));
        return out;
    }
    void install(const std::string& url, int status, const std::string& error)
    {
        const parts before = state();
        auto r = dev.kor({"install", url, "1"});
        EXPECT_EQ(r.status, status) << r.err;
        EXPECT_NE(r.err.find(error), std::string::npos) << r.err;
        EXPECT_EQ((r.err + r.log_text()).find("secret"), std::string::npos) << "a password was logged";
        parts after = state();
        if (status != 0) { EXPECT_EQ(after, before) << "a refusal wrote"; }
        if (status == 0) { EXPECT_EQ(parts(after.begin(), after.begin() + 3), release().bodies); }
    }
};

TEST(HostileTest, ScriptedServers)
{
    KOR_SANDBOX_OR_SKIP();
    const std::string& img = release().image;
    const std::string parser = "velk_stream_parser failed";
    const size_t at = release().resume, size = img.size();
    // A reinstall (its first request is answered with the image as a 206, the
    // second, resuming behind the first body, with `answer`) or not, the answer,
    // how long the server stalls before it closes, kor's status, text in stderr.
    const struct { const char* name; bool again; std::string answer; int stall_ms, status;
        std::string error; } cases[] = {
        {"302 to the resume", true, response("302 Found\r\nLocation: /img.velk", ""), 0, 16,
         "install: server answered with a redirect (302); redirects are not followed\n"},
        {"long header to the resume", true, response("200 OK\r\nX: " + std::string(1200, 'x'), img),
         0, 16, "install: response header longer than"},
        {"Content-Length short", false, response("200 OK", img, size / 2), 0, 9, "incomplete VELK"},
        {"extra bytes announced", false, response("200 OK", img + "junk"), 0, 0, ""},
        {"extra bytes not announced", false, response("200 OK", img + "junk", size), 0, 0, ""},
        {"resume answered: 206, whole image", true, partial(at, 0), 0, 16, parser},
        {"resume answered: 206, 4 bytes on", true, partial(at, at + 4), 0, 16, parser},
        {"resume answered: 200", true, response("200 OK", img), 0, 16, parser},
        {"stall in the body, then close", false, response("200 OK", img, size, size / 2), 2000, 16,
         "curl returned: 18 == "},
        {"gzip not asked for", false, response("200 OK\r\nContent-Encoding: gzip", gzipped(img)), 0,
         16, "velk_stream_parser_hdr failed"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        World w(c.again);
        strings answers = {c.answer}, ranges = {"bytes=0-"};
        if (c.again) answers.insert(answers.begin(), partial(0, 0));
        if (c.again) ranges.push_back("bytes=" + std::to_string(at) + "-");
        servers::Scripted server(answers, c.stall_ms);
        w.install(server.url("img.velk"), c.status, c.error);
        EXPECT_EQ(server.ranges(), ranges);
    }
}

TEST(HostileTest, NginxAuthRedirectAndCertificate)
{
    KOR_SANDBOX_OR_SKIP();
    const struct { const char* name; bool tls; std::string user, path; int status;
        std::string error; } cases[] = {
        {"user and password", false, "kor:secret@", "private/img.velk", 0, "install: http://***@127.0.0.1:"},
        {"wrong password", false, "kor:wrong@", "private/img.velk", 16, "returned error: 401"},
        {"301", false, "", "moved.velk", 16, "install: server answered with a redirect (301)"},
        {"self-signed certificate", true, "", "img.velk", 16, "curl returned: 60 == "},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        World w(false);
        const std::string dir = w.dev.workdir();
        w.dev.write_file(dir + "/www/private/img.velk", release().image);
        auto hash = w.dev.run({"openssl", "passwd", "-apr1", "secret"});
        w.dev.write_file(dir + "/htpasswd", "kor:" + (hash.status ? "{PLAIN}secret\n" : hash.out));
        std::string conf = "location /private/ { auth_basic kor; auth_basic_user_file " + dir +
                           "/htpasswd; }\nlocation = /moved.velk { return 301 /img.velk; }\n";
        strings req = {"openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "1",
                       "-subj", "/CN=127.0.0.1", "-keyout", dir + "/key", "-out", dir + "/cert"};
        if (c.tls && w.dev.run(req).status != 0) GTEST_SKIP() << "openssl makes no certificate";
        if (c.tls) conf += "ssl_certificate " + dir + "/cert;\nssl_certificate_key " + dir + "/key;";
        servers::Nginx nginx(dir + "/nginx", dir + "/www", conf, c.tls);
        if (!nginx.ok() && c.tls) GTEST_SKIP() << "nginx without ssl: " << nginx.error();
        ASSERT_TRUE(nginx.ok()) << nginx.error();
        std::string url = nginx.url(c.path);
        w.install(url.insert(url.find("//") + 2, c.user), c.status, c.error);
    }
}

}  // namespace
