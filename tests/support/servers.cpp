#include "support/servers.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

namespace servers {
namespace {

using clock = std::chrono::steady_clock;
constexpr auto kStartLimit = std::chrono::seconds(10);
constexpr auto kStopLimit = std::chrono::seconds(5);
constexpr auto kLogLimit = std::chrono::seconds(5);
constexpr auto kPoll = std::chrono::milliseconds(20);

sockaddr_in loopback(int port)
{
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return a;
}

bool accepts(int port)
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    sockaddr_in a = loopback(port);
    bool ok = connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
    close(fd);
    return ok;
}

std::string slurp(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

void write_text(const std::string& path, const std::string& text)
{
    std::ofstream(path, std::ios::binary) << text;
}

// Polls `get` until `enough` says yes or the limit passes; returns the last value.
template <typename T, typename Get, typename Enough>
T wait_for(Get get, Enough enough)
{
    auto end = clock::now() + kLogLimit;
    T v = get();
    while (!enough(v) && clock::now() < end) {
        std::this_thread::sleep_for(kPoll);
        v = get();
    }
    return v;
}

// Lines of `text` that contain `marker`.
std::vector<std::string> lines_with(const std::string& text, const std::string& marker)
{
    std::vector<std::string> out;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line))
        if (line.find(marker) != std::string::npos) out.push_back(line);
    return out;
}

bool send_all(int fd, const void* data, size_t n)
{
    const char* p = static_cast<const char*>(data);
    while (n > 0) {
        ssize_t w = send(fd, p, n, MSG_NOSIGNAL);
        if (w <= 0) return false;
        p += w;
        n -= static_cast<size_t>(w);
    }
    return true;
}

}  // namespace

int free_port()
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a = loopback(0);
    socklen_t len = sizeof a;
    int port = 0;
    if (fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) == 0) {
        port = ntohs(a.sin_port);
    }
    if (fd >= 0) close(fd);
    return port;
}

// ---- Process --------------------------------------------------------------

Process::~Process() { stop(); }

bool Process::start(const std::vector<std::string>& argv, const std::string& log_path, int port)
{
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    pid_t pid = fork();
    if (pid < 0) {
        error_ = "fork failed";
        return false;
    }
    if (pid == 0) {
        setpgid(0, 0);
        int fd = open(log_path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        int null = open("/dev/null", O_RDONLY);
        if (fd >= 0) {
            dup2(fd, 1);
            dup2(fd, 2);
        }
        if (null >= 0) dup2(null, 0);
        execv(args[0], args.data());
        _exit(127);
    }
    setpgid(pid, pid);
    pid_ = pid;
    for (auto end = clock::now() + kStartLimit; clock::now() < end;) {
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = 0;
            error_ = argv[0] + " exited early: " + slurp(log_path);
            return false;
        }
        if (accepts(port)) return true;
        std::this_thread::sleep_for(kPoll);
    }
    error_ = argv[0] + " did not accept connections: " + slurp(log_path);
    stop();
    return false;
}

void Process::stop()
{
    if (pid_ <= 0) return;
    kill(-pid_, SIGTERM);
    int status = 0;
    for (auto end = clock::now() + kStopLimit; clock::now() < end;) {
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
            kill(-pid_, SIGKILL);  // forked session processes still alive
            pid_ = 0;
            return;
        }
        std::this_thread::sleep_for(kPoll);
    }
    kill(-pid_, SIGKILL);
    waitpid(pid_, &status, 0);
    pid_ = 0;
}

// ---- nginx ----------------------------------------------------------------

Nginx::Nginx(const std::string& dir, const std::string& docroot) : dir_(dir)
{
    mkdir((dir_ + "/tmp").c_str(), 0700);
    for (int attempt = 0; attempt < 3 && !ok_; ++attempt) {
        port_ = free_port();
        std::string temps;
        for (const char* t : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"})
            temps += std::string("  ") + t + "_temp_path " + dir_ + "/tmp/" + t + ";\n";
        write_text(dir_ + "/nginx.conf",
                   "daemon off;\nmaster_process off;\nworker_processes 1;\n"
                   "error_log " + dir_ + "/error.log;\npid " + dir_ + "/nginx.pid;\n"
                   "events { worker_connections 64; }\n"
                   "http {\n" + temps +
                   "  log_format kor '$status $body_bytes_sent \"$http_range\"';\n"
                   "  access_log " + dir_ + "/access.log kor;\n"
                   "  default_type application/octet-stream;\n"
                   "  sendfile on;\n"
                   "  server {\n    listen 127.0.0.1:" + std::to_string(port_) + " sndbuf=64k;\n"
                   "    root " + docroot + ";\n  }\n}\n");
        ok_ = proc_.start({"/usr/sbin/nginx", "-p", dir_, "-c", dir_ + "/nginx.conf", "-e",
                           dir_ + "/error.log"},
                          dir_ + "/nginx.out", port_);
    }
}

std::string Nginx::url(const std::string& name) const
{
    return "http://127.0.0.1:" + std::to_string(port_) + "/" + name;
}

std::vector<Served> Nginx::log(size_t at_least) const
{
    auto parse = [this] {
        std::vector<Served> out;
        for (const auto& line : lines_with(slurp(dir_ + "/access.log"), " \"")) {
            Served s;
            char range[256] = "";
            if (std::sscanf(line.c_str(), "%d %" SCNu64 " \"%255[^\"]\"", &s.status, &s.bytes,
                            range) != 3) {
                continue;
            }
            s.range = std::strcmp(range, "-") == 0 ? "" : range;
            out.push_back(s);
        }
        return out;
    };
    return wait_for<std::vector<Served>>(parse, [at_least](const std::vector<Served>& v) {
        return v.size() >= at_least;
    });
}

// ---- vsftpd ---------------------------------------------------------------

Vsftpd::Vsftpd(const std::string& dir, const std::string& root) : dir_(dir)
{
    mkdir((dir_ + "/empty").c_str(), 0555);
    for (int attempt = 0; attempt < 3 && !ok_; ++attempt) {
        port_ = free_port();
        write_text(dir_ + "/vsftpd.conf",
                   "listen=YES\nlisten_ipv6=NO\nlisten_address=127.0.0.1\n"
                   "listen_port=" + std::to_string(port_) + "\n"
                   "background=NO\nseccomp_sandbox=NO\nisolate=NO\nisolate_network=NO\n"
                   "anonymous_enable=YES\nno_anon_password=YES\nlocal_enable=NO\n"
                   "write_enable=NO\nanon_root=" + root + "\n"
                   "secure_chroot_dir=" + dir_ + "/empty\n"
                   "pasv_enable=YES\npasv_address=127.0.0.1\nport_enable=NO\n"
                   "xferlog_enable=YES\nxferlog_std_format=NO\nlog_ftp_protocol=YES\n"
                   "vsftpd_log_file=" + dir_ + "/vsftpd.log\nsyslog_enable=NO\n"
                   "hide_ids=YES\nuse_localtime=NO\n");
        ok_ = proc_.start({"/usr/sbin/vsftpd", dir_ + "/vsftpd.conf"}, dir_ + "/vsftpd.out",
                          port_);
    }
}

std::string Vsftpd::url(const std::string& name) const
{
    return "ftp://127.0.0.1:" + std::to_string(port_) + "/" + name;
}

std::string Vsftpd::log_text(size_t downloads) const
{
    return wait_for<std::string>([this] { return slurp(dir_ + "/vsftpd.log"); },
                                 [&](const std::string& t) {
                                     return lines_with(t, "DOWNLOAD: ").size() >= downloads;
                                 });
}

std::vector<uint64_t> Vsftpd::rests(size_t downloads) const
{
    std::vector<uint64_t> out;
    for (const auto& line : lines_with(log_text(downloads), "\"REST "))
        out.push_back(std::stoull(line.substr(line.find("\"REST ") + 6)));
    return out;
}

std::vector<uint64_t> Vsftpd::downloads(size_t at_least) const
{
    // ... DOWNLOAD: Client "127.0.0.1", "/img.velk", 12345 bytes, ...
    std::vector<uint64_t> out;
    for (const auto& line : lines_with(log_text(at_least), "DOWNLOAD: ")) {
        size_t end = line.find(" bytes");
        size_t start = line.rfind(", ", end);
        if (end != std::string::npos && start != std::string::npos)
            out.push_back(std::stoull(line.substr(start + 2, end - start - 2)));
    }
    return out;
}

// ---- scripted HTTP server -------------------------------------------------

Scripted::Scripted(Fault fault, std::vector<uint8_t> image)
    : fault_(fault), image_(std::move(image))
{
    listen_fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a = loopback(0);
    socklen_t len = sizeof a;
    if (listen_fd_ < 0 || bind(listen_fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
        listen(listen_fd_, 8) != 0 ||
        getsockname(listen_fd_, reinterpret_cast<sockaddr*>(&a), &len) != 0) {
        return;
    }
    port_ = ntohs(a.sin_port);
    thread_ = std::thread([this] { serve(); });
}

Scripted::~Scripted()
{
    stop_ = true;
    if (thread_.joinable()) thread_.join();
    if (listen_fd_ >= 0) close(listen_fd_);
}

std::string Scripted::url(const std::string& name) const
{
    return "http://127.0.0.1:" + std::to_string(port_) + "/" + name;
}

std::vector<std::string> Scripted::ranges() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return ranges_;
}

void Scripted::serve()
{
    while (!stop_) {
        pollfd p{listen_fd_, POLLIN, 0};
        if (poll(&p, 1, 100) <= 0) continue;
        int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) continue;
        timeval t{5, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &t, sizeof t);
        setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &t, sizeof t);
        answer(fd);
        close(fd);
    }
}

void Scripted::answer(int fd)
{
    std::string request;
    char buf[1024];
    while (request.find("\r\n\r\n") == std::string::npos && request.size() < 16384) {
        ssize_t r = recv(fd, buf, sizeof buf, 0);
        if (r <= 0) return;
        request.append(buf, static_cast<size_t>(r));
    }
    std::string range;
    size_t at = request.find("\r\nRange: ");
    if (at != std::string::npos) {
        at += 9;
        range = request.substr(at, request.find("\r\n", at) - at);
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ranges_.push_back(range);
    }
    uint64_t size = image_.size();
    uint64_t start = 0;
    bool partial = fault_ != Fault::ignore_range &&
                   std::sscanf(range.c_str(), "bytes=%" SCNu64 "-", &start) == 1;
    std::string head;
    if (partial && start >= size) {
        head = "HTTP/1.1 416 Range Not Satisfiable\r\nContent-Range: bytes */" +
               std::to_string(size) + "\r\nContent-Length: 0\r\n";
        start = size;
    } else if (partial) {
        head = "HTTP/1.1 206 Partial Content\r\nContent-Range: bytes " + std::to_string(start) +
               "-" + std::to_string(size - 1) + "/" + std::to_string(size) + "\r\n";
    } else {
        start = 0;
        head = "HTTP/1.1 200 OK\r\n";
    }
    uint64_t length = size - start;
    if (head.find("Content-Length") == std::string::npos)
        head += "Content-Length: " + std::to_string(length) + "\r\n";
    if (fault_ == Fault::long_header) head += "X-Padding: " + std::string(1200, 'x') + "\r\n";
    head += "Connection: close\r\n\r\n";
    if (!send_all(fd, head.data(), head.size())) return;
    if (fault_ == Fault::drop_mid_body) length /= 2;
    send_all(fd, image_.data() + start, length);
}

}  // namespace servers
