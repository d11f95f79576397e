// URL installs in the sandbox: a release, its device, servers on 127.0.0.1 (started after the Device: its namespaces).
#pragma once

#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "support/sandbox.h"

namespace servers {

using strings = std::vector<std::string>;

// A release header, a KORM for set 1's KNLS, ROOTS, APPLS and their software parts: random bodies of `sizes` (64+) bytes.
struct Release {
    explicit Release(const std::vector<size_t>& sizes);
    std::string image;
    std::vector<sandbox::bytes> bodies;
    std::vector<size_t> ends;  // offset behind each body and its padding
};

struct World {  // a device with the default layout and the release in `file`
    explicit World(const Release& r) : rel(r) { dev.with_default_layout(), dev.write_file(file, rel.image); }
    // kor install <source> 1 <args>: `status`, `error` in stderr, no password logged, set 1's bodies or, refused, no change.
    sandbox::RunResult install(const std::string& source, int status = 0, const std::string& error = "", strings args = {});
    const Release& rel;
    sandbox::Device dev;
    const std::string www = dev.workdir() + "/www", file = www + "/img.velk";
};

struct Endpoint { std::string scheme; int port = 0;
    std::string url(const std::string& name) const { return scheme + "://127.0.0.1:" + std::to_string(port) + "/" + name; }
};

// nginx ("http"; "https" with the certificate lines in `conf`, which its server block gets) or anonymous vsftpd ("ftp")
// serving the world's www, with its files in <workdir>/<scheme>, in a process group that is killed with it.
struct Daemon : Endpoint {
    struct Request { std::string range; uint64_t bytes; };  // Range header or "REST <offset>"; body bytes sent
    Daemon(const World& w, const std::string& scheme, const std::string& conf = "");
    ~Daemon() { if (pid > 0) kill(-pid, SIGKILL), waitpid(pid, nullptr, 0); }  // the group: its sessions too
    std::vector<Request> log(size_t at_least) const;  // once it holds `at_least` (bounded wait)
    std::string dir, error;  // why it did not start
    int pid = 0;             // 0: not running
};

inline size_t count(const std::string& text, const std::string& what, size_t from = 0)  // how often `what` occurs
{
    return (from = text.find(what, from)) == text.npos ? 0 : 1 + count(text, what, from + 1);
}

// "HTTP/1.1 <status>" announcing `length` bytes (npos: the body's), then the first `sent` bytes of `body`.
inline std::string response(const std::string& status, const std::string& body, size_t length = -1ul, size_t sent = -1ul)
{
    return "HTTP/1.1 " + status + "\r\nContent-Length: " + std::to_string(length == -1ul ? body.size() : length) +
           "\r\nConnection: close\r\n\r\n" + body.substr(0, sent);
}

// What the scripted server sends for one request, then how it ends the connection: closed after the stall, or at
// once, as a link that fails mid-transfer: closed (FIN: the client reads every byte sent) or reset (RST: the client's
// kernel drops what it has not handed on yet).
enum class Drop { none, close, reset };
struct Answer { std::string bytes; Drop drop = Drop::none; };

// HTTP server in a thread: answers request i with responses[i] (the last for any further), stalls `stall_ms` (less
// when the client closes first), closes.
struct Scripted : Endpoint {
    explicit Scripted(strings r, int stall_ms = 0) : Scripted(answers(r), stall_ms) {}
    explicit Scripted(const std::vector<Answer>& a, int stall_ms = 0);
    static std::vector<Answer> answers(const strings& r)
    {
        std::vector<Answer> a;
        for (const auto& bytes : r) a.push_back({bytes});
        return a;
    }
    ~Scripted() { ranges(), close(fd); }
    // Range header of each request ("" when none); stops the server (shutdown wakes accept).
    strings ranges() { return thread.joinable() ? shutdown(fd, SHUT_RDWR), thread.join(), requests : requests; }
    strings responses, requests;
    std::vector<Drop> drops;  // of each response
    int stall_ms, fd = -1;
    std::thread thread;
};

}  // namespace servers
