#include "device/machine.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace device {

namespace {

constexpr int kStepsPartition = 10;
constexpr uint64_t kStepsSpace = 64 << 10;

std::string slurp(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

uint64_t le64(const bytes& b, size_t at)
{
    uint64_t v = 0;
    for (size_t i = 8; i-- > 0;) v = v << 8 | b.at(at + i);
    return v;
}

void run_or_throw(const std::string& command)
{
    if (std::system(command.c_str()) != 0) throw std::runtime_error("failed: " + command);
}

std::string quoted(const std::string& s)
{
    std::string q = "'";
    for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

// A line of its own on the console (which ends lines with \r\n).
bool has_line(const std::string& text, const std::string& line)
{
    for (size_t at = 0; (at = text.find("\n" + line, at)) != std::string::npos; at++) {
        const char next = at + 1 + line.size() < text.size() ? text[at + 1 + line.size()] : '\0';
        if (next == '\r' || next == '\n') return true;
    }
    return false;
}

// The console's marked lines, in the words of guest/init and guest/steps.sh.
void parse(Console* c)
{
    static const std::regex booted(R"(KOR-BOOTED KORSET=(\S+) release=(\S+))"), run(R"(KOR-RUN\[([^\]]+)\])"),
        out(R"(KOR-OUT\[([^\]]+)\] ?(.*))"), rc(R"(KOR-RC\[([^\]]+)\] (-?\d+))");
    std::istringstream in(c->text);
    std::smatch m;
    for (std::string line; std::getline(in, line);) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.rfind("kor: ", 0) == 0) c->loader.push_back(line.substr(5));
        if (std::regex_search(line, m, booted)) c->booted = m[1], c->release = m[2];
        if (std::regex_search(line, m, run)) c->out[m[1]];
        if (std::regex_search(line, m, out)) c->out[m[1]] += std::string(m[2]) + "\n";
        if (std::regex_search(line, m, rc)) c->status[m[1]] = std::stoi(m[2]);
        c->cut |= line == "KOR-CUT";
        c->hang |= line == "KOR-HANG";
        c->ended |= line == "KOR-STEPS-END";
    }
}

}  // namespace

std::string build_dir(std::string* why)
{
    const char* dir = std::getenv("KOR_DEVICE_DIR");
    struct stat st;
    if (!dir || !*dir) *why = "KOR_DEVICE_DIR is not set: run the device suite with scripts/test --device";
    else if (stat((std::string(dir) + "/golden.img").c_str(), &st) != 0) *why = std::string(dir) + " holds no device";
    else return dir;
    return "";
}

Machine::Machine(const std::string& build, const std::string& name) : build_(build), dir_(build + "/runs/" + name)
{
    disk_ = dir_ + "/disk.img", flash_ = dir_ + "/flash.img";
    run_or_throw("rm -rf " + quoted(dir_) + " && mkdir -p " + quoted(dir_) + " && cp --sparse=always " +
                 quoted(build + "/golden.img") + " " + quoted(disk_) + " && cp --sparse=always " +
                 quoted(build + "/flash.img") + " " + quoted(flash_));
}

uint64_t Machine::start_of(int partition) const
{
    // The GPT header in block 1 says where the entries are and how big each is; an entry's first block is at 32.
    const bytes header = read(0, 512, 92);
    const uint64_t entries = le64(header, 72) * 512, entry_size = header.at(84) | header.at(85) << 8;
    return le64(read(0, entries + (partition - 1) * entry_size, 48), 32) * 512;
}

bytes Machine::read(int partition, uint64_t offset, uint64_t length) const
{
    const uint64_t at = partition ? start_of(partition) + offset : offset;
    bytes b(length);
    int fd = ::open(disk_.c_str(), O_RDONLY | O_CLOEXEC);
    const bool ok = fd >= 0 && ::pread(fd, b.data(), length, off_t(at)) == ssize_t(length);
    if (fd >= 0) ::close(fd);
    if (!ok) throw std::runtime_error("cannot read " + disk_);
    return b;
}

void Machine::write(int partition, uint64_t offset, const bytes& data) const
{
    const uint64_t at = start_of(partition) + offset;
    int fd = ::open(disk_.c_str(), O_WRONLY | O_CLOEXEC);
    const bool ok = fd >= 0 && ::pwrite(fd, data.data(), data.size(), off_t(at)) == ssize_t(data.size());
    if (fd >= 0) ::close(fd);
    if (!ok) throw std::runtime_error("cannot write " + disk_);
}

Console Machine::boot(const std::string& steps, int timeout_s)
{
    if (steps.size() >= kStepsSpace) throw std::runtime_error("steps too long");
    bytes space(kStepsSpace, 0);
    std::copy(steps.begin(), steps.end(), space.begin());
    write(kStepsPartition, 0, space);
    const std::string log = dir_ + "/boot" + std::to_string(++boots_) + ".log";
    ::unlink(log.c_str());
    const std::string script = std::string(KOR_SOURCE_DIR) + "/scripts/device";
    pid_t pid = fork();
    if (pid == 0) {
        setpgid(0, 0);
        int null = ::open("/dev/null", O_RDWR);
        dup2(null, 0), dup2(null, 1);
        execl("/bin/bash", "bash", script.c_str(), "qemu", disk_.c_str(), flash_.c_str(), log.c_str(), nullptr);
        _exit(127);
    }
    Console c;
    using clock = std::chrono::steady_clock;
    const auto deadline = clock::now() + std::chrono::seconds(timeout_s);
    // Once the steps have ended the guest only powers off; should that not finish, the power goes anyway
    // (everything kor wrote is on the device by then).
    auto off_by = clock::time_point::max();
    for (int status; waitpid(pid, &status, WNOHANG) == 0;) {
        const std::string now = slurp(log);
        c.timed_out = clock::now() > deadline;
        if (off_by == clock::time_point::max() && has_line(now, "KOR-STEPS-END"))
            off_by = clock::now() + std::chrono::seconds(20);
        if (c.timed_out || clock::now() > off_by || has_line(now, "KOR-CUT") || has_line(now, "KOR-HANG")) {
            kill(-pid, SIGKILL), kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    c.text = slurp(log);
    parse(&c);
    return c;
}

}  // namespace device
