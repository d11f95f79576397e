// Reads an image file straight into its buffer at image offset 0 and reports
// each piece to a receive step shaped like libcurl's write callback.
#include <fcntl.h>

#include <cerrno>

#include "base/fileutil.h"

namespace {

// The receiver checks each piece right after it arrives: pieces of this size
// are still in the processor's cache then, instead of being read back from
// memory after the whole file.
constexpr uint32_t LOAD_PIECE = uint32_t{1} << 20;

}  // namespace

int32_t load_file(const char* path, uint8_t* buffer, uint32_t size, receive_fn receive, void* ctx)
{
    unique_fd fd(::open(path, O_RDONLY | O_CLOEXEC));
    if (!fd.valid()) return 0;
    uint32_t total = 0;
    while (total < size) {
        uint32_t want = size - total < LOAD_PIECE ? size - total : LOAD_PIECE;
        ssize_t got = ::read(fd.get(), buffer + total, want);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return 0;
        if (got == 0) break;
        total += static_cast<uint32_t>(got);
        if (receive(buffer, 1, static_cast<size_t>(got), ctx) != static_cast<size_t>(got)) return 0;
    }
    return static_cast<int32_t>(total);
}
