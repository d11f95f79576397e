// A private simulated device for tests that run kor or open device paths.
//
// The first Device created in a test process moves the process into a
// private mount namespace. Each Device then mounts fresh tmpfs on /dev, /tmp
// and /mnt (and a staging tmpfs on /run holding a copy of the binaries), so
// nothing a test does is visible outside it. Partitions /dev/mmcblk0pN are
// real block devices: loop devices over sparse files, auto-detached when
// the Device (or the test process) goes away. A datagram socket is bound at
// /dev/log so tests read exactly what kor sent to syslog, and a file is
// bind-mounted over /proc/cmdline.
//
// Needs root. Tests call KOR_SANDBOX_OR_SKIP() first; as a normal user the
// test is skipped with the reason.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace sandbox {

// True when loop devices and mount namespaces can be used; else `why` says
// what is missing.
bool available(std::string* why);

#define KOR_SANDBOX_OR_SKIP()                                          \
    do {                                                               \
        std::string why_;                                              \
        if (!::sandbox::available(&why_)) GTEST_SKIP() << why_;        \
    } while (0)

using bytes = std::vector<uint8_t>;

struct LogLine {
    int priority;      // LOG_ERR, LOG_INFO, ... (facility stripped)
    std::string text;  // message text as kor formatted it
};

struct RunOptions {
    bool stdout_tty = false;                   // stdout on a pseudo terminal
    std::map<std::string, std::string> env;    // extra environment (KOR_PRODUCT, ...)
    int timeout_ms = 60000;                    // kill kor (parent and worker) after this
    std::string stdin_data;                    // written to kor's stdin

    // Chainable setters: RunOptions().tty().set("KOR_PRODUCT", "x").
    RunOptions& tty(bool on = true) { stdout_tty = on; return *this; }
    RunOptions& set(const std::string& k, const std::string& v) { env[k] = v; return *this; }
    RunOptions& timeout(int ms) { timeout_ms = ms; return *this; }
};

struct RunResult {
    int status = -1;   // exit status; 128+N when killed by signal N (timeout: -1)
    std::string out;   // stdout (also what went to the pty with stdout_tty)
    std::string err;   // stderr
    std::vector<LogLine> log;  // syslog datagrams sent during the run
    bool timed_out = false;
    // Convenience: all syslog texts joined.
    std::string log_text() const;
};

// Partition sizes of a device made by Device::with_default_layout().
constexpr uint64_t kHostconfigPartSize = 1 << 20;  // holds the flags at 0x3FE00

class Device {
public:
    Device();
    ~Device();
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    // /dev/mmcblk0p3 and p4 (hostconfig, 1 MiB) and the partitions of the
    // default layout (5-8, 11-18) of `part_size` bytes each.
    void with_default_layout(uint64_t part_size = 4 << 20);
    // /dev/mmcblk0pN as a loop device over a sparse file of `size` bytes.
    void add_partition(int n, uint64_t size);
    // Any other block device node (e.g. "/dev/mtd7") over a file with `content`.
    void add_block_device(const std::string& path, const bytes& content, uint64_t size = 0);
    // The path of the partition's device node.
    static std::string part(int n);

    bytes read(const std::string& path, uint64_t offset, uint64_t length) const;
    void write(const std::string& path, uint64_t offset, const bytes& data) const;
    void write_file(const std::string& path, const std::string& text) const;  // regular file
    std::string read_file(const std::string& path) const;
    bool exists(const std::string& path) const;

    // Text seen by kor as /proc/cmdline.
    void set_cmdline(const std::string& text);

    // Runs the production kor binary in the sandbox.
    RunResult kor(const std::vector<std::string>& args, const RunOptions& o = {});
    // Runs another program (argv[0] a path or a name found on PATH).
    RunResult run(const std::vector<std::string>& argv, const RunOptions& o = {});
    // Starts kor without waiting; returns its pid. Use wait() to collect.
    int spawn_kor(const std::vector<std::string>& args, const RunOptions& o = {});
    RunResult wait(int pid, int timeout_ms = 60000);
    // The pid of kor's worker process (the child of `parent_pid`), 0 if none yet.
    static int worker_pid(int parent_pid);

    // Syslog datagrams received since the last call.
    std::vector<LogLine> take_log();

    // A copy of a host file staged inside the sandbox (readable by kor);
    // returns its sandbox path. Use for plugins and images made outside.
    std::string stage(const std::string& host_path);
    // Directory for the test's own files (images, configs), on the sandbox tmpfs.
    std::string workdir() const;

private:
    struct Impl;
    Impl* impl_;
};

}  // namespace sandbox
