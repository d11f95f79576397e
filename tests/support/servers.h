// Servers for URL transfer tests, all on 127.0.0.1: nginx (http), vsftpd
// (ftp) and a scripted HTTP server that answers with fixed bytes (faults).
// Each keeps its config and logs in a directory of the test (created if
// missing) and stops, with every process it forked, when destroyed.
// Start them after a sandbox::Device exists, so that they run in the
// sandbox's namespaces and kor reaches them.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace servers {

// A server program on a free port, run in a process group of its own.
class Daemon {
public:
    ~Daemon() { stop(); }
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;
    bool ok() const { return pid_ > 0; }                 // else it printed why to stderr
    const std::string& error() const { return error_; }  // why it did not start
    std::string url(const std::string& name) const;     // <scheme>://127.0.0.1:<port>/name

protected:
    Daemon(const std::string& dir, const char* scheme);
    // Runs `argv_for(port)` (writes the config, returns the command) on a free port.
    void start(const std::function<std::vector<std::string>(int port)>& argv_for);
    std::string dir_;

private:
    void launch(const std::vector<std::string>& argv);
    void stop();
    const char* scheme_;
    int port_ = 0, pid_ = 0;
    std::string error_;
};

struct Served {          // one request as nginx logged it
    int status = 0;
    uint64_t bytes = 0;  // body bytes handed to the kernel (64 KiB send buffer)
    std::string range;   // Range request header ("" when none)
};

class Nginx : public Daemon {
public:
    // `server_conf`: more lines for the server block; `tls`: https with the
    // ssl_certificate lines that `server_conf` then holds.
    Nginx(const std::string& dir, const std::string& docroot, const std::string& server_conf = "",
          bool tls = false);
    std::vector<Served> log(size_t at_least = 0) const;  // once it holds `at_least` (bounded wait)
};

struct FtpLog {
    size_t downloads = 0;         // finished or aborted
    std::vector<uint64_t> rests;  // REST offsets the clients sent, in order
};

// Anonymous read-only ftp of `root` (which must not be writable by others).
class Vsftpd : public Daemon {
public:
    Vsftpd(const std::string& dir, const std::string& root);
    FtpLog log(size_t downloads = 0) const;  // once `downloads` are logged (bounded wait)
};

// HTTP server in a thread of the test process: reads each request, answers
// the i-th with responses[i] (the last one again for any further request:
// status line, headers and body as sent, possibly cut short), keeps the
// connection open for `stall_ms` more and closes it.
class Scripted {
public:
    explicit Scripted(std::string response) : Scripted(std::vector<std::string>{response}) {}
    explicit Scripted(std::vector<std::string> responses, int stall_ms = 0);
    ~Scripted();
    Scripted(const Scripted&) = delete;
    Scripted& operator=(const Scripted&) = delete;
    std::string url(const std::string& name) const;
    std::vector<std::string> ranges() const;  // Range header of each request ("" when none)

private:
    void serve();
    std::vector<std::string> responses_;
    int stall_ms_;
    int listen_fd_ = -1, port_ = 0;
    std::atomic<bool> stop_{false};
    mutable std::mutex mutex_;
    std::vector<std::string> ranges_;
    std::thread thread_;
};

}  // namespace servers
