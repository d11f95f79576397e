#include "support/servers.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <fstream>
#include <sstream>

namespace servers {
namespace {

// Polls `done` until it says yes (true) or ten seconds pass (false).
template <typename Done>
bool wait_until(Done done)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    for (; !done(); std::this_thread::sleep_for(std::chrono::milliseconds(20)))
        if (std::chrono::steady_clock::now() >= end) return false;
    return true;
}

sockaddr_in loopback(int port)
{
    return sockaddr_in{AF_INET, htons(static_cast<uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
}

// A socket bound to a free port of 127.0.0.1 (listening if `backlog` > 0), -1 on failure.
int bound_socket(int* port, int backlog)
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a = loopback(0);
    socklen_t len = sizeof a;
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
        (backlog > 0 && listen(fd, backlog) != 0) ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) != 0) {
        close(fd);
        return -1;
    }
    *port = ntohs(a.sin_port);
    return fd;
}

bool accepts(int port)
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a = loopback(port);
    bool ok = fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
    close(fd);
    return ok;
}

std::string url_of(const char* scheme, int port, const std::string& name)
{
    return std::string(scheme) + "://127.0.0.1:" + std::to_string(port) + "/" + name;
}

std::string slurp(const std::string& path)
{
    std::ostringstream s;
    s << std::ifstream(path, std::ios::binary).rdbuf();
    return s.str();
}

}  // namespace

Daemon::Daemon(const std::string& dir, const char* scheme) : dir_(dir), scheme_(scheme)
{
    mkdir(dir_.c_str(), 0755);
}

std::string Daemon::url(const std::string& name) const { return url_of(scheme_, port_, name); }

void Daemon::start(const std::function<std::vector<std::string>(int port)>& argv_for)
{
    // Another process may take the free port before the server binds it.
    for (int attempt = 0; attempt < 3 && pid_ <= 0; ++attempt) {
        close(bound_socket(&port_, 0));
        launch(argv_for(port_));
    }
    if (pid_ <= 0) std::fprintf(stderr, "%s\n", error_.c_str());
}

void Daemon::launch(const std::vector<std::string>& argv)
{
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    const std::string out = dir_ + "/server.out";
    pid_t pid = fork();
    if (pid == 0) {
        setpgid(0, 0);
        int fd = open(out.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        for (int to : {1, 2}) dup2(fd, to);
        dup2(open("/dev/null", O_RDONLY), 0);
        execv(args[0], args.data());
        _exit(127);
    }
    if (pid < 0) return void(error_ = "fork failed");
    setpgid(pid, pid);
    pid_ = pid;
    bool exited = false;
    auto up = [&] { return (exited = waitpid(pid, nullptr, WNOHANG) == pid) || accepts(port_); };
    if (wait_until(up) && !exited) return;
    error_ = argv[0] + (exited ? " exited early: " : " did not accept connections: ") + slurp(out);
    if (exited) pid_ = 0;
    stop();
}

void Daemon::stop()
{
    if (pid_ <= 0) return;
    kill(-pid_, SIGTERM);
    bool reaped = wait_until([this] { return waitpid(pid_, nullptr, WNOHANG) == pid_; });
    kill(-pid_, SIGKILL);  // also the session processes the server forked
    if (!reaped) waitpid(pid_, nullptr, 0);
    pid_ = 0;
}

Nginx::Nginx(const std::string& dir, const std::string& docroot, const std::string& server_conf,
             bool tls)
    : Daemon(dir, tls ? "https" : "http")
{
    mkdir((dir + "/tmp").c_str(), 0700);
    std::string temps;
    for (const char* t : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"})
        temps += std::string("  ") + t + "_temp_path " + dir + "/tmp/" + t + ";\n";
    // The small send buffer keeps the bytes logged as sent close to what the
    // client read before it closed a connection.
    start([&](int port) {
        std::ofstream(dir + "/nginx.conf")
            << "daemon off;\nmaster_process off;\nworker_processes 1;\n"
            << "error_log " << dir << "/error.log;\npid " << dir << "/nginx.pid;\n"
            << "events { worker_connections 64; }\nhttp {\n" << temps
            << "  log_format kor '$status $body_bytes_sent \"$http_range\"';\n"
            << "  access_log " << dir << "/access.log kor;\n"
            << "  default_type application/octet-stream;\n  sendfile on;\n"
            << "  server {\n    listen 127.0.0.1:" << port << (tls ? " ssl" : "")
            << " sndbuf=64k;\n    root " << docroot << ";\n" << server_conf << "  }\n}\n";
        return std::vector<std::string>{"/usr/sbin/nginx", "-p", dir, "-c", dir + "/nginx.conf",
                                        "-e", dir + "/error.log"};
    });
}

std::vector<Served> Nginx::log(size_t at_least) const
{
    std::vector<Served> out;
    wait_until([&] {
        out.clear();
        std::istringstream in(slurp(dir_ + "/access.log"));
        for (std::string line; std::getline(in, line);) {
            Served s;
            char range[256] = "";
            if (sscanf(line.c_str(), "%d %" SCNu64 " \"%255[^\"]", &s.status, &s.bytes, range) == 3)
                out.push_back({s.status, s.bytes, std::string(range) == "-" ? "" : range});
        }
        return out.size() >= at_least;
    });
    return out;
}

Vsftpd::Vsftpd(const std::string& dir, const std::string& root) : Daemon(dir, "ftp")
{
    mkdir((dir + "/empty").c_str(), 0555);
    start([&](int port) {
        std::ofstream(dir + "/vsftpd.conf")
            << "listen=YES\nlisten_ipv6=NO\nlisten_address=127.0.0.1\nlisten_port=" << port
            << "\nbackground=NO\nseccomp_sandbox=NO\nisolate=NO\nisolate_network=NO\n"
            << "anonymous_enable=YES\nno_anon_password=YES\nlocal_enable=NO\nwrite_enable=NO\n"
            << "anon_root=" << root << "\nsecure_chroot_dir=" << dir << "/empty\n"
            << "pasv_enable=YES\npasv_address=127.0.0.1\nport_enable=NO\n"
            << "xferlog_enable=YES\nxferlog_std_format=NO\nlog_ftp_protocol=YES\n"
            << "vsftpd_log_file=" << dir << "/vsftpd.log\nsyslog_enable=NO\n"
            << "hide_ids=YES\nuse_localtime=NO\n";
        return std::vector<std::string>{"/usr/sbin/vsftpd", dir + "/vsftpd.conf"};
    });
}

FtpLog Vsftpd::log(size_t downloads) const
{
    FtpLog out;
    wait_until([&] {
        out = FtpLog{};
        std::istringstream in(slurp(dir_ + "/vsftpd.log"));
        for (std::string line; std::getline(in, line);) {
            size_t rest = line.find("\"REST ");
            if (rest != std::string::npos) out.rests.push_back(std::stoull(line.substr(rest + 6)));
            if (line.find("DOWNLOAD: ") != std::string::npos) ++out.downloads;
        }
        return out.downloads >= downloads;
    });
    return out;
}

Scripted::Scripted(std::vector<std::string> responses, int stall_ms)
    : responses_(std::move(responses)), stall_ms_(stall_ms)
{
    listen_fd_ = bound_socket(&port_, 8);
    if (listen_fd_ >= 0) thread_ = std::thread([this] { serve(); });
}

Scripted::~Scripted()
{
    stop_ = true;
    if (thread_.joinable()) thread_.join();
    close(listen_fd_);
}

std::string Scripted::url(const std::string& name) const { return url_of("http", port_, name); }

std::vector<std::string> Scripted::ranges() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return ranges_;
}

void Scripted::serve()
{
    while (!stop_) {
        pollfd p{listen_fd_, POLLIN, 0};
        int fd = poll(&p, 1, 100) > 0 ? accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC) : -1;
        if (fd < 0) continue;
        timeval t{5, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &t, sizeof t);
        setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &t, sizeof t);
        std::string request;
        char buf[1024];
        ssize_t n = 1;
        while (request.find("\r\n\r\n") == std::string::npos && request.size() < 16384 &&
               (n = recv(fd, buf, sizeof buf, 0)) > 0)
            request.append(buf, static_cast<size_t>(n));
        size_t served = 0;
        if (n > 0) {
            size_t at = request.find("\r\nRange: "), end = request.find('\r', at + 9);
            std::lock_guard<std::mutex> lock(mutex_);
            served = ranges_.size();
            ranges_.push_back(at == std::string::npos ? "" : request.substr(at + 9, end - at - 9));
        }
        const std::string& response = responses_[std::min(served, responses_.size() - 1)];
        for (size_t sent = 0; n > 0 && sent < response.size(); sent += static_cast<size_t>(n))
            n = send(fd, response.data() + sent, response.size() - sent, MSG_NOSIGNAL);
        if (n > 0) std::this_thread::sleep_for(std::chrono::milliseconds(stall_ms_));
        close(fd);
    }
}

}  // namespace servers
