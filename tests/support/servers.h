// Real servers for URL transfer tests: nginx (http), vsftpd (ftp) and a
// small scripted HTTP/1.1 server for faults. All listen on 127.0.0.1 on an
// ephemeral port, keep their files in a directory of the test, and are
// stopped (with every process they forked) when the object goes away.
//
// Start them after a sandbox::Device exists, so that they run in the
// sandbox's namespaces and kor reaches them on 127.0.0.1.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace servers {

// A port on 127.0.0.1 that was free a moment ago.
int free_port();

// One served request as the server logged it.
struct Served {
    int status = 0;
    uint64_t bytes = 0;  // body bytes the server handed to the kernel
    std::string range;   // Range request header ("" when none)
};

// A server program run as a child process in a process group of its own.
class Process {
public:
    Process() = default;
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;
    // Runs argv with stdout/stderr into `log_path` and waits until 127.0.0.1:port
    // accepts connections. False (with `error()` telling why) when it does not.
    bool start(const std::vector<std::string>& argv, const std::string& log_path, int port);
    void stop();
    const std::string& error() const { return error_; }

private:
    int pid_ = 0;
    std::string error_;
};

class Nginx {
public:
    // Serves the files of `docroot`; config, logs, pid and temp files go to
    // `dir`. Its 64 KiB send buffer keeps the bytes it logs as sent close to
    // what the client read before closing a connection.
    Nginx(const std::string& dir, const std::string& docroot);
    bool ok() const { return ok_; }
    const std::string& error() const { return proc_.error(); }
    std::string url(const std::string& name) const;
    // The access log, after waiting (bounded) until it holds `at_least` entries.
    std::vector<Served> log(size_t at_least = 0) const;

private:
    std::string dir_;
    int port_ = 0;
    bool ok_ = false;
    Process proc_;
};

class Vsftpd {
public:
    // Anonymous read-only ftp of `root` (which must not be writable by others).
    Vsftpd(const std::string& dir, const std::string& root);
    bool ok() const { return ok_; }
    const std::string& error() const { return proc_.error(); }
    std::string url(const std::string& name) const;
    // REST offsets the clients sent, in order, and the bytes of each finished
    // download (waits bounded until `downloads` downloads are logged).
    std::vector<uint64_t> rests(size_t downloads = 0) const;
    std::vector<uint64_t> downloads(size_t at_least = 0) const;

private:
    std::string log_text(size_t downloads) const;
    std::string dir_;
    int port_ = 0;
    bool ok_ = false;
    Process proc_;
};

// HTTP/1.1 server in a thread of the test process, serving one image with a
// chosen fault. Ranges "bytes=N-" are honoured with 206 unless the fault
// says otherwise.
class Scripted {
public:
    enum class Fault {
        none,
        ignore_range,   // always 200 with the whole image, no Content-Range
        drop_mid_body,  // announces the whole length, sends half, closes
        long_header,    // adds a 1200-byte header line
    };
    Scripted(Fault fault, std::vector<uint8_t> image);
    ~Scripted();
    Scripted(const Scripted&) = delete;
    Scripted& operator=(const Scripted&) = delete;
    std::string url(const std::string& name) const;
    std::vector<std::string> ranges() const;  // Range header of each request

private:
    void serve();
    void answer(int fd);
    Fault fault_;
    std::vector<uint8_t> image_;
    int listen_fd_ = -1;
    int port_ = 0;
    std::atomic<bool> stop_{false};
    mutable std::mutex mutex_;
    std::vector<std::string> ranges_;
    std::thread thread_;
};

}  // namespace servers
