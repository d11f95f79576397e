// A private device for tests that run kor or open device paths. The first Device moves the test process into a private
// mount namespace; each Device mounts fresh tmpfs on /dev, /tmp, /mnt and kEtcKor (empty: no keys, no minimum
// release), loop devices over sparse files as partitions /dev/mmcblk0pN, a syslog socket at /dev/log and a file over
// /proc/cmdline. Needs root: call KOR_SANDBOX_OR_SKIP().
#pragma once
#include <gtest/gtest.h>

#include <map>

namespace sandbox {

// True when loop devices and mount namespaces can be used; else `why` says what is missing.
bool available(std::string* why);

#define KOR_SANDBOX_OR_SKIP() \
    do { if (std::string why_; !::sandbox::available(&why_)) GTEST_SKIP() << why_; } while (0)

using bytes = std::vector<uint8_t>;

struct LogLine { int priority; std::string text; };  // LOG_ERR, LOG_INFO, ... (no facility); text as kor formatted it

struct RunOptions {
    bool stdout_tty = false;                 // stdout on a pseudo terminal
    bool stderr_tty = false;                 // stderr on a pseudo terminal of its own
    std::map<std::string, std::string> env;  // extra environment (KOR_PRODUCT, ...)
    RunOptions& tty(bool on = true) { stdout_tty = on; return *this; }
    RunOptions& err_tty(bool on = true) { stderr_tty = on; return *this; }
    RunOptions& set(const std::string& k, const std::string& v) { env[k] = v; return *this; }
};

struct RunResult {
    int status = -1;  // exit status; 128+N when killed by signal N; -1 on timeout
    std::string out, err;
    std::vector<LogLine> log;  // syslog datagrams sent during the run
    std::string log_text() const { std::string s; for (const auto& l : log) s += l.text; return s; }
};

std::string workdir();  // the test's own directory on every Device's tmpfs: Device::workdir()

constexpr uint64_t kHostconfigPartSize = 1 << 20;  // p3 and p4; holds the flags at 0x3FE00
// kor's key directory and minimum release file live here (write_file() puts files there for a test).
const std::string kEtcKor = "/etc/kor";

class Device {
public:
    Device();
    ~Device();
    Device(const Device&) = delete;

    void with_default_layout(uint64_t part_size = 4 << 20);  // p3, p4 (hostconfig); 5-8, 11-18 of `part_size`
    void add_partition(int n, uint64_t size) { add_block_device(part(n), {}, size); }
    void add_block_device(const std::string& path, const bytes& content, uint64_t size = 0);  // "/dev/mtd7", ...
    static std::string part(int n) { return "/dev/mmcblk0p" + std::to_string(n); }

    bytes read(const std::string& path, uint64_t offset, uint64_t length) const;
    void write(const std::string& path, uint64_t offset, const bytes& data) const;
    void write_file(const std::string& path, const std::string& text) const;  // regular file
    std::string read_file(const std::string& path) const;
    bool exists(const std::string& path) const;
    void set_cmdline(const std::string& text);  // what kor reads as /proc/cmdline

    RunResult kor(const std::vector<std::string>& args, const RunOptions& o = {});
    RunResult run(const std::vector<std::string>& argv, const RunOptions& o = {});  // argv[0]: a path or on PATH
    int spawn_kor(const std::vector<std::string>& args, const RunOptions& o = {});  // its pid
    RunResult wait(int pid, int timeout_ms = 60000);  // then kor (parent and worker) is killed
    static int worker_pid(int parent_pid);  // kor's worker (child of `parent_pid`), 0 if none

    std::vector<LogLine> take_log();  // syslog datagrams received since the last call
    std::string stage(const std::string& host_path);  // a copy of a host file kor can read; its path
    std::string workdir() const;                      // for the test's own files, on the sandbox tmpfs

private:
    int spawn(std::vector<std::string> argv, const std::vector<std::string>& args, const RunOptions& o);
    int syslog_fd_ = -1, next_node_ = 0;
    std::vector<int> loop_fds_;
    std::map<int, std::pair<int, int>> children_;  // pid: its stdout and stderr
};

}  // namespace sandbox
