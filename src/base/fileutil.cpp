#include <cerrno>
// Whole-file helpers and CRC-32.
#include "base/fileutil.h"

#include <cstdarg>
#include <cstdint>
#include <fcntl.h>
#include <sys/stat.h>

namespace {

// Flushes the stream to the device, then closes it. Any failure on the way
// is a failed write: a block device that could not take the data must not
// be reported as written.
int close_synced(unique_file& f)
{
    int r = 0;
    if (std::fflush(f.get()) != 0) r = -1;
    if (fsync(fileno(f.get())) != 0 && errno != EINVAL && errno != EROFS) r = -1;
    if (f.reset() != 0) r = -1;
    return r;
}

}  // namespace

int fnprintf(const char* path, const char* format, ...)
{
    unique_file f(std::fopen(path, "w"));
    if (!f) return -1;
    va_list ap;
    va_start(ap, format);
    int n = std::vfprintf(f.get(), format, ap);
    va_end(ap);
    if (close_synced(f) != 0) return -1;
    return n;
}

int fnscanf(const char* path, const char* format, ...)
{
    unique_file f(std::fopen(path, "r"));
    if (!f) return -1;
    va_list ap;
    va_start(ap, format);
    int n = std::vfscanf(f.get(), format, ap);
    va_end(ap);
    if (f.reset() != 0) return -1;
    return n;
}

int fnwrite(const char* path, const void* buffer, uint32_t length)
{
    unique_file f(std::fopen(path, "w"));
    if (!f) return -1;
    size_t n = std::fwrite(buffer, 1, length, f.get());
    if (close_synced(f) != 0) return -1;
    return static_cast<int>(n);
}

int fnread(const char* path, void* buffer, uint32_t length)
{
    unique_file f(std::fopen(path, "r"));
    if (!f) return -1;
    size_t n = std::fread(buffer, 1, length, f.get());
    if (f.reset() != 0) return -1;
    return static_cast<int>(n);
}

int fnexists(const char* path)
{
    struct stat st;
    return stat(path, &st) == 0 ? 1 : 0;
}

int32_t fnsize(const char* path)
{
    struct stat st;
    if (stat(path, &st) != 0) return -1;
    // Sizes beyond the signed 32-bit range read as the largest value, so
    // every size limit refuses them instead of seeing a wrapped number.
    if (st.st_size > INT32_MAX) return INT32_MAX;
    return static_cast<int32_t>(st.st_size);
}

uint8_t* device_io_buffer()
{
    alignas(DEVICE_IO_ALIGN) static uint8_t buffer[DEVICE_IO_SIZE];
    return buffer;
}

bool set_direct_io(int fd, bool on)
{
    int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || ((flags & O_DIRECT) != 0) == on) return false;
    return fcntl(fd, F_SETFL, on ? flags | O_DIRECT : flags & ~O_DIRECT) == 0;
}
