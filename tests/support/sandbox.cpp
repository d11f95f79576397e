#include "support/sandbox.h"

#include <fcntl.h>
#include <linux/loop.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace sandbox {
namespace {

using Strings = std::vector<std::string>;
const std::string kWork = "/run/kor/work", kPrivate = "/dev/.sandbox", kEtcLayer = "/run/kor/etc";
// Bound below /run/kor: reachable even when they live under a directory the sandbox covers.
const std::pair<std::string, std::string> kTrees[] = {{KOR_BUILD_DIR, "/run/kor/build"}, {KOR_SOURCE_DIR, "/run/kor/src"}};
int g_loop_control = -1;

void check(bool ok, const std::string& what) { if (!ok) std::perror(("sandbox: " + what).c_str()), std::abort(); }

void mkdirs(const std::string& path)
{
    std::error_code e;
    check(std::filesystem::create_directories(path, e) || !e, "mkdir " + path);
}

void mount_at(const std::string& from, const std::string& at, const char* type, const std::string& data = "")
{
    check(mount(from.c_str(), at.c_str(), type, type ? 0 : MS_BIND, data.c_str()) == 0, "mount " + at);
}

void make_node(const std::string& p, mode_t m, dev_t dev) { unlink(p.c_str()), check(!mknod(p.c_str(), m, dev), "mknod " + p); }

// Moves the process into a private mount namespace, once; "" or why the sandbox is not available.
const std::string& enter()
{
    static const std::string why = []() -> std::string {
        if (geteuid() != 0) return "device tests need root (loop devices, mount namespaces); run: sudo scripts/test";
        if ((g_loop_control = open("/dev/loop-control", O_RDWR | O_CLOEXEC)) < 0)
            return std::string("cannot open /dev/loop-control: ") + std::strerror(errno);
        if (unshare(CLONE_NEWNS) != 0) return std::string("unshare(CLONE_NEWNS) failed: ") + std::strerror(errno);
        check(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "make / private");
        mount_at("tmpfs", "/run", "tmpfs", "mode=755");
        for (const auto& [host, at] : kTrees) mkdirs(at), mount_at(host, at, nullptr);
        mkdirs(kWork);
        // kor reads its keys and minimum release under /etc/kor: the tests get an /etc of their own (the host's, with
        // a writable layer on tmpfs), where each Device mounts an empty /etc/kor. The host's /etc stays untouched.
        mkdirs(kEtcLayer + "/upper"), mkdirs(kEtcLayer + "/work");
        if (mount("overlay", "/etc", "overlay", 0, ("lowerdir=/etc,upperdir=" + kEtcLayer + "/upper,workdir=" +
                  kEtcLayer + "/work").c_str()) != 0)
            return std::string("cannot lay a private layer over /etc (overlayfs): ") + std::strerror(errno);
        mkdirs(kEtcKor);
        return {};
    }();
    return why;
}

std::string map_host_path(const std::string& p)
{
    for (const auto& [host, at] : kTrees)
        if (p.rfind(host, 0) == 0) return at + p.substr(host.size());
    return p;
}

// Appends the "<PRI>timestamp KOR: text" datagrams waiting on the socket.
std::vector<LogLine> take_datagrams(int fd, std::vector<LogLine> lines = {})
{
    char buf[4096];
    for (ssize_t n; (n = recv(fd, buf, sizeof buf, MSG_DONTWAIT)) > 0;) {
        std::string d(buf, size_t(n));
        size_t k = d.find("KOR: "), gt = d[0] == '<' ? d.find('>') : std::string::npos;
        lines.push_back({gt == std::string::npos ? -1 : std::atoi(&d[1]) & 7, d.substr(k == d.npos ? gt + 1 : k + 5)});
    }
    return lines;
}

// argv, its program mapped into the sandbox; one built here (not a host tool) behind KOR_TEST_EMULATOR ("qemu-arm -L
// /sysroot"). LD_PRELOAD is meant for the emulated program: handed over with -E.
Strings in_sandbox(Strings argv)
{
    const char *e = std::getenv("KOR_TEST_EMULATOR"), *preload = std::getenv("LD_PRELOAD");
    std::istringstream words(e ? e : "");
    Strings out{std::istream_iterator<std::string>(words), {}};
    if ((argv[0] = map_host_path(argv[0])).rfind(kTrees[0].second + "/", 0) != 0 || out.empty()) return argv;
    if (preload) out.insert(out.end(), {"-E", "LD_PRELOAD=" + std::string(preload)}), unsetenv("LD_PRELOAD");
    return out.insert(out.end(), argv.begin(), argv.end()), out;
}

// A tree of a clone that lives below a directory the Device covers (a clone
// under /tmp) is bound back at its own path, so that tests reading their
// golden files or loading a plugin in the test process find them there.
void reveal_covered_trees(const Strings& covered)
{
    for (const auto& [host, at] : kTrees) {
        for (const std::string& dir : covered) {
            if (host.rfind(dir + "/", 0) != 0) continue;
            mkdirs(host);
            mount_at(at, host, nullptr);
        }
    }
}

}  // namespace

bool available(std::string* why) { return why ? (*why = enter()).empty() : enter().empty(); }

// A pseudo terminal (master, slave) or a pipe (read, write) in `ends`.
static void channel(bool tty, int ends[2])
{
    if (!tty) return check(pipe2(ends, O_CLOEXEC) == 0, "pipe");
    check((ends[0] = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) >= 0 && grantpt(ends[0]) == 0 &&
          unlockpt(ends[0]) == 0, "pty");
    check((ends[1] = open(ptsname(ends[0]), O_RDWR | O_NOCTTY | O_CLOEXEC)) >= 0, "pty slave");
}

// Starts argv with stdin empty and stdout and stderr each on a pipe or a pty.
int Device::spawn(Strings argv, const Strings& args, const RunOptions& o)
{
    argv.insert(argv.end(), args.begin(), args.end());
    int out[2], err[2];
    channel(o.stdout_tty, out), channel(o.stderr_tty, err);
    pid_t pid = fork();
    if (pid == 0) {
        dup2(open("/dev/null", O_RDONLY), 0), dup2(out[1], 1), dup2(err[1], 2);
        unsetenv("KOR_PRODUCT"), unsetenv("KOR_PLATFORM");
        for (const auto& [k, v] : o.env) setenv(k.c_str(), v.c_str(), 1);
        sigset_t none;
        sigemptyset(&none), sigprocmask(SIG_SETMASK, &none, nullptr);
        argv = in_sandbox(argv);
        std::vector<char*> c(argv.size() + 1);
        std::transform(argv.begin(), argv.end(), c.begin(), [](std::string& a) { return a.data(); });
        execvp(c[0], c.data()), _exit(127);
    }
    check(pid > 0, "fork"), close(out[1]), close(err[1]);
    return children_[pid] = {out[0], err[0]}, pid;
}

Device::Device()
{
    check(enter().empty(), "sandbox not available: " + enter());
    const Strings covered = {"/dev", "/tmp", "/mnt"};
    for (const std::string& at : {std::string("/dev"), std::string("/tmp"), std::string("/mnt"), kWork, kEtcKor})
        mount_at("tmpfs", at, "tmpfs", at == "/tmp" ? "mode=1777" : "mode=755");
    reveal_covered_trees(covered);
    check(mkdir(kPrivate.c_str(), 0755) == 0 && mkdir("/dev/pts", 0755) == 0, "mkdir");
    for (auto [name, minor] : {std::pair{"null", 3}, {"zero", 5}, {"urandom", 9}})
        make_node(std::string("/dev/") + name, S_IFCHR | 0666, makedev(1, minor));
    mount_at("devpts", "/dev/pts", "devpts", "newinstance,ptmxmode=0666,mode=620");
    check(symlink("pts/ptmx", "/dev/ptmx") == 0, "symlink ptmx");
    sockaddr_un a{AF_UNIX, "/dev/log"};
    int big = 1 << 20, fd = syslog_fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    check(bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0, "bind /dev/log");
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &big, sizeof big);
    write_file(kPrivate + "/cmdline", "console=ttyS0\n");
    mount_at(kPrivate + "/cmdline", "/proc/cmdline", nullptr);
}

Device::~Device()
{
    for (const char* m : {"/proc/cmdline", "/mnt", "/dev/pts", "/dev", "/tmp", kWork.c_str(), kEtcKor.c_str()})
        umount2(m, MNT_DETACH);
    close(syslog_fd_), closelog();  // the test process may have logged through this socket
    for (int fd : loop_fds_) ioctl(fd, LOOP_CLR_FD, 0), close(fd);
}

std::string workdir() { return kWork; }

std::string Device::workdir() const { return kWork; }

void Device::with_default_layout(uint64_t part_size)
{
    for (int n : {3, 4, 5, 6, 7, 8, 11, 12, 13, 14, 15, 16, 17, 18}) add_partition(n, n < 5 ? kHostconfigPartSize : part_size);
}

// Binds a sparse file to a free loop device, cleared on last close.
void Device::add_block_device(const std::string& path, const bytes& content, uint64_t size)
{
    std::string backing = kPrivate + "/backing" + std::to_string(next_node_++);
    int file = open(backing.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    check(file >= 0 && ftruncate(file, off_t(std::max<uint64_t>(size, content.size()))) == 0, "create " + backing);
    check(pwrite(file, content.data(), content.size(), 0) == ssize_t(content.size()), "fill " + backing);
    loop_info64 info{};
    info.lo_flags = LO_FLAGS_AUTOCLEAR;
    mkdirs(path.substr(0, path.rfind('/')));
    for (int attempt = 0, idx, loop = -1; attempt < 200; attempt++, close(loop)) {  // taken by another test meanwhile
        check((idx = ioctl(g_loop_control, LOOP_CTL_GET_FREE)) >= 0, "LOOP_CTL_GET_FREE");
        make_node(path, S_IFBLK | 0600, makedev(7, unsigned(idx)));
        if ((loop = open(path.c_str(), O_RDWR | O_CLOEXEC)) >= 0 && ioctl(loop, LOOP_SET_FD, file) == 0)
            return check(ioctl(loop, LOOP_SET_STATUS64, &info) == 0, "LOOP_SET_STATUS64"), close(file),
                   loop_fds_.push_back(loop);
    }
    check(false, "no free loop device");
}

bytes Device::read(const std::string& path, uint64_t offset, uint64_t length) const
{
    bytes b(length);
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    check(fd >= 0, "open " + path);
    b.resize(size_t(std::max<ssize_t>(0, pread(fd, b.data(), length, off_t(offset))))), close(fd);
    return b;
}

void Device::write(const std::string& path, uint64_t offset, const bytes& data) const
{
    int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    check(fd >= 0 && pwrite(fd, data.data(), data.size(), off_t(offset)) == ssize_t(data.size()), "write " + path);
    fsync(fd), close(fd);
}

// Rewrites in place, as the bind over /proc/cmdline follows the inode.
void Device::write_file(const std::string& path, const std::string& text) const
{
    mkdirs(path.substr(0, path.rfind('/')));
    check(bool(std::ofstream(path, std::ios::binary).write(text.data(), std::streamsize(text.size()))), "create " + path);
}

std::string Device::read_file(const std::string& path) const
{
    return {std::istreambuf_iterator<char>(std::ifstream(path, std::ios::binary).rdbuf()), {}};
}

bool Device::exists(const std::string& path) const { struct stat st; return lstat(path.c_str(), &st) == 0; }

void Device::set_cmdline(const std::string& text) { write_file(kPrivate + "/cmdline", text); }

std::string Device::stage(const std::string& host_path)
{
    std::string mapped = map_host_path(host_path), dst = kWork + "/stage" + mapped.substr(mapped.rfind('/'));
    return write_file(dst, read_file(mapped)), chmod(dst.c_str(), 0755), dst;
}

std::vector<LogLine> Device::take_log() { return take_datagrams(syslog_fd_); }

int Device::spawn_kor(const Strings& args, const RunOptions& o) { return spawn({KOR_BINARY}, args, o); }

int Device::worker_pid(int parent_pid)
{
    int pid = 0;
    std::ifstream("/proc/" + std::to_string(parent_pid) + "/task/" + std::to_string(parent_pid) + "/children") >> pid;
    return pid;
}

RunResult Device::wait(int pid, int timeout_ms)
{
    RunResult r;
    auto [out, err] = children_.extract(pid).mapped();
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    pollfd fds[3] = {{out, POLLIN, 0}, {err, POLLIN, 0}, {syslog_fd_, POLLIN, 0}};
    int status = 0;
    bool exited = false, timed_out = false;
    // A pty reports no end of file: stop once the process is gone and nothing came.
    for (bool got = true; !exited || (got && (fds[0].fd >= 0 || fds[1].fd >= 0));) {
        exited = exited || waitpid(pid, &status, WNOHANG) == pid;
        r.log = take_datagrams(syslog_fd_, std::move(r.log));  // all of them once it has exited
        if ((timed_out = std::chrono::steady_clock::now() > deadline)) {
            if (int w = worker_pid(pid); w > 0) kill(w, SIGKILL);
            if (!exited) kill(pid, SIGKILL), waitpid(pid, &status, 0);
            break;
        }
        poll(fds, 3, exited ? 50 : 10), got = false;
        char buf[65536];
        for (int i = 0; i < 2; i++) {  // poll leaves revents 0 for a closed (negative) fd
            ssize_t n = fds[i].revents ? ::read(fds[i].fd, buf, sizeof buf) : 0;
            if (n > 0) got = true, (i ? r.err : r.out).append(buf, size_t(n));
            else if (fds[i].revents) fds[i].fd = -1;
        }
    }
    close(out), close(err);
    if (!timed_out) r.status = WIFEXITED(status) ? WEXITSTATUS(status) : WIFSIGNALED(status) ? 128 + WTERMSIG(status) : -1;
    return r;
}

RunResult Device::kor(const Strings& args, const RunOptions& o) { return wait(spawn_kor(args, o)); }

RunResult Device::run(const Strings& argv, const RunOptions& o) { return wait(spawn({}, argv, o)); }

}  // namespace sandbox
