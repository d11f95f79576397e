// The upgrade flags of sets 1 and 2: two bytes on the hostconfig partition,
// outside the image, read and written directly at each call.
#include "hostconfig/hostconfig.h"

#include <fcntl.h>
#include <unistd.h>

#include "base/console.h"
#include "base/fileutil.h"

const char* const upgrade_state_names[3] = {"VALID", "TEST", "BOOT"};

namespace {

constexpr int kStateValid = 0;
constexpr int kStateTest = 1;
constexpr int kStateBoot = 2;
constexpr uint8_t kTestMark = 0x01;
constexpr uint8_t kBootMark = 0x02;

bool has_flags_byte(int set) { return set == 1 || set == 2; }

}  // namespace

int hostconfig_flags_read(uint8_t buf[2])
{
    unique_fd fd(::open(HOSTCONFIG_FLAGS_DEVICE, O_RDONLY | O_CLOEXEC));
    if (!fd.valid()) return -1;
    return ::pread(fd.get(), buf, 2, HOSTCONFIG_FLAGS_OFFSET) == 2 ? 0 : -1;
}

// Never creates the device node. The bytes are on the device (fsync) before
// success is reported, so a state written before a reboot is the state the
// boot loader sees. Both bytes go in one write: the other set's byte is
// rewritten with the value just read.
int hostconfig_flags_write(const uint8_t buf[2])
{
    unique_fd fd(::open(HOSTCONFIG_FLAGS_DEVICE, O_WRONLY | O_CLOEXEC));
    if (!fd.valid()) return -1;
    if (::pwrite(fd.get(), buf, 2, HOSTCONFIG_FLAGS_OFFSET) != 2) return -1;
    if (::fsync(fd.get()) != 0) return -1;
    return 0;
}

int upgrade_flags_read(int set)
{
    if (set == 0) return 0;
    if (!has_flags_byte(set)) return -1;
    uint8_t buf[2];
    if (hostconfig_flags_read(buf) != 0) return -1;
    return buf[set - 1];
}

int upgrade_flags_write(int set, int value)
{
    if (!has_flags_byte(set)) return -1;
    uint8_t buf[2];
    if (hostconfig_flags_read(buf) != 0) return -1;
    buf[set - 1] = static_cast<uint8_t>(value & 0xFF);
    return hostconfig_flags_write(buf) == 0 ? 0 : -1;
}

int get_upgrade_state(int set)
{
    int flags = upgrade_flags_read(set);
    if (flags < 0) return -1;
    if (!(flags & kTestMark)) return kStateValid;
    return (flags & kBootMark) ? kStateBoot : kStateTest;
}

// Writing a state replaces the whole byte with 0 or 1: the boot mark and
// any other bit are cleared. BOOT is only ever set by the boot loader.
int set_upgrade_state(int set, int state)
{
    if (get_upgrade_state(set) == state) return 0;
    if (state != kStateValid && state != kStateTest) {
        zb_printf("cannot set state to %d, invalid", state);
        return -1;
    }
    return upgrade_flags_write(set, state) == 0 ? 0 : -1;
}

int korl_upgrade_info()
{
    int r = 0;
    for (int set = 1; set <= 2; set++) {
        int state = get_upgrade_state(set);
        const char* name = (state >= 0 && state <= 2) ? upgrade_state_names[state] : "INVALID";
        r = zb_printf("KOR Data Upgrade set %d: %s(%d)\n", set, name, state);
    }
    return r;
}
