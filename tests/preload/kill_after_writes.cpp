// Preloaded into kor by the interruption tests: counts the writes that reach
// a device under /dev/ and kills the process at a chosen one.
//
//   KOR_KILL_AFTER_WRITES=k  SIGKILL right after the k-th device write
//   KOR_TORN_BYTES=b         ... and let the k-th write hand over only its
//                            first b bytes (a torn write)
//   KOR_WRITE_LOG=path       append "path length" for every device write
//   KOR_UNLINK_DELAY_MS=ms   sleep before removing a file named kor.lock,
//                            after creating the file KOR_UNLINK_MARK, to
//                            hold a run between its unlock and the removal
//
// glibc's stdio reaches the kernel through its internal write, which no
// preload can replace, so a device stream opened with fopen is made
// unbuffered and each fwrite on it is one write: what the process has
// handed to the kernel when it dies is then exactly what fwrite returned.
// write, pwrite, pwrite64 and writev are caught directly; the file is built
// with the C library's own off_t so that both entry points keep their names.
#undef _FILE_OFFSET_BITS
#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

long g_kill_after = -1;  // -1: never
long g_torn = -1;        // -1: the k-th write is whole
long g_count = 0;
int g_log = -1;
bool g_ready = false;

long env_number(const char* name)
{
    const char* v = std::getenv(name);
    return v && *v ? std::strtol(v, nullptr, 10) : -1;
}

void setup()
{
    if (g_ready) return;
    g_ready = true;
    g_kill_after = env_number("KOR_KILL_AFTER_WRITES");
    g_torn = env_number("KOR_TORN_BYTES");
    const char* log = std::getenv("KOR_WRITE_LOG");
    if (log && *log) g_log = static_cast<int>(syscall(SYS_open, log, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
}

// The device path behind a descriptor; false for anything not under /dev/
// (pipes, sockets, files) and for the character devices kor may touch.
bool is_device(int fd, char* path, size_t size)
{
    char link[64];
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    ssize_t n = readlink(link, path, size - 1);
    if (n <= 0) return false;
    path[n] = '\0';
    if (std::strncmp(path, "/dev/", 5) != 0) return false;
    return std::strcmp(path, "/dev/null") != 0 && std::strncmp(path, "/dev/pts/", 9) != 0;
}

void log_write(const char* path, size_t length)
{
    if (g_log < 0) return;
    char line[160];
    int n = std::snprintf(line, sizeof line, "%s %zu\n", path, length);
    if (n > 0) (void)syscall(SYS_write, g_log, line, static_cast<size_t>(n));
}

// Called before a device write of `length` bytes: how many bytes to let
// through (length, or fewer for the torn write), and whether to die after.
size_t admit(int fd, size_t length, bool* die)
{
    setup();
    *die = false;
    char path[256];
    if (!is_device(fd, path, sizeof path)) return length;
    ++g_count;
    log_write(path, length);
    if (g_kill_after < 0 || g_count != g_kill_after) return length;
    *die = true;
    if (g_torn >= 0 && static_cast<size_t>(g_torn) < length) return static_cast<size_t>(g_torn);
    return length;
}

[[noreturn]] void die_now()
{
    // fsync is not needed: the kernel keeps what was handed to it, as it
    // would when a process is killed.
    raise(SIGKILL);
    _exit(137);
}

template <typename F>
F real(const char* name)
{
    return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {

ssize_t write(int fd, const void* buf, size_t n)
{
    static auto next = real<ssize_t (*)(int, const void*, size_t)>("write");
    bool die = false;
    size_t pass = admit(fd, n, &die);
    ssize_t r = pass > 0 || !die ? next(fd, buf, pass) : 0;
    if (die) die_now();
    return r;
}

ssize_t pwrite(int fd, const void* buf, size_t n, off_t offset)
{
    static auto next = real<ssize_t (*)(int, const void*, size_t, off_t)>("pwrite");
    bool die = false;
    size_t pass = admit(fd, n, &die);
    ssize_t r = pass > 0 || !die ? next(fd, buf, pass, offset) : 0;
    if (die) die_now();
    return r;
}

ssize_t pwrite64(int fd, const void* buf, size_t n, off64_t offset)
{
    static auto next = real<ssize_t (*)(int, const void*, size_t, off64_t)>("pwrite64");
    bool die = false;
    size_t pass = admit(fd, n, &die);
    ssize_t r = pass > 0 || !die ? next(fd, buf, pass, offset) : 0;
    if (die) die_now();
    return r;
}

ssize_t writev(int fd, const struct iovec* iov, int count)
{
    static auto next = real<ssize_t (*)(int, const struct iovec*, int)>("writev");
    size_t total = 0;
    for (int i = 0; i < count; i++) total += iov[i].iov_len;
    bool die = false;
    size_t pass = admit(fd, total, &die);
    if (!die) return next(fd, iov, count);
    // The torn write: the first `pass` bytes of the vector, one piece at a time.
    static auto plain = real<ssize_t (*)(int, const void*, size_t)>("write");
    for (int i = 0; i < count && pass > 0; i++) {
        size_t n = iov[i].iov_len < pass ? iov[i].iov_len : pass;
        (void)plain(fd, iov[i].iov_base, n);
        pass -= n;
    }
    die_now();
}

int unlink(const char* path)
{
    static auto next = real<int (*)(const char*)>("unlink");
    long ms = env_number("KOR_UNLINK_DELAY_MS");
    const char* base = std::strrchr(path, '/');
    if (ms > 0 && std::strcmp(base ? base + 1 : path, "kor.lock") == 0) {
        const char* mark = std::getenv("KOR_UNLINK_MARK");
        if (mark) (void)syscall(SYS_close, syscall(SYS_open, mark, O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
        timespec t{ms / 1000, (ms % 1000) * 1000000L};
        while (nanosleep(&t, &t) != 0) {
        }
    }
    return next(path);
}

FILE* fopen(const char* path, const char* mode)
{
    static auto next = real<FILE* (*)(const char*, const char*)>("fopen");
    FILE* f = next(path, mode);
    if (f && std::strncmp(path, "/dev/", 5) == 0 && std::strpbrk(mode, "wa+"))
        std::setvbuf(f, nullptr, _IONBF, 0);
    return f;
}

FILE* fopen64(const char* path, const char* mode) { return fopen(path, mode); }

size_t fwrite(const void* buf, size_t size, size_t count, FILE* f)
{
    static auto next = real<size_t (*)(const void*, size_t, size_t, FILE*)>("fwrite");
    int fd = fileno(f);
    if (fd < 0 || size == 0) return next(buf, size, count, f);
    bool die = false;
    size_t pass = admit(fd, size * count, &die);
    if (!die) return next(buf, size, count, f);
    if (pass > 0) (void)next(buf, 1, pass, f);
    std::fflush(f);
    die_now();
}

}  // extern "C"
