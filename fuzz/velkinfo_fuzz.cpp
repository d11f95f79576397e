// The velkinfo action on a file of any content: the whole image with
// "-all", else only its first kilobyte for the release header. Byte 0 of
// the input: bit 0 "-all", bit 1 seals the CRCs of the image behind it. The
// file is an anonymous memory file reached by its /proc path.
#include <cstdlib>
#include <vector>

#include <sys/mman.h>
#include <unistd.h>

#include "base/console.h"
#include "base/options.h"
#include "fuzz_crc.h"
#include "velk/velkinfo.h"

namespace {

int g_fd = -1;
char g_path[40];

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    g_fd = memfd_create("kor-velkinfo-fuzz", MFD_CLOEXEC);
    if (g_fd < 0) std::abort();
    zb_snprintf(g_path, sizeof g_path, "/proc/self/fd/%d", g_fd);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1) return 0;
    std::vector<uint8_t> file(data + 1, data + size);
    if ((data[0] & 2) && file.size() >= 16)
        fuzz::fix_crcs(file.data(), file.size(), VELK_ID_SIZE + fuzz::get16(file.data() + 14));
    if (ftruncate(g_fd, 0) != 0 ||
        pwrite(g_fd, file.data(), file.size(), 0) != static_cast<ssize_t>(file.size()))
        std::abort();
    auto* o = new kor_options{};
    o->velksize = KOR_DEFAULT_VELKSIZE;
    o->words[0] = "velkinfo";
    o->words[1] = g_path;
    o->words[2] = (data[0] & 1) ? "-all" : nullptr;
    o->nwords = (data[0] & 1) ? 3 : 2;
    o->action = o->words[0];
    int r = action_velkinfo(o);
    if (r != 0 && r != 8 && r != 9) std::abort();
    delete o;
    return 0;
}
