// One emulated device of scripts/device for one scenario: its own copy of the factory disk and U-Boot flash, powered on
// for one boot at a time with the steps it runs, its power cut when the console says so, and its disk read as bytes.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace device {

using bytes = std::vector<uint8_t>;

// The device build (scripts/device build), from $KOR_DEVICE_DIR; "" when there is none, `why` says so.
std::string build_dir(std::string* why);

// What one boot showed on the serial console.
struct Console {
    std::string text;                         // all of it
    std::vector<std::string> loader;          // the boot script's "kor: ..." lines
    std::string booted, release;              // KORSET= word the guest got ("none": no word), /etc/kor-release
    std::map<std::string, int> status;        // step name: exit status
    std::map<std::string, std::string> out;   // step name: its output
    bool cut = false, hang = false, ended = false, timed_out = false;  // KOR-CUT, KOR-HANG, KOR-STEPS-END seen
};

class Machine {
public:
    Machine(const std::string& build, const std::string& name);  // a fresh copy of the factory disk in runs/NAME

    // Powers the device on; the guest runs `steps` (shell text, see guest/steps.sh) and powers off. A KOR-CUT or
    // KOR-HANG line on the console makes the power go at once (SIGKILL to qemu).
    Console boot(const std::string& steps, int timeout_s = 420);

    bytes read(int partition, uint64_t offset, uint64_t length) const;
    void write(int partition, uint64_t offset, const bytes& data) const;
    std::string dir() const { return dir_; }

private:
    uint64_t start_of(int partition) const;  // from the disk's GPT
    std::string build_, dir_, disk_, flash_;
    int boots_ = 0;
};

}  // namespace device
