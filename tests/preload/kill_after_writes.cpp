// Preloaded into kor by the interruption tests: counts device writes (block devices under /dev/), kills the process
// at a chosen one.
//   KOR_KILL_AFTER_WRITES=k  SIGKILL right after the k-th device write
//   KOR_TORN_BYTES=b         ... which hands over only its first b bytes (-1: all)
//   KOR_KILL_DEVICES="p ..." count only writes to these device paths
//   KOR_KILL_MARK=text       instead of dying, write the text to /dev/console and stop there: on the emulated
//                            device the suite reads the line and cuts the power
//   KOR_WRITE_LOG=path       append "path length" for every device write
//   KOR_FAIL_WRITES_TO=path  every write to that device fails with EIO, as a worn-out or pulled medium's would
//   KOR_UNLINK_DELAY_MS=ms   sleep before removing a file named kor.lock, after creating KOR_UNLINK_MARK
// glibc's stdio reaches the kernel through its internal write, which no preload can replace, so a device stream opened
// with fopen is made unbuffered and each fwrite on it is one write: what the process has handed to the kernel when it
// dies is exactly what fwrite returned. Built with the C library's own off_t: pwrite and pwrite64 keep their names.
#undef _FILE_OFFSET_BITS
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

long env_number(const char* name) { const char* v = std::getenv(name); return v && *v ? std::atol(v) : -1; }

// A path in the space-separated list KOR_KILL_DEVICES, or any path when it is not set.
bool counted(const char* path)
{
    const char* list = std::getenv("KOR_KILL_DEVICES");
    if (!list || !*list) return true;
    for (const char* at = list; (at = std::strstr(at, path)) != nullptr; at++) {
        const char end = at[std::strlen(path)];
        if ((at == list || at[-1] == ' ') && (end == ' ' || end == '\0')) return true;
    }
    return false;
}

// Before a write of `length` bytes on `fd`: how many bytes to let through, and whether to die after. Pipes,
// files, /dev/null, terminals and consoles are not devices.
size_t admit(int fd, size_t length, bool* die)
{
    static const long kill_after = env_number("KOR_KILL_AFTER_WRITES"), torn = env_number("KOR_TORN_BYTES");
    static const char* log = std::getenv("KOR_WRITE_LOG");
    static long count = 0;
    char link[64], path[256], line[300];
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    ssize_t n = readlink(link, path, sizeof path - 1);
    path[n > 0 ? n : 0] = '\0';
    *die = false;
    struct stat st;
    if (std::strncmp(path, "/dev/", 5) != 0 || fstat(fd, &st) != 0 || !S_ISBLK(st.st_mode)) return length;
    if (int logfd = log && *log ? open(log, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600) : -1; logfd >= 0) {
        (void)syscall(SYS_write, logfd, line, size_t(std::snprintf(line, sizeof line, "%s %zu\n", path, length)));
        close(logfd);
    }
    *die = counted(path) && ++count == kill_after;
    return *die && torn >= 0 && size_t(torn) < length ? size_t(torn) : length;
}

// Whether writes on `fd` are to fail: it is the device KOR_FAIL_WRITES_TO names.
bool failing(int fd)
{
    static const char* target = std::getenv("KOR_FAIL_WRITES_TO");
    if (!target || !*target) return false;
    char link[64], path[256];
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    ssize_t n = readlink(link, path, sizeof path - 1);
    path[n > 0 ? n : 0] = '\0';
    return std::strcmp(path, target) == 0;
}

// The kernel keeps what was handed to it, as when a process is killed.
[[noreturn]] void die_now()
{
    if (const char* mark = std::getenv("KOR_KILL_MARK"); mark && *mark) {
        char line[200];
        int n = std::snprintf(line, sizeof line, "\n%s\n", mark);
        int con = open("/dev/console", O_WRONLY | O_CLOEXEC);
        (void)syscall(SYS_write, con, line, size_t(n));
        for (;;) pause();
    }
    raise(SIGKILL), _exit(137);
}

template <typename F> F* real(F*, const char* name) { return reinterpret_cast<F*>(dlsym(RTLD_NEXT, name)); }

// write, pwrite and pwrite64: the admitted bytes, then maybe death.
template <typename F, typename... Offset>
ssize_t cut(F* next, int fd, const void* buf, size_t n, Offset... offset)
{
    if (failing(fd)) return errno = EIO, -1;
    bool die = false;
    size_t pass = admit(fd, n, &die);
    ssize_t r = pass > 0 || !die ? next(fd, buf, pass, offset...) : 0;
    if (die) die_now();
    return r;
}

}  // namespace

extern "C" {

ssize_t write(int fd, const void* buf, size_t n) { return cut(real(&write, "write"), fd, buf, n); }

ssize_t pwrite(int fd, const void* buf, size_t n, off_t at) { return cut(real(&pwrite, "pwrite"), fd, buf, n, at); }

ssize_t pwrite64(int fd, const void* b, size_t n, off64_t at) { return cut(real(&pwrite64, "pwrite64"), fd, b, n, at); }

int unlink(const char* path)
{
    long ms = env_number("KOR_UNLINK_DELAY_MS");
    const char *base = std::strrchr(path, '/'), *mark = std::getenv("KOR_UNLINK_MARK");
    if (ms > 0 && std::strcmp(base ? base + 1 : path, "kor.lock") == 0) {
        if (mark) close(open(mark, O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
        for (timespec t{ms / 1000, (ms % 1000) * 1000000L}; nanosleep(&t, &t) != 0;) {}
    }
    return real(&unlink, "unlink")(path);
}

FILE* fopen(const char* path, const char* mode)
{
    FILE* f = real(&fopen, "fopen")(path, mode);
    if (f && std::strncmp(path, "/dev/", 5) == 0 && std::strpbrk(mode, "wa+")) std::setvbuf(f, nullptr, _IONBF, 0);
    return f;
}

FILE* fopen64(const char* path, const char* mode) { return fopen(path, mode); }

size_t fwrite(const void* buf, size_t size, size_t count, FILE* f)
{
    if (fileno(f) >= 0 && failing(fileno(f))) return errno = EIO, 0;
    bool die = false;
    size_t pass = fileno(f) < 0 || size == 0 ? 0 : admit(fileno(f), size * count, &die);
    if (!die) return real(&fwrite, "fwrite")(buf, size, count, f);
    if (pass > 0) (void)real(&fwrite, "fwrite")(buf, 1, pass, f);
    std::fflush(f), die_now();
}

}  // extern "C"
