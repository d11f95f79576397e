// HTTPS with a fleet's own PKI: nginx on 127.0.0.1 with a server certificate of a CA made here by openssl, asking
// every client for a certificate of that CA. -cacert= names the CA kor trusts, -cert= and -key= its certificate.
#include <map>

#include "support/servers.h"

namespace {

using servers::strings;

const servers::Release& rel()
{
    static const servers::Release r({30001, 20002, 10003});
    return r;
}

// Keys and certificates in `dir`: two CAs ("fleet", "other"), the server's and a client's of each CA.
bool make_pki(sandbox::Device& dev, const std::string& dir, std::string* why)
{
    const strings ec = {"-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes"};
    const auto run = [&](strings argv) {
        auto r = dev.run(argv);
        if (r.status != 0) *why = argv[0] + " " + argv[1] + " failed: " + r.err;
        return r.status == 0;
    };
    const auto ca = [&](const std::string& name) {
        strings a = {"openssl", "req", "-x509", "-days", "1", "-subj", "/CN=" + name + " CA"};
        a.insert(a.end(), ec.begin(), ec.end());
        a.insert(a.end(), {"-keyout", dir + "/" + name + ".key", "-out", dir + "/" + name + ".pem"});
        return run(a);
    };
    // Signed by `ca`; the server's carries the address kor connects to.
    const auto cert = [&](const std::string& name, const std::string& ca, const std::string& ext) {
        strings req = {"openssl", "req", "-new", "-subj", "/CN=" + name};
        req.insert(req.end(), ec.begin(), ec.end());
        req.insert(req.end(), {"-keyout", dir + "/" + name + ".key", "-out", dir + "/" + name + ".csr"});
        dev.write_file(dir + "/" + name + ".ext", ext + "\n");
        return run(req) && run({"openssl", "x509", "-req", "-days", "1", "-in", dir + "/" + name + ".csr", "-CA",
                                dir + "/" + ca + ".pem", "-CAkey", dir + "/" + ca + ".key", "-CAcreateserial",
                                "-extfile", dir + "/" + name + ".ext", "-out", dir + "/" + name + ".pem"});
    };
    dev.write_file(dir + "/README", "keys and certificates of the test\n");  // makes the directory
    return ca("fleet") && ca("other") && cert("server", "fleet", "subjectAltName=IP:127.0.0.1") &&
           cert("device", "fleet", "extendedKeyUsage=clientAuth") &&
           cert("stranger", "other", "extendedKeyUsage=clientAuth");
}

TEST(TlsTest, FleetCaAndClientCertificates)
{
    KOR_SANDBOX_OR_SKIP();
    // The files kor is given (by name in the PKI directory: "fleet.pem" ...), its status and what stderr holds.
    const struct { const char* name; std::string cacert, cert, key; int status; std::string error; } cases[] = {
        {"fleet CA and the device's certificate", "fleet.pem", "device.pem", "device.key", 0, ""},
        {"the system's CAs only", "", "device.pem", "device.key", 16, "curl returned: 60 == "},
        {"another CA", "other.pem", "device.pem", "device.key", 16, "curl returned: 60 == "},
        {"no client certificate", "fleet.pem", "", "", 16, "The requested URL returned error: 400"},
        {"a certificate of another CA", "fleet.pem", "stranger.pem", "stranger.key", 16,
         "The requested URL returned error: 400"},
        {"a certificate without its key", "fleet.pem", "device.pem", "", 16, "curl returned: 58 == "},
        {"the key of another certificate", "fleet.pem", "device.pem", "stranger.key", 16, "curl returned: 58 == "},
        {"no such CA file", "missing.pem", "device.pem", "device.key", 16, "curl returned: 77 == "},
    };
    std::map<std::string, std::string> pki;  // made once, written into each row's fresh sandbox
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        servers::World w(rel());
        const std::string dir = w.dev.workdir() + "/pki";
        std::string why;
        if (pki.empty()) {
            ASSERT_TRUE(make_pki(w.dev, dir, &why)) << why;
            for (const char* f : {"fleet", "other", "server", "device", "stranger"})
                for (const char* kind : {".pem", ".key"}) pki[f + std::string(kind)] = w.dev.read_file(dir + "/" + f + kind);
        }
        for (const auto& [name, text] : pki) w.dev.write_file(dir + "/" + name, text);
        servers::Daemon nginx(w, "https", "ssl_certificate " + dir + "/server.pem;\nssl_certificate_key " + dir +
                                              "/server.key;\nssl_client_certificate " + dir +
                                              "/fleet.pem;\nssl_verify_client on;\n");
        ASSERT_TRUE(nginx.pid) << nginx.error;
        strings args;
        for (const auto& [option, file] : {std::pair{"-cacert=", c.cacert}, {"-cert=", c.cert}, {"-key=", c.key}})
            if (!file.empty()) args.push_back(option + dir + "/" + file);
        w.install(nginx.url("img.velk"), c.status, c.error, args);
    }
}

}  // namespace
