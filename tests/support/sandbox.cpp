// The private simulated device used by the tests.
#include "support/sandbox.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
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
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>

namespace sandbox {
namespace {

constexpr const char* kStage = "/run/kor";
constexpr const char* kWork = "/run/kor/work";
constexpr const char* kPrivate = "/dev/.sandbox";

int g_loop_control = -1;
bool g_entered = false;
std::string g_why;

[[noreturn]] void die(const std::string& what)
{
    std::fprintf(stderr, "sandbox: %s: %s\n", what.c_str(), std::strerror(errno));
    std::abort();
}

void check(int r, const std::string& what)
{
    if (r != 0) die(what);
}

void mkdirs(const std::string& path)
{
    std::string cur;
    std::stringstream ss(path);
    std::string part;
    while (std::getline(ss, part, '/')) {
        if (part.empty()) continue;
        cur += "/" + part;
        if (mkdir(cur.c_str(), 0755) != 0 && errno != EEXIST) die("mkdir " + cur);
    }
}

void mount_tmpfs(const char* where, const char* mode)
{
    std::string opts = std::string("mode=") + mode;
    check(mount("tmpfs", where, "tmpfs", 0, opts.c_str()), std::string("mount tmpfs ") + where);
}

// Moves the process into a private mount namespace once. The build and
// source trees are bound below /run/kor first, so they stay reachable even
// when they live under a directory the sandbox covers.
bool enter()
{
    if (g_entered) return true;
    if (!g_why.empty()) return false;
    if (geteuid() != 0) {
        g_why = "device tests need root (loop devices, mount namespaces); run: sudo scripts/test";
        return false;
    }
    g_loop_control = open("/dev/loop-control", O_RDWR | O_CLOEXEC);
    if (g_loop_control < 0) {
        g_why = std::string("cannot open /dev/loop-control: ") + std::strerror(errno);
        return false;
    }
    if (unshare(CLONE_NEWNS) != 0) {
        g_why = std::string("unshare(CLONE_NEWNS) failed: ") + std::strerror(errno);
        return false;
    }
    check(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), "make / private");
    mount_tmpfs("/run", "755");
    mkdirs(std::string(kStage) + "/build");
    mkdirs(std::string(kStage) + "/src");
    mkdirs(kWork);
    check(mount(KOR_BUILD_DIR, "/run/kor/build", nullptr, MS_BIND, nullptr), "bind build dir");
    check(mount(KOR_SOURCE_DIR, "/run/kor/src", nullptr, MS_BIND, nullptr), "bind source dir");
    g_entered = true;
    return true;
}

std::string map_host_path(const std::string& p)
{
    const std::string build = KOR_BUILD_DIR;
    const std::string src = KOR_SOURCE_DIR;
    if (p.compare(0, build.size(), build) == 0) return "/run/kor/build" + p.substr(build.size());
    if (p.compare(0, src.size(), src) == 0) return "/run/kor/src" + p.substr(src.size());
    return p;
}

void make_node(const std::string& path, mode_t mode, dev_t dev)
{
    unlink(path.c_str());
    check(mknod(path.c_str(), mode, dev), "mknod " + path);
}

std::vector<LogLine> parse_datagrams(int fd)
{
    std::vector<LogLine> lines;
    char buf[4096];
    for (;;) {
        ssize_t n = recv(fd, buf, sizeof buf - 1, MSG_DONTWAIT);
        if (n <= 0) break;
        std::string d(buf, static_cast<size_t>(n));
        LogLine l{-1, d};
        if (d.size() > 2 && d[0] == '<') {
            l.priority = std::atoi(d.c_str() + 1) & 7;
            size_t k = d.find("KOR: ");
            l.text = k == std::string::npos ? d.substr(d.find('>') + 1) : d.substr(k + 5);
        }
        lines.push_back(l);
    }
    return lines;
}

int64_t now_ms()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// Binds `file` to the loop device, detached automatically on last close.
// qemu-user does not know LOOP_CONFIGURE: fall back to the two older calls.
bool attach_loop(int loop, int file)
{
    loop_config cfg{};
    cfg.fd = static_cast<uint32_t>(file);
    cfg.info.lo_flags = LO_FLAGS_AUTOCLEAR;
    if (ioctl(loop, LOOP_CONFIGURE, &cfg) == 0) return true;
    if (errno != ENOTTY && errno != EINVAL && errno != ENOSYS) return false;
    if (ioctl(loop, LOOP_SET_FD, file) != 0) return false;
    loop_info64 info{};
    info.lo_flags = LO_FLAGS_AUTOCLEAR;
    if (ioctl(loop, LOOP_SET_STATUS64, &info) == 0) return true;
    ioctl(loop, LOOP_CLR_FD, 0);
    return false;
}

// The words of KOR_TEST_EMULATOR ("qemu-arm -L /sysroot"): the command that
// runs the built binaries of a cross build. Empty for a native build.
std::vector<std::string> emulator()
{
    std::vector<std::string> words;
    const char* e = std::getenv("KOR_TEST_EMULATOR");
    std::stringstream ss(e ? e : "");
    for (std::string w; ss >> w;) words.push_back(w);
    return words;
}

// True for an ELF program built for the machine this test was built for,
// i.e. one of ours in a cross build (host tools such as mke2fs are not).
bool built_binary(const std::string& path)
{
    unsigned char h[20] = {}, self[20] = {};
    std::ifstream in(path, std::ios::binary);
    std::ifstream me("/proc/self/exe", std::ios::binary);
    if (!in.read(reinterpret_cast<char*>(h), sizeof h)) return false;
    if (!me.read(reinterpret_cast<char*>(self), sizeof self)) return false;
    return std::memcmp(h, "\177ELF", 4) == 0 && h[18] == self[18] && h[19] == self[19];
}

// argv with the emulator in front when `argv[0]` needs it. LD_PRELOAD of
// `env` is meant for the emulated program, not for the emulator: handed over
// with -E (the caller still sets it for a native run, where it is harmless).
std::vector<std::string> with_emulator(std::vector<std::string> argv,
                                       const std::map<std::string, std::string>& env = {})
{
    std::vector<std::string> e = emulator();
    if (e.empty() || !built_binary(argv[0])) return argv;
    auto preload = env.find("LD_PRELOAD");
    if (preload != env.end()) {
        unsetenv("LD_PRELOAD");
        e.push_back("-E");
        e.push_back("LD_PRELOAD=" + preload->second);
    }
    e.insert(e.end(), argv.begin(), argv.end());
    return e;
}

}  // namespace

bool available(std::string* why)
{
    bool ok = enter();
    if (!ok && why) *why = g_why;
    return ok;
}

std::string RunResult::log_text() const
{
    std::string s;
    for (const auto& l : log) s += l.text;
    return s;
}

struct Device::Impl {
    int syslog_fd = -1;
    std::vector<int> loop_fds;
    int next_node = 0;
    struct Child {
        int out = -1, err = -1;
    };
    std::map<int, Child> children;
};

Device::Device() : impl_(new Impl)
{
    if (!enter()) die("sandbox not available: " + g_why);
    mount_tmpfs("/dev", "755");
    mount_tmpfs("/tmp", "1777");
    mount_tmpfs("/mnt", "755");
    mount_tmpfs(kWork, "755");
    mkdirs(kPrivate);
    make_node("/dev/null", S_IFCHR | 0666, makedev(1, 3));
    make_node("/dev/zero", S_IFCHR | 0666, makedev(1, 5));
    make_node("/dev/urandom", S_IFCHR | 0666, makedev(1, 9));
    mkdirs("/dev/pts");
    check(mount("devpts", "/dev/pts", "devpts", 0, "newinstance,ptmxmode=0666,mode=620"),
          "mount devpts");
    check(symlink("pts/ptmx", "/dev/ptmx"), "symlink ptmx");

    impl_->syslog_fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::strcpy(a.sun_path, "/dev/log");
    check(bind(impl_->syslog_fd, reinterpret_cast<sockaddr*>(&a), sizeof a), "bind /dev/log");
    int big = 1 << 20;
    setsockopt(impl_->syslog_fd, SOL_SOCKET, SO_RCVBUF, &big, sizeof big);

    write_file(std::string(kPrivate) + "/cmdline", "console=ttyS0\n");
    check(mount((std::string(kPrivate) + "/cmdline").c_str(), "/proc/cmdline", nullptr, MS_BIND,
                nullptr),
          "bind /proc/cmdline");
}

Device::~Device()
{
    umount2("/proc/cmdline", MNT_DETACH);
    umount2("/mnt", MNT_DETACH);
    umount2("/dev/pts", MNT_DETACH);
    if (impl_->syslog_fd >= 0) close(impl_->syslog_fd);
    closelog();  // the test process may have logged through this socket
    for (int fd : impl_->loop_fds) {
        ioctl(fd, LOOP_CLR_FD, 0);
        close(fd);
    }
    umount2("/dev", MNT_DETACH);
    umount2("/tmp", MNT_DETACH);
    umount2(kWork, MNT_DETACH);
    delete impl_;
}

std::string Device::part(int n) { return "/dev/mmcblk0p" + std::to_string(n); }

std::string Device::workdir() const { return kWork; }

void Device::with_default_layout(uint64_t part_size)
{
    add_partition(3, kHostconfigPartSize);
    add_partition(4, kHostconfigPartSize);
    for (int n : {5, 6, 7, 8, 11, 12, 13, 14, 15, 16, 17, 18}) add_partition(n, part_size);
}

void Device::add_partition(int n, uint64_t size) { add_block_device(part(n), {}, size); }

void Device::add_block_device(const std::string& path, const bytes& content, uint64_t size)
{
    if (size < content.size()) size = content.size();
    std::string backing = std::string(kPrivate) + "/backing" + std::to_string(impl_->next_node++);
    int file = open(backing.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (file < 0) die("create " + backing);
    check(ftruncate(file, static_cast<off_t>(size)), "truncate " + backing);
    if (!content.empty() &&
        pwrite(file, content.data(), content.size(), 0) != static_cast<ssize_t>(content.size()))
        die("fill " + backing);
    for (int attempt = 0; attempt < 200; attempt++) {
        int idx = ioctl(g_loop_control, LOOP_CTL_GET_FREE);
        if (idx < 0) die("LOOP_CTL_GET_FREE");
        std::string node = std::string(kPrivate) + "/loop" + std::to_string(idx);
        make_node(node, S_IFBLK | 0600, makedev(7, static_cast<unsigned>(idx)));
        int loop = open(node.c_str(), O_RDWR | O_CLOEXEC);
        unlink(node.c_str());
        if (loop < 0) continue;
        if (!attach_loop(loop, file)) {
            close(loop);  // taken by another test process meanwhile
            continue;
        }
        close(file);
        impl_->loop_fds.push_back(loop);
        std::string dir = path.substr(0, path.rfind('/'));
        if (!dir.empty()) mkdirs(dir);
        make_node(path, S_IFBLK | 0600, makedev(7, static_cast<unsigned>(idx)));
        return;
    }
    die("no free loop device");
}

bytes Device::read(const std::string& path, uint64_t offset, uint64_t length) const
{
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) die("open " + path);
    bytes b(length);
    ssize_t n = pread(fd, b.data(), length, static_cast<off_t>(offset));
    close(fd);
    b.resize(n < 0 ? 0 : static_cast<size_t>(n));
    return b;
}

void Device::write(const std::string& path, uint64_t offset, const bytes& data) const
{
    int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0) die("open " + path);
    ssize_t n = pwrite(fd, data.data(), data.size(), static_cast<off_t>(offset));
    fsync(fd);
    close(fd);
    if (n != static_cast<ssize_t>(data.size())) die("write " + path);
}

void Device::write_file(const std::string& path, const std::string& text) const
{
    std::string dir = path.substr(0, path.rfind('/'));
    if (!dir.empty()) mkdirs(dir);
    FILE* f = std::fopen(path.c_str(), "w");
    if (!f) die("create " + path);
    std::fwrite(text.data(), 1, text.size(), f);
    std::fclose(f);
}

std::string Device::read_file(const std::string& path) const
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

bool Device::exists(const std::string& path) const
{
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

void Device::set_cmdline(const std::string& text)
{
    // Rewritten in place: the bind mount follows the inode.
    int fd = open((std::string(kPrivate) + "/cmdline").c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
    if (fd < 0) die("cmdline");
    if (::write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) die("cmdline");
    close(fd);
}

std::string Device::stage(const std::string& host_path)
{
    std::string mapped = map_host_path(host_path);
    std::string dst = std::string(kWork) + "/stage" + mapped.substr(mapped.rfind('/'));
    mkdirs(std::string(kWork) + "/stage");
    std::ifstream in(mapped, std::ios::binary);
    std::ofstream out(dst, std::ios::binary);
    out << in.rdbuf();
    out.close();
    chmod(dst.c_str(), 0755);
    return dst;
}

std::vector<LogLine> Device::take_log() { return parse_datagrams(impl_->syslog_fd); }

int Device::spawn_kor(const std::vector<std::string>& args, const RunOptions& o)
{
    std::vector<std::string> argv{map_host_path(KOR_BINARY)};
    argv.insert(argv.end(), args.begin(), args.end());
    int out[2], err[2], in[2];
    int tty_master = -1;
    if (o.stdout_tty) {
        tty_master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        if (tty_master < 0 || grantpt(tty_master) != 0 || unlockpt(tty_master) != 0)
            die("pty");
        out[0] = tty_master;
        out[1] = open(ptsname(tty_master), O_RDWR | O_NOCTTY | O_CLOEXEC);
        if (out[1] < 0) die("pty slave");
    } else {
        check(pipe2(out, O_CLOEXEC), "pipe");
    }
    check(pipe2(err, O_CLOEXEC), "pipe");
    check(pipe2(in, O_CLOEXEC), "pipe");
    pid_t pid = fork();
    if (pid < 0) die("fork");
    if (pid == 0) {
        dup2(in[0], 0);
        dup2(out[1], 1);
        dup2(err[1], 2);
        unsetenv("KOR_PRODUCT");
        unsetenv("KOR_PLATFORM");
        for (const auto& kv : o.env) setenv(kv.first.c_str(), kv.second.c_str(), 1);
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        argv = with_emulator(argv, o.env);
        std::vector<char*> cargv;
        for (auto& a : argv) cargv.push_back(const_cast<char*>(a.c_str()));
        cargv.push_back(nullptr);
        execvp(cargv[0], cargv.data());
        _exit(127);
    }
    close(out[1]);
    close(err[1]);
    close(in[0]);
    if (!o.stdin_data.empty()) {
        ssize_t w = ::write(in[1], o.stdin_data.data(), o.stdin_data.size());
        (void)w;
    }
    close(in[1]);
    impl_->children[pid] = Impl::Child{out[0], err[0]};
    return pid;
}

int Device::worker_pid(int parent_pid)
{
    std::ifstream in("/proc/" + std::to_string(parent_pid) + "/task/" +
                     std::to_string(parent_pid) + "/children");
    int pid = 0;
    in >> pid;
    return pid;
}

RunResult Device::wait(int pid, int timeout_ms)
{
    RunResult r;
    Impl::Child c = impl_->children[pid];
    impl_->children.erase(pid);
    int64_t deadline = now_ms() + timeout_ms;
    bool out_open = true, err_open = true;
    int status = 0;
    bool exited = false;
    while (out_open || err_open || !exited) {
        if (!exited && waitpid(pid, &status, WNOHANG) == pid) exited = true;
        if (now_ms() > deadline) {
            r.timed_out = true;
            int w = worker_pid(pid);
            if (w > 0) kill(w, SIGKILL);
            kill(pid, SIGKILL);
            if (!exited) waitpid(pid, &status, 0);
            exited = true;
            break;
        }
        pollfd fds[3] = {{c.out, POLLIN, 0}, {c.err, POLLIN, 0}, {impl_->syslog_fd, POLLIN, 0}};
        if (!out_open) fds[0].fd = -1;
        if (!err_open) fds[1].fd = -1;
        poll(fds, 3, exited ? 50 : 10);
        char buf[65536];
        for (int i = 0; i < 2; i++) {
            if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
            ssize_t n = ::read(fds[i].fd, buf, sizeof buf);
            if (n > 0) {
                (i == 0 ? r.out : r.err).append(buf, static_cast<size_t>(n));
            } else {
                (i == 0 ? out_open : err_open) = false;
            }
        }
        auto lines = parse_datagrams(impl_->syslog_fd);
        r.log.insert(r.log.end(), lines.begin(), lines.end());
        // A pty never reports end of file while the slave may still be open
        // elsewhere; once the process is gone and nothing is left, stop.
        if (exited && !(fds[0].revents & POLLIN) && !(fds[1].revents & POLLIN)) break;
    }
    close(c.out);
    close(c.err);
    auto lines = parse_datagrams(impl_->syslog_fd);
    r.log.insert(r.log.end(), lines.begin(), lines.end());
    if (r.timed_out)
        r.status = -1;
    else if (WIFEXITED(status))
        r.status = WEXITSTATUS(status);
    else if (WIFSIGNALED(status))
        r.status = 128 + WTERMSIG(status);
    return r;
}

RunResult Device::kor(const std::vector<std::string>& args, const RunOptions& o)
{
    return wait(spawn_kor(args, o), o.timeout_ms);
}

RunResult Device::run(const std::vector<std::string>& argv, const RunOptions& o)
{
    // spawn_kor prepends kor; build the child by hand for other programs.
    std::vector<std::string> args(argv.begin() + 1, argv.end());
    int out[2], err[2];
    check(pipe2(out, O_CLOEXEC), "pipe");
    check(pipe2(err, O_CLOEXEC), "pipe");
    pid_t pid = fork();
    if (pid < 0) die("fork");
    if (pid == 0) {
        int devnull = open("/dev/null", O_RDONLY);
        dup2(devnull, 0);
        dup2(out[1], 1);
        dup2(err[1], 2);
        for (const auto& kv : o.env) setenv(kv.first.c_str(), kv.second.c_str(), 1);
        std::vector<std::string> full{map_host_path(argv[0])};
        full.insert(full.end(), args.begin(), args.end());
        full = with_emulator(full, o.env);
        std::vector<char*> cargv;
        for (auto& a : full) cargv.push_back(const_cast<char*>(a.c_str()));
        cargv.push_back(nullptr);
        execvp(cargv[0], cargv.data());
        _exit(127);
    }
    close(out[1]);
    close(err[1]);
    impl_->children[pid] = Impl::Child{out[0], err[0]};
    return wait(pid, o.timeout_ms);
}

}  // namespace sandbox
