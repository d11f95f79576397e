// A hostconfig image from a file of any content: load it (checks and the
// walk over its parts), then read the metadata record out of it and build
// the pools, as every action does after loading. The file is an anonymous
// memory file reached by its /proc path, so nothing touches the disk.
// Byte 0 of the input: bit 0 set seals the CRCs of the file behind it.
#include <cstdlib>
#include <cstring>
#include <vector>

#include <sys/mman.h>
#include <unistd.h>

#include "base/console.h"
#include "fuzz_crc.h"
#include "hostconfig/hostconfig.h"
#include "korl/korl.h"
#include "fuzz_check.h"

namespace {

int g_fd = -1;
char g_path[40];

bool put_file(const uint8_t* data, size_t size)
{
    if (ftruncate(g_fd, 0) != 0) return false;
    return pwrite(g_fd, data, size, 0) == static_cast<ssize_t>(size);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    g_fd = memfd_create("kor-hostconfig-fuzz", MFD_CLOEXEC);
    check(g_fd >= 0);
    zb_snprintf(g_path, sizeof g_path, "/proc/self/fd/%d", g_fd);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* input, size_t input_size)
{
    if (input_size < 1) return 0;
    std::vector<uint8_t> file(input + 1, input + input_size);
    if (input[0] & 1) fuzz::fix_crcs(file.data(), file.size(), VELK_ID_SIZE + VELK_HEADER_SIZE);
    const uint8_t* data = file.data();
    size_t size = file.size();
    if (!put_file(data, size)) std::abort();
    auto* hc = new hostconfig;
    check(hostconfig_new(hc, HOSTCONFIG_MAX) == 1);
    int r = hostconfig_load(hc, g_path, nullptr);
    check(r == 1 || r == -1);
    if (r == 1) {
        check(size >= HOSTCONFIG_MIN_FILE && size <= HOSTCONFIG_MAX);
        check(hc->count >= 1 && hc->count <= static_cast<int32_t>(HOSTCONFIG_MAX_PARTS));
        for (int32_t i = 0; i < hc->count; ++i) {
            const auto* at = reinterpret_cast<const uint8_t*>(hc->parts[i]);
            check(at >= hc->image && at + VELK_CONTENT_HEADER_SIZE <= hc->image + size);
        }
        auto* d = new korl_data;
        if (korl_hostconfig_import(d, hc) == 1) {
            korl_partpool_generate(d);
            check(korl_partpool_count(d) <= KORL_POOLS);
        }
        delete d;
    }
    delete hc;
    return 0;
}
