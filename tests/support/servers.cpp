#include "support/servers.h"

#include <arpa/inet.h>
#include <poll.h>

#include <fstream>
#include <random>

#include "mkvelk.h"

namespace servers {

template <typename Done> static bool wait_until(Done done)  // polls for ten seconds at most
{
    for (int i = 0; i < 500; ++i, usleep(20000)) if (done()) return true;
    return false;
}

// A socket of 127.0.0.1: connected to `*port`, or bound to a free port it stores there.
static int inet_socket(int* port, bool bind_it)
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{AF_INET, htons(static_cast<uint16_t>(bind_it ? 0 : *port)), {htonl(INADDR_LOOPBACK)}, {}};
    auto* sa = reinterpret_cast<sockaddr*>(&a);
    socklen_t len = sizeof a;
    bool ok = fd >= 0 && (bind_it ? bind(fd, sa, len) == 0 && listen(fd, 8) == 0 && getsockname(fd, sa, &len) == 0 &&
                                        (*port = ntohs(a.sin_port)) : connect(fd, sa, len) == 0);
    return ok ? fd : (close(fd), -1);
}

Release::Release(const std::vector<size_t>& sizes)
{
    std::vector<mkvelk::part> parts = {mkvelk::release_header(1, 0, 1, 0, "b1", "products=kortest\n"),
        mkvelk::korm("2,KNLS,0,-,-,-,1.0.1,1\n3,ROOTS,0,-,-,-,1.0.1,1\n4,APPLS,0,-,-,-,1.0.1,1\n")};
    std::mt19937 gen(7);
    for (size_t size : sizes) {
        bodies.emplace_back(size);
        for (auto& x : bodies.back()) x = static_cast<uint8_t>(gen());
        parts.push_back(mkvelk::software("sw" + std::to_string(parts.size()), 1, 0, 1, "b1", bodies.back()));
    }
    for (uint8_t x : mkvelk::build_image(parts)) image += char(x);
    for (const auto& body : bodies)
        ends.push_back(image.find(std::string(body.begin(), body.begin() + 64)) + ((body.size() + 3) & ~size_t(3)));
}

sandbox::RunResult World::install(const std::string& source, int status, const std::string& error, strings args)
{
    const auto state = [&] {  // set 1's KNLS, ROOTS, APPLS, then hostconfig with its flags area
        std::vector<sandbox::bytes> out;
        for (int p : {11, 13, 14, 3})
            out.push_back(dev.read(sandbox::Device::part(p), 0, p == 3 ? 0x40000 : rel.bodies[out.size()].size()));
        return out;
    };
    const auto before = state();
    args.insert(args.begin(), {"install", source, "1"});
    auto r = dev.kor(args, sandbox::RunOptions().set("KOR_TEST_TOS", dev.workdir() + "/tos"));
    EXPECT_TRUE(r.status == status && r.err.find(error) != std::string::npos) << r.status << " " << r.err;
    EXPECT_EQ((r.err + r.log_text()).find("secret"), std::string::npos) << "a password was logged";
    const auto after = state();
    EXPECT_EQ(status ? after : decltype(after)(after.begin(), after.begin() + 3), status ? before : rel.bodies);
    return r;
}

Daemon::Daemon(const World& w, const std::string& scheme, const std::string& conf)
    : Endpoint{scheme}, dir(w.dev.workdir() + "/" + scheme)
{
    std::string temps;  // nginx's own would be on the host
    for (const char* t : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"}) temps += t + ("_temp_path " + dir) + "/" + t + ";\n";
    for (int attempt = 0; attempt < 3 && pid == 0; ++attempt) {  // another process may take the free port first
        close(inet_socket(&port, true));
        const std::string file = dir + "/server.conf", log = dir + "/server.log", at = std::to_string(port);
        // A small send buffer keeps the bytes nginx logs as sent close to what the client read.
        w.dev.write_file(file, scheme == "ftp"
            ? "listen=YES\nlisten_address=127.0.0.1\nlisten_port=" + at + "\nbackground=NO\nseccomp_sandbox=NO\n"
              "isolate=NO\nisolate_network=NO\nanonymous_enable=YES\nno_anon_password=YES\nanon_root=" + w.www +
              "\nsecure_chroot_dir=" + dir + "\nxferlog_enable=YES\nlog_ftp_protocol=YES\nvsftpd_log_file=" + log
            : "daemon off;\nmaster_process off;\npid " + dir + "/nginx.pid;\nevents {}\n"
              "http {\n" + temps + "log_format kor '$http_range $body_bytes_sent';\naccess_log " + log + " kor;\nsendfile on;\n"
              "server {\nlisten 127.0.0.1:" + at + (scheme == "https" ? " ssl" : "") + " sndbuf=64k;\nroot " + w.www +
              ";\n" + conf + "}\n}\n");
        const std::string cmd = scheme == "ftp" ? "/usr/sbin/vsftpd " + file
                                                : "/usr/sbin/nginx -p " + dir + " -c " + file + " -e " + dir + "/error.log";
        const std::string sh = "exec " + cmd + " >" + dir + "/server.out 2>&1 </dev/null";
        if ((pid = fork()) == 0) setpgid(0, 0), execl("/bin/sh", "sh", "-c", sh.c_str(), nullptr), _exit(127);
        setpgid(pid, pid);
        bool exited = pid < 0;
        const auto up = [&] { return (exited = exited || waitpid(pid, nullptr, WNOHANG) == pid) || !close(inet_socket(&port, false)); };
        if (wait_until(up) && !exited) return;
        error = cmd + (exited ? " exited early: " : " did not accept connections: ") + w.dev.read_file(dir + "/server.out");
        if (!exited) kill(-pid, SIGKILL), waitpid(pid, nullptr, 0);
        pid = 0;
    }
}

std::vector<Daemon::Request> Daemon::log(size_t at_least) const
{
    std::vector<Request> out;
    wait_until([&] {
        out.clear();
        std::ifstream in(dir + "/server.log");
        for (std::string line, rest; std::getline(in, line);) {  // vsftpd: a REST command, later its download
            const size_t at = line.find("\"REST "), sp = line.rfind(' ');
            if (scheme != "ftp")  // nginx: "<Range> <bytes>", the range "-" when none
                out.push_back({line.compare(0, sp, "-") ? line.substr(0, sp) : "", std::stoull(line.substr(sp + 1))});
            if (at != std::string::npos) rest = line.substr(at + 1, line.find('"', at + 1) - at - 1);
            if (line.find("DOWNLOAD: ") != std::string::npos)
                out.push_back({rest, std::stoull(line.substr(line.rfind("\", ") + 3))}), rest.clear();
        }
        return out.size() >= at_least;
    });
    return out;
}

Scripted::Scripted(const std::vector<Answer>& a, int stall) : Endpoint{"http"}, stall_ms(stall)
{
    for (const Answer& x : a) responses.push_back(x.bytes), drops.push_back(x.drop);
    if ((fd = inet_socket(&port, true)) >= 0) thread = std::thread([this] {
        for (int c; (c = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC)) >= 0; close(c)) {
            timeval t{5, 0};
            setsockopt(c, SOL_SOCKET, SO_RCVTIMEO, &t, sizeof t), setsockopt(c, SOL_SOCKET, SO_SNDTIMEO, &t, sizeof t);
            std::string req;
            char buf[1024];
            ssize_t n = 1;
            while (req.find("\r\n\r\n") == req.npos && req.size() < 16384 && (n = recv(c, buf, sizeof buf, 0)) > 0)
                req.append(buf, size_t(n));
            const size_t at = req.find("\r\nRange: "), end = req.find('\r', at + 9);
            const size_t i = std::min(requests.size(), responses.size() - 1);
            const std::string& answer = responses[i];
            if (n > 0) requests.push_back(at == std::string::npos ? "" : req.substr(at + 9, end - at - 9));
            for (size_t sent = 0; n > 0 && sent < answer.size(); sent += size_t(n))
                n = send(c, answer.data() + sent, answer.size() - sent, MSG_NOSIGNAL);
            const linger reset{1, 0};  // close() then sends RST
            if (n > 0 && drops[i] == Drop::reset) setsockopt(c, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
            pollfd client{c, POLLIN, 0};  // wakes when the client closes first
            if (n > 0 && drops[i] == Drop::none) poll(&client, 1, stall_ms);
        }
    });
}

}  // namespace servers
