// Reads an image file straight into its buffer at image offset 0 and reports
// each piece to a receive step shaped like libcurl's write callback.
#include <cstdio>

#include "frontend/fileutil.h"

int32_t load_file(const char* path, uint8_t* buffer, uint32_t size, receive_fn receive, void* ctx)
{
    unique_file f(std::fopen(path, "r"));
    if (!f) return 0;
    uint32_t total = 0;
    int reads = 0;
    for (;;) {
        size_t got = std::fread(buffer + total, 1, size - total, f.get());
        if (std::ferror(f.get())) return 0;
        bool at_end = std::feof(f.get()) != 0;
        total += static_cast<uint32_t>(got);
        if (receive(buffer, 1, got, ctx) != got) return 0;
        // A short read without end (or error) gets one more read for the rest.
        if (at_end || total == size || ++reads == 2) return static_cast<int32_t>(total);
    }
}
