// Shared by the fuzz targets that feed an image in pieces: the input's
// first bytes choose flags and piece sizes, the rest is the image. Bytes not
// yet delivered are poisoned, so a read of anything that has not arrived
// stops the run as an AddressSanitizer report.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include <sanitizer/asan_interface.h>

#include "fuzz_crc.h"

namespace fuzz {

struct split_input {
    uint8_t flags = 0;
    std::vector<uint32_t> sizes;  // cycled; 0 is a call with no new bytes
    const uint8_t* image = nullptr;
    size_t image_size = 0;
    std::vector<uint8_t> sealed;  // the image with its CRCs made to fit
};

// Byte 0: flags; byte 1: count of piece sizes (0 to 15); then one byte per
// size: 1 to 127 bytes, 128 and above in steps of 64 bytes (up to 8 KiB).
inline bool split(const uint8_t* data, size_t size, split_input* in)
{
    if (size < 2) return false;
    in->flags = data[0];
    size_t count = data[1] % 16u;
    if (size < 2 + count) return false;
    for (size_t i = 0; i < count; ++i) {
        uint8_t b = data[2 + i];
        in->sizes.push_back(b < 0x80 ? b : (b - 0x7Fu) * 64u);
    }
    in->image = data + 2 + count;
    in->image_size = size - 2 - count;
    return true;
}

// Points the input at a copy of its image whose CRCs all fit.
inline void seal_image(split_input* in)
{
    in->sealed.assign(in->image, in->image + in->image_size);
    size_t first = in->image_size >= 16 ? VELK_ID_SIZE + get16(in->image + 14) : 0;
    fix_crcs(in->sealed.data(), in->sealed.size(), first);
    in->image = in->sealed.data();
}

// Hands out the piece sizes in turn; after a full round of empty pieces
// the rest comes in one, so every run ends.
class pieces {
public:
    explicit pieces(const split_input& in) : sizes_(in.sizes) {}
    uint32_t next(uint32_t left)
    {
        if (sizes_.empty() || empty_run_ >= sizes_.size()) return left;
        uint32_t n = sizes_[at_++ % sizes_.size()];
        empty_run_ = n == 0 ? empty_run_ + 1 : 0;
        return n < left ? n : left;
    }

private:
    const std::vector<uint32_t>& sizes_;
    size_t at_ = 0;
    size_t empty_run_ = 0;
};

// Only the first `delivered` bytes of the buffer may be read.
inline void expose(const uint8_t* buffer, size_t size, size_t delivered)
{
    ASAN_POISON_MEMORY_REGION(buffer, size);
    ASAN_UNPOISON_MEMORY_REGION(buffer, delivered < size ? delivered : size);
}

inline void expose_all(const uint8_t* buffer, size_t size)
{
    ASAN_UNPOISON_MEMORY_REGION(buffer, size);
}

}  // namespace fuzz
