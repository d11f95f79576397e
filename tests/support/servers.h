// URL installs in the sandbox: a release, the device it goes to and real servers
// on 127.0.0.1. Start servers after the sandbox::Device: they run in its namespaces.
#pragma once

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "support/sandbox.h"

namespace servers {

using strings = std::vector<std::string>;

// A release header, a KORM for set 1's KNLS, ROOTS and APPLS and their software
// parts, with random bodies of `sizes` bytes (64 at least).
struct Release {
    explicit Release(const std::vector<size_t>& sizes);
    std::string image;
    std::vector<sandbox::bytes> bodies;
    std::vector<size_t> ends;  // offset behind each body and its padding
};

// A device with the default layout and the release in `file`.
struct World {
    explicit World(const Release& r);
    // kor install <source> 1 <args>: expects `status`, `error` in stderr and no
    // password logged, then the bodies on set 1 or, after a refusal, no change.
    sandbox::RunResult install(const std::string& source, int status = 0, const std::string& error = "",
                               strings args = {});
    std::vector<sandbox::bytes> state() const;  // set 1's KNLS, ROOTS, APPLS, then hostconfig
    const Release& rel;
    sandbox::Device dev;
    const std::string www, file;
};

struct Endpoint { std::string scheme; int port = 0; std::string url(const std::string& name) const; };

// nginx ("http"; "https" with the certificate lines in `conf`, which its server
// block gets) or anonymous vsftpd ("ftp") serving the world's www, with its files
// in <workdir>/<scheme>, in a process group that is killed with it.
struct Daemon : Endpoint {
    struct Request { std::string range; uint64_t bytes; };  // Range header or "REST <offset>"; body bytes sent
    Daemon(const World& w, const std::string& scheme, const std::string& conf = "");
    ~Daemon() { if (pid > 0) kill(-pid, SIGKILL), waitpid(pid, nullptr, 0); }  // the group: its sessions too
    std::vector<Request> log(size_t at_least) const;  // once it holds `at_least` (bounded wait)
    const sandbox::Device& dev;
    std::string dir, error;  // why it did not start
    int pid = 0;             // 0: not running
};

size_t count(const std::string& text, const std::string& what);  // how often `what` occurs

// "HTTP/1.1 <status>" announcing `length` bytes (npos: the body's), then the first `sent` bytes of `body`.
std::string response(const std::string& status, const std::string& body, size_t length = std::string::npos,
                     size_t sent = std::string::npos);

// HTTP server in a thread: answers request i with responses[i] (the last for any
// further), keeps the connection `stall_ms` more, closes it.
struct Scripted : Endpoint {
    explicit Scripted(strings responses, int stall_ms = 0);
    ~Scripted() { ranges(), close(fd); }
    strings ranges();  // Range header of each request ("" when none); stops the server
    void serve();
    strings responses, requests;
    int stall_ms, fd = -1;
    std::thread thread;
};

}  // namespace servers
