// Whole-file helpers and CRC-32.
#pragma once

#include <cstdint>
#include <cstddef>
#include <cstdio>
#include <unistd.h>

#include "base/console.h"

// Each opens the path, does one thing and closes it again. -1 on a failed
// open or close. fnwrite and fnprintf also flush the data to the device
// (fsync) before the close: on a block device a write is not done until it
// is there, and a failed flush counts as a failed close.
int fnprintf(const char* path, const char* format, ...) KOR_PRINTF(2, 3);
int fnscanf(const char* path, const char* format, ...) __attribute__((format(scanf, 2, 3)));
int fnwrite(const char* path, const void* buffer, uint32_t length);
int fnread(const char* path, void* buffer, uint32_t length);
int fnexists(const char* path);
int32_t fnsize(const char* path);

void crc32_init();
uint32_t crc32_calc(uint32_t crc, const void* buffer, uint32_t length);

// One block-aligned buffer for direct I/O on partitions, shared by the
// writer and the read-back (never in use by both at once): big pieces keep
// the number of device requests low, one buffer keeps the memory small.
constexpr uint32_t DEVICE_IO_SIZE = uint32_t{1} << 20;
constexpr uint32_t DEVICE_IO_ALIGN = 4096;
uint8_t* device_io_buffer();
// Turns direct I/O (O_DIRECT) on or off for an open descriptor: true when
// the descriptor changed, false when it was so already or cannot change.
bool set_direct_io(int fd, bool on);

// libcurl's write-callback shape; returns the number of bytes taken.
using receive_fn = size_t (*)(void* data, size_t size, size_t count, void* ctx);
// Reads at most `size` bytes of `path` straight into `buffer`, piece by
// piece, and reports each piece to `receive`. Bytes read, or 0 on failure.
int32_t load_file(const char* path, uint8_t* buffer, uint32_t size, receive_fn receive, void* ctx);

// Owning wrappers: a descriptor or stream closes when it leaves scope. The
// close result stays available for callers that must treat a failed close
// as a failed write.
class unique_fd {
public:
    explicit unique_fd(int fd = -1) : fd_(fd) {}
    ~unique_fd() { reset(); }
    unique_fd(const unique_fd&) = delete;
    unique_fd& operator=(const unique_fd&) = delete;
    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    // Closes now; returns close()'s result (0 when nothing was open).
    int reset() {
        int r = 0;
        if (fd_ >= 0) r = ::close(fd_);
        fd_ = -1;
        return r;
    }
private:
    int fd_;
};

class unique_file {
public:
    explicit unique_file(FILE* f = nullptr) : f_(f) {}
    ~unique_file() { reset(); }
    unique_file(const unique_file&) = delete;
    unique_file& operator=(const unique_file&) = delete;
    FILE* get() const { return f_; }
    explicit operator bool() const { return f_ != nullptr; }
    int reset() {
        int r = 0;
        if (f_) r = std::fclose(f_);
        f_ = nullptr;
        return r;
    }
private:
    FILE* f_;
};
