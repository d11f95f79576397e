// Streaming installs (-stream) on a sandboxed device: the same device bytes and hostconfig as an install that holds
// the image, parts that could harm a set in use written last from memory, refusals before and after the first write.
#include <arpa/inet.h>
#include <zlib.h>

#include <algorithm>
#include <memory>
#include <numeric>
#include <set>
#include <sstream>

#include "mkvelk.h"
#include "support/cli_case.h"
#include "support/hostconfig_decoder.h"
#include "support/servers.h"
#include "support/signing.h"

using sandbox::bytes, sandbox::Device;
using Args = std::vector<std::string>;

namespace {

bytes pattern(size_t n, uint8_t seed)
{
    bytes b(n);
    for (size_t i = 0; i < n; ++i) b[i] = uint8_t(seed + i * 7 + (i >> 9));
    return b;
}

struct Body { std::string name, pool; size_t size; int wts = 1; };

// A release 1.0.`build` with a KORM line per body, in image order.
bytes image(const std::vector<Body>& bodies, uint16_t build = 1, const std::string& extra_korm = "")
{
    std::string korm = extra_korm, v = "1.0." + std::to_string(build);
    std::vector<mkvelk::part> parts{mkvelk::release_header(1, 0, build, 0, "b" + v, "products=dev1\n"), {}};
    for (const Body& b : bodies) {
        korm += std::to_string(parts.size()) + "," + b.pool + ",0,-,-,-," + v + "," + std::to_string(b.wts) + "\n";
        parts.push_back(mkvelk::software(b.name, 1, 0, build, b.name, pattern(b.size, uint8_t(b.size + build))));
    }
    parts[1] = mkvelk::korm(korm);
    return mkvelk::build_image(parts);
}

// What an install leaves: its status, the hostconfig copies and flags, every partition, the state files.
struct State {
    int status;
    std::vector<bytes> devices;
    std::string files;
    bool operator==(const State& o) const { return status == o.status && devices == o.devices && files == o.files; }
};

constexpr int kParts[] = {3, 4, 5, 6, 7, 8, 11, 12, 13, 14, 15, 16, 17, 18};
constexpr uint64_t kPartSize = 4 << 20;  // the World's default layout

State state(Device& d, int status)
{
    State s{status, {}, ""};
    for (int p : kParts) s.devices.push_back(d.read(Device::part(p), 0, p < 5 ? sandbox::kHostconfigPartSize : kPartSize));
    for (const char* f : {"/tmp/kor.autoset", "/tmp/kor.activeset"}) s.files += d.exists(f) ? d.read_file(f) + ";" : "-;";
    return s;
}

std::string describe(const State& a, const State& b)
{
    std::string why = a.status != b.status ? "status " + std::to_string(a.status) + " vs " + std::to_string(b.status) + "; " : "";
    for (size_t i = 0; i < a.devices.size(); ++i)
        if (a.devices[i] != b.devices[i]) why += "p" + std::to_string(kParts[i]) + " differs; ";
    return why + (a.files != b.files ? "state files " + a.files + " vs " + b.files : "");
}

enum class Source { file, http, ftp, file_url };

struct Row {
    const char* name;
    std::vector<Body> bodies;
    Args args;                  // after "install IMAGE"
    Source source = Source::file;
    std::vector<Body> before = {};  // installed into set 2 (release 1.0.1) first
    std::string extra_korm = "";    // KORM lines before those of the bodies
};

// Installs the row's release (1.0.2 when something was installed before) with or without -stream.
State run(const Row& row, bool stream, std::string* err)
{
    static const servers::Release unused({64});
    servers::World w(unused);
    Device& d = w.dev;
    if (!row.before.empty()) {
        const bytes old = image(row.before, 1);
        d.write_file(w.file, std::string(old.begin(), old.end()));
        EXPECT_EQ(d.kor({"install", w.file, "2"}).status, 0);
    }
    const bytes img = image(row.bodies, row.before.empty() ? 1 : 2, row.extra_korm);
    d.write_file(w.file, std::string(img.begin(), img.end()));
    std::unique_ptr<servers::Daemon> server;
    std::string source = w.file;
    if (row.source == Source::http || row.source == Source::ftp) {
        server = std::make_unique<servers::Daemon>(w, row.source == Source::http ? "http" : "ftp");
        source = server->url("img.velk");
    }
    if (row.source == Source::file_url) source = "file://" + w.file;
    Args args{"install", source};
    args.insert(args.end(), row.args.begin(), row.args.end());
    if (stream) args.push_back("-stream");
    const sandbox::RunResult r = d.kor(args);
    *err = r.err;
    return state(d, r.status);
}

const Body kKernel{"kernel", "KNLS", 1001}, kRoot{"root", "ROOTS", (1 << 20) + 2 * 4096 + 3}, kAppl{"appl", "APPLS", 4096};

TEST(Stream, SameBytesAndHostconfigAsAnInstallHoldingTheImage)
{
    KOR_SANDBOX_OR_SKIP();
    const Row rows[] = {
        {"three parts", {kKernel, kRoot, kAppl}, {"1"}},
        {"write type 2", {{"kernel", "KNLS", 1001, 2}, {"root", "ROOTS", (1 << 20) + 5, 2}}, {"1"}},
        {"write type 3", {{"kernel", "KNLS", 1001, 3}, {"root", "ROOTS", (2 << 20) - 1, 3}}, {"1"}},
        {"empty body", {{"kernel", "KNLS", 0}, kAppl}, {"1"}},
        {"kept parts skipped", {kKernel, kRoot}, {"1"}, Source::file, {kKernel}},
        {"automatic set", {kKernel, kAppl}, {"-1"}},
        {"-dryrun", {kKernel}, {"1", "-dryrun"}},
        {"-onlymeta", {kKernel}, {"1", "-onlymeta"}},
        {"http", {kKernel, kRoot, kAppl}, {"1"}, Source::http},
        {"http, kept parts skipped", {kKernel, kRoot, kAppl}, {"1"}, Source::http, {kKernel, kAppl}},
        {"ftp", {kKernel, kRoot}, {"1"}, Source::ftp, {kRoot}},
        {"file://", {kKernel, kRoot}, {"1"}, Source::file_url, {kKernel}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        std::string err_held, err_streamed;
        const State held = run(row, false, &err_held), streamed = run(row, true, &err_streamed);
        EXPECT_EQ(held.status, 0) << err_held;
        EXPECT_TRUE(held == streamed) << describe(held, streamed) << "\n" << err_streamed;
    }
}

// ---- What a streaming install leaves when it is refused or cut ----

// Offset of each content part's header, walked from the bytes alone.
std::vector<size_t> part_offsets(const bytes& b)
{
    auto le = [&](size_t at, int n) { uint32_t v = 0; while (n--) v = v << 8 | b[at + size_t(n)]; return v; };
    std::vector<size_t> at;
    for (size_t o = 8 + le(14, 2); o + 32 <= b.size(); o += le(o + 6, 2) + ((le(o + 8, 4) + 3) & ~3u)) at.push_back(o);
    return at;
}

// The "KOR data" of the copy kor loads, decoded: the primary when it passes its checks, else the backup.
std::string kor_data(const Device& d)
{
    for (int n : {3, 4}) {
        hcdec::Image img;
        bool ok = hcdec::decode_image(d.read(Device::part(n), 0, 5120), &img) && img.crcs_ok;
        for (const hcdec::Part& p : img.parts) ok = ok && p.crcs_ok;
        for (const hcdec::Part& p : img.parts)
            if (ok && p.name == "KOR data") return hcdec::decode_kor_data(p.body);
    }
    return "";
}

// The record with the claims on `entries` released: their recorded content, mount point and file system gone.
std::string released(const std::string& kd, const std::set<int>& entries)
{
    std::istringstream in(kd);
    std::string out;
    for (std::string line; std::getline(in, line);) {
        bool drop = false;
        for (int e : entries) {
            const std::string i = "[" + std::to_string(e) + "].";
            drop = drop || line.rfind("pinfometa" + i, 0) == 0 || line.rfind("partinfo" + i + "mountpnt", 0) == 0 ||
                   line.rfind("partinfo" + i + "fstype", 0) == 0;
        }
        if (!drop) out += line + "\n";
    }
    return out;
}

// Set 1 holds release 1.0.3 (not active), set 2 release 1.0.1 (active); the install under test brings 1.0.2 into
// set 1, over set 1's own entries 11, 13 and 14. Its root part comes last and is larger than a read of the source.
const std::vector<Body> kScenario = {{"kernel", "KNLS", 1001}, {"appl", "APPLS", 4096}, {"root", "ROOTS", (1 << 20) + 8195}};
const std::set<int> kWritten = {11, 13, 14};

struct Scene {
    std::string file, kd, flags;  // the good image of 1.0.2; the stored record and upgrade flags before
};

Scene set_scene(Device& d)
{
    const std::string dir = d.workdir() + "/www";
    for (auto [build, args] : {std::pair<uint16_t, Args>{3, {"1", "-noactivate"}}, {1, {"2"}}}) {
        const bytes img = image(kScenario, build);
        d.write_file(dir + "/old.velk", std::string(img.begin(), img.end()));
        args.insert(args.begin(), {"install", dir + "/old.velk"});
        EXPECT_EQ(d.kor(args).status, 0);
    }
    const bytes img = image(kScenario, 2);
    d.write_file(dir + "/good.velk", std::string(img.begin(), img.end()));
    const bytes flags = d.read(Device::part(3), 0x3FE00, 2);
    return {dir + "/good.velk", kor_data(d), std::string(flags.begin(), flags.end())};
}

// What is wrong after a refused or cut install ("": nothing): the stored record is the one before, or that with
// the claims on the entries written released; set 2 is active, unchanged and intact.
std::string harm(Device& d, const Scene& before)
{
    const std::string kd = kor_data(d);
    std::string why;
    if (kd != before.kd && kd != released(before.kd, kWritten)) why += "stored record changed:\n" + kd + "; ";
    const bytes flags = d.read(Device::part(3), 0x3FE00, 2);
    if (std::string(flags.begin(), flags.end()) != before.flags) why += "upgrade flags changed; ";
    if (d.kor({"verify", "2"}).status != 0) why += "set 2 does not verify; ";
    return why;
}

// A run after a refused or cut one completes.
std::string rerun(Device& d, const Scene& scene)
{
    for (const char* f : {"/tmp/kor.lock", "/tmp/kor.autoset"}) unlink(f);
    const sandbox::RunResult r = d.kor({"install", scene.file, "1", "-stream"});
    if (r.status != 0) return "re-run ended with " + std::to_string(r.status) + ": " + r.err;
    return d.kor({"verify", "1"}).status == 0 ? "" : "set 1 does not verify after the re-run";
}

// HTTP/1.1 on 127.0.0.1 serving an image with byte ranges, one connection per request. The request for the
// bytes from `fault_from` on is answered by `fault` instead.
enum class Fault { none, drop, other_image, whole_image };

struct RangeServer : servers::Endpoint {
    RangeServer(bytes img, bytes other, Fault f, size_t from) : Endpoint{"http"}, image(std::move(img)),
        other(std::move(other)), fault(f), fault_from(from)
    {
        fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in a{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
        socklen_t len = sizeof a;
        if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&a), len) || listen(fd, 8) ||
            getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len))
            return;
        port = ntohs(a.sin_port);
        thread = std::thread([this] { for (int c; (c = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC)) >= 0; close(c)) serve(c); });
    }
    ~RangeServer() { if (thread.joinable()) shutdown(fd, SHUT_RDWR), thread.join(); close(fd); }

    void serve(int c)
    {
        timeval t{5, 0};
        setsockopt(c, SOL_SOCKET, SO_SNDTIMEO, &t, sizeof t), setsockopt(c, SOL_SOCKET, SO_RCVTIMEO, &t, sizeof t);
        std::string req;
        char buf[2048];
        for (ssize_t n; req.find("\r\n\r\n") == req.npos && (n = recv(c, buf, sizeof buf, 0)) > 0;) req.append(buf, size_t(n));
        const size_t at = req.find("Range: bytes=");
        const size_t from = at == req.npos ? 0 : std::stoull(req.substr(at + 13));
        const bool faulted = fault != Fault::none && from == fault_from;
        const bytes& b = faulted && fault == Fault::other_image ? other : image;
        const size_t size = b.size(), sent = faulted && fault == Fault::drop ? (size - from) / 2 : size - from;
        const bool whole = at == req.npos || (faulted && fault == Fault::whole_image);
        std::string head = whole ? "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(size)
                                 : "HTTP/1.1 206 Partial Content\r\nContent-Range: bytes " + std::to_string(from) + "-" +
                                       std::to_string(size - 1) + "/" + std::to_string(size) +
                                       "\r\nContent-Length: " + std::to_string(size - from);
        head += "\r\nConnection: close\r\n\r\n";
        head.append(b.begin() + long(whole ? 0 : from), b.begin() + long(whole ? size : from + sent));
        for (size_t done = 0; done < head.size();) {
            ssize_t n = send(c, head.data() + done, head.size() - done, MSG_NOSIGNAL);
            if (n <= 0) break;
            done += size_t(n);
        }
    }
    bytes image, other;
    Fault fault;
    size_t fault_from;
    int fd = -1;
    std::thread thread;
};

TEST(Stream, RefusedImageLeavesTheActiveSetAndRecord)
{
    KOR_SANDBOX_OR_SKIP();
    const bytes good = image(kScenario, 2);
    const size_t kernel_at = part_offsets(good)[2], root_at = part_offsets(good)[4];
    bytes bad_root = good, truncated(good.begin(), good.begin() + long(root_at + 70000));
    bad_root[root_at + 64 + 5000] ^= 1;
    // second_reading: the refusal came inside the critical region (the "stopped" line); written: a part was written
    const struct { const char* name; bytes served; bool http; Fault fault; bytes other; int status; std::string error;
                   bool second_reading, written; } rows[] = {
            {"a later part's CRC", bad_root, false, Fault::none, {}, 9, "install: content part 4 not valid error\n", true,
             true},
            {"a later part's CRC, http", bad_root, true, Fault::none, {}, 16, "install: content part 4 not valid error\n",
             true, true},
            {"truncated file", truncated, false, Fault::none, {}, 9, "install: incomplete VELK\n", false, false},
            {"truncated, http", truncated, true, Fault::none, {}, 9, "install: incomplete VELK\n", true, true},
            {"connection dropped", good, true, Fault::drop, {}, 16, "curl returned: 18 == ", true, true},
            {"image changed between the readings", good, true, Fault::other_image, image(kScenario, 4), 16,
             "install: content part 2 is not what the first reading found\n", true, false},
            {"range answered with the whole image", good, true, Fault::whole_image, {}, 16,
             "install: server answered 200 to the request from byte " + std::to_string(kernel_at) + "\n", true, false},
        };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        static const servers::Release unused({64});
        servers::World w(unused);
        const Scene scene = set_scene(w.dev);
        std::string source = w.dev.workdir() + "/www/img.velk";
        w.dev.write_file(source, std::string(row.served.begin(), row.served.end()));
        std::unique_ptr<RangeServer> server;
        if (row.http) server = std::make_unique<RangeServer>(row.served, row.other, row.fault, kernel_at);
        if (server) source = server->url("img.velk");
        const sandbox::RunResult r = w.dev.kor({"install", source, "1", "-stream"});
        EXPECT_EQ(r.status, row.status) << r.err;
        EXPECT_NE(r.err.find(row.error), std::string::npos) << r.err;
        EXPECT_EQ(r.err.find("install: stopped before every part was written; set 1 was not recorded and the active "
                             "set is unchanged\n") != std::string::npos, row.second_reading) << r.err;
        EXPECT_EQ(r.out.find("Writing out") != std::string::npos, row.written) << r.out;
        server.reset();
        EXPECT_EQ(harm(w.dev, scene), "");
        EXPECT_EQ(rerun(w.dev, scene), "");
    }
}

// With -retries=, a connection dropped in the second reading is resumed from the first byte not yet received: the
// part in flight goes on into its partition and the install completes.
TEST(Stream, ADroppedConnectionResumesWithRetries)
{
    KOR_SANDBOX_OR_SKIP();
    const bytes good = image(kScenario, 2);
    const size_t kernel_at = part_offsets(good)[2], dropped_at = kernel_at + (good.size() - kernel_at) / 2;
    static const servers::Release unused({64});
    servers::World w(unused);
    set_scene(w.dev);
    RangeServer server(good, {}, Fault::drop, kernel_at);
    const sandbox::RunResult r = w.dev.kor({"install", server.url("img.velk"), "1", "-stream", "-retries=1"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.err.find("; retry 1 of 1 in 1 s from byte " + std::to_string(dropped_at) + "\n"), std::string::npos)
        << r.err;
    EXPECT_EQ(w.dev.kor({"verify", "1"}).status, 0);
}

// ---- Parts held in memory; interruption at every write ----

constexpr int kKilled = 9 + 63;  // the parent's status for a worker killed by SIGKILL

// kor run with the write interposer: killed at device write `k` (0: never) after `torn` bytes of it (-1: whole).
// Returns the status; the device writes made go to `writes` (device path each).
int cut_run(Device& d, const Args& args, size_t k, long torn, std::vector<std::string>* writes = nullptr,
            std::string* err = nullptr)
{
    const std::string log = d.workdir() + "/writes.log";
    const char* asan = std::getenv("ASAN_OPTIONS");  // the preload comes before ASan's runtime
    auto o = sandbox::RunOptions().set("LD_PRELOAD", d.stage(KOR_PRELOAD_kill_after_writes)).set("KOR_WRITE_LOG", log)
        .set("ASAN_OPTIONS", std::string(asan ? asan : "") + ":verify_asan_link_order=0");
    if (k > 0) o.set("KOR_KILL_AFTER_WRITES", std::to_string(k)).set("KOR_TORN_BYTES", std::to_string(torn));
    unlink(log.c_str());
    const sandbox::RunResult r = d.kor(args, o);
    if (err) *err = r.err;
    std::istringstream in(d.exists(log) ? d.read_file(log) : "");
    for (std::string path, length; writes && in >> path >> length;) writes->push_back(path);
    return r.status;
}

// The index of the first and last write to a device of `paths` (-1: none).
std::pair<long, long> span(const std::vector<std::string>& writes, const std::set<std::string>& paths)
{
    long first = -1, last = -1;
    for (size_t i = 0; i < writes.size(); ++i)
        if (paths.count(writes[i])) last = long(i), first = first < 0 ? long(i) : first;
    return {first, last};
}

TEST(Stream, PartsThatASetInUseNeedsAreWrittenLastFromMemory)
{
    KOR_SANDBOX_OR_SKIP();
    const std::string p5 = Device::part(5), p11 = Device::part(11), p13 = Device::part(13);
    const struct { const char* name; std::vector<Body> bodies; Args args; bool into_active; std::set<std::string> held;
                   int status; std::string message; } rows[] = {
        {"singleton pool", {{"safe", "SAFEKNLS", 3000}, kKernel, kRoot}, {"1", "-f"}, false, {p5}, 0,
         "install: content part 2 for partition 5 is written last, from memory\n"},
        {"the active set's own partitions", {kKernel, kRoot}, {"1"}, true, {p11, p13}, 0,
         "install: content part 3 for partition 13 is written last, from memory\n"},
        {"singleton too large for -velksize", {{"safe", "SAFEKNLS", 70000}, kKernel, kRoot},
         {"1", "-f", "-velksize=65536"}, false, {}, 9,
         "install: content part 2 (70000 bytes) must be held in memory until the other parts are written, and does "
         "not fit -velksize=65536\n"},
        {"-velksize below what the first reading holds", {kKernel, kRoot}, {"1", "-velksize=256"}, false, {}, 9,
         "install: content part 3 needs 76 bytes in memory; -velksize=256 does not leave them\n"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Device d;
        d.with_default_layout();
        const std::string path = d.workdir() + "/img.velk";
        if (row.into_active) {  // set 1 holds 1.0.1 and is active
            const bytes old = image(row.bodies, 1);
            d.write_file(path, std::string(old.begin(), old.end()));
            ASSERT_EQ(d.kor({"install", path, "1"}).status, 0);
        }
        const bytes img = image(row.bodies, 2);
        d.write_file(path, std::string(img.begin(), img.end()));
        const bytes kd_before = d.read(Device::part(3), 0, 5120);
        Args args{"install", path, "-stream"};
        args.insert(args.begin() + 2, row.args.begin(), row.args.end());
        std::vector<std::string> writes;
        std::string err;
        EXPECT_EQ(cut_run(d, args, 0, -1, &writes, &err), row.status) << err;
        EXPECT_NE(err.find(row.message), std::string::npos) << err;
        if (row.status != 0) {  // refused before anything was written
            EXPECT_EQ(writes, std::vector<std::string>{});
            EXPECT_EQ(d.read(Device::part(3), 0, 5120), kd_before);
            continue;
        }
        std::set<std::string> parts{p5, p11, p13};
        for (const std::string& h : row.held) parts.erase(h);
        const auto [streamed_first, streamed_last] = span(writes, parts);
        const auto [held_first, held_last] = span(writes, row.held);
        const auto saves = span(writes, {Device::part(3), Device::part(4)});
        EXPECT_LT(streamed_last, held_first);
        EXPECT_LT(held_last, saves.second);
        EXPECT_EQ(d.kor({"verify", "1"}).status, 0);
    }
}

TEST(Stream, CutAtEveryWriteLeavesTheActiveSetAndARunAfterCompletes)
{
    KOR_SANDBOX_OR_SKIP();
    if (std::getenv("KOR_TEST_EMULATOR")) GTEST_SKIP() << "dozens of kor runs, too slow under emulation";
    static const servers::Release unused({64});
    servers::World w(unused);
    Device& d = w.dev;
    const Scene scene = set_scene(d);
    std::vector<std::pair<int, bytes>> saved;
    for (int n : {3, 4, 11, 13, 14}) saved.push_back({n, d.read(Device::part(n), 0, n > 4 ? 2 << 20 : sandbox::kHostconfigPartSize)});
    const auto restore = [&] {
        for (const auto& [n, b] : saved) d.write(Device::part(n), 0, b);
        for (const char* f : {"/tmp/kor.lock", "/tmp/kor.autoset", "/tmp/kor.activeset"}) unlink(f);
    };
    const Args args{"install", scene.file, "1", "-stream"};
    std::vector<std::string> writes;
    ASSERT_EQ(cut_run(d, args, 0, -1, &writes), 0);
    const std::string kd_new = kor_data(d);
    ASSERT_NE(kd_new.find("actset=1\n"), std::string::npos) << kd_new;
    ASSERT_GT(writes.size(), 6u);
    for (size_t k = 1; k <= writes.size(); ++k)
        for (long torn : {-1L, 100L}) {
            SCOPED_TRACE("cut at write " + std::to_string(k) + " (" + writes[k - 1] + ") after " + std::to_string(torn));
            restore();
            EXPECT_EQ(cut_run(d, args, k, torn), kKilled);
            if (kor_data(d) != kd_new) {
                EXPECT_EQ(harm(d, scene), "");
            }
            EXPECT_EQ(rerun(d, scene), "");
        }
}

// A partition that fails its writes (EIO, a worn-out medium) while the root streams into it: the kernel and appl
// before it are written, nothing is recorded, and a run on a sound medium installs.
TEST(Stream, AFailedWriteWhileStreamingRecordsNothing)
{
    KOR_SANDBOX_OR_SKIP();
    static const servers::Release unused({64});
    servers::World w(unused);
    Device& d = w.dev;
    const Scene scene = set_scene(d);
    const char* asan = std::getenv("ASAN_OPTIONS");  // the preload comes before ASan's runtime
    const auto o = sandbox::RunOptions().set("LD_PRELOAD", d.stage(KOR_PRELOAD_kill_after_writes))
        .set("KOR_FAIL_WRITES_TO", Device::part(13))
        .set("ASAN_OPTIONS", std::string(asan ? asan : "") + ":verify_asan_link_order=0");
    const sandbox::RunResult r = d.kor({"install", scene.file, "1", "-stream"}, o);
    EXPECT_EQ(r.status, 1) << r.err;
    EXPECT_NE(r.out.find("Writing out 4096 bytes of data to " + Device::part(14)), std::string::npos) << r.out;
    EXPECT_NE(r.err.find("Could not fwrite to " + Device::part(13) + ", errno=5"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("install: stopped before every part was written"), std::string::npos) << r.err;
    EXPECT_EQ(harm(d, scene), "");
    EXPECT_EQ(rerun(d, scene), "");
}

// ---- Signed images ----

// With a trusted key, each header is matched in the first reading and each body when its last byte has passed, before
// it is read back or counts: a body that differs from what was signed (its CRC made to fit) stops the install after
// the parts before it were written, and nothing is recorded; an image changed where the first reading sees it, or not
// signed at all, is refused before anything is written.
TEST(Stream, SignedPartsAreMatchedAsTheyPass)
{
    KOR_SANDBOX_OR_SKIP();
    const signing::Key& key = signing::old_key();
    const signing::Release rel({&key}, "1.0.1", 1, {5001, (1 << 20) + 3, 3002});
    signing::parts forged = rel.signed_parts, raised = rel.signed_parts;
    bytes& root = forged[4].body;
    const uint32_t crc = uint32_t(::crc32(0, root.data(), uInt(root.size())));
    root[70000] ^= 1;
    root = signing::forge_crc(root, 100000, crc);
    raised[4].header_extra[1] ^= 1;  // the root's software version
    const std::string stopped = "install: stopped before every part was written";
    const struct { const char* name; bytes img; bool http; int status; std::string message; bool kernel_written; } rows[] = {
        {"signed by a trusted key", rel.image(), false, 0, "install: signed by key " + key.id_hex, true},
        {"signed, by http", rel.image(), true, 0, "install: signed by key " + key.id_hex, true},
        {"a later body differs", mkvelk::build_image(forged), false, 15,
         "install: content part 4 does not match the signed manifest\n", true},
        {"a later body differs, by http", mkvelk::build_image(forged), true, 15,
         "install: content part 4 does not match the signed manifest\n", true},
        {"a later header differs", mkvelk::build_image(raised), false, 15,
         "install: content part 4 does not match the signed manifest\n", false},
        {"not signed", rel.unsigned_image(), true, 15, "install: image is not signed", false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        static const servers::Release unused({64});
        servers::World w(unused);
        Device& d = w.dev;
        d.write_file(sandbox::kEtcKor + "/keys/release.pub", key.pem);
        d.write_file(w.file, signing::text(row.img));
        std::unique_ptr<servers::Daemon> server;
        if (row.http) server = std::make_unique<servers::Daemon>(w, "http");
        const bytes hostconfig = d.read(Device::part(3), 0, 8192);
        const sandbox::RunResult r = d.kor({"install", server ? server->url("img.velk") : w.file, "1", "-stream"});
        EXPECT_EQ(r.status, row.status) << r.err;
        EXPECT_NE(r.err.find(row.message), std::string::npos) << r.err;
        EXPECT_EQ(r.err.find(stopped) != std::string::npos, row.status != 0 && row.kernel_written) << r.err;
        EXPECT_EQ(d.read(Device::part(11), 0, 5001) == rel.body(3), row.kernel_written);
        if (row.status == 0) {
            EXPECT_EQ(d.kor({"verify", "1"}).status, 0);
        } else {
            EXPECT_EQ(d.read(Device::part(3), 0, 8192), hostconfig) << "the hostconfig changed";
        }
    }
}

// ---- Partitions checked before the first write ----

// A streaming install of a kernel and a root of `root` bytes written with `wts`; the root goes to p13.
class Target : public cli::Builder<Target> {
public:
    Target(std::string name, size_t root, int wts = 1) : Builder(std::move(name))
    {
        args("1 -stream");
        given("image with a root of " + std::to_string(root) + " bytes, write type " + std::to_string(wts),
              [root, wts](cli::Setup& s) {
                  const bytes img = image({kKernel, {"root", "ROOTS", root, wts}});
                  const std::string path = s.dev.workdir() + "/img.velk";
                  s.dev.write_file(path, std::string(img.begin(), img.end()));
                  s.args.insert(s.args.begin() + 1, path);
              });
    }
    Target& no_node()
    {
        return given("no node for p13", [](cli::Setup&) { unlink(Device::part(13).c_str()); });
    }
    Target& regular_file()
    {
        return given("a regular file as p13", [](cli::Setup& s) {
            unlink(Device::part(13).c_str());
            s.dev.write_file(Device::part(13), "not a partition");
        });
    }
    Target& partition_of(uint64_t size)
    {
        return given("p13 of " + std::to_string(size) + " bytes", [size](cli::Setup& s) { s.dev.add_partition(13, size); });
    }
    Target& still_no_node()
    {
        return expect("p13 still absent", [](const cli::Outcome& o) {
            return o.dev.exists(Device::part(13)) ? "kor created it" : "";
        });
    }
    Target& file_kept()
    {
        return expect("the regular file as it was", [](const cli::Outcome& o) {
            const std::string text = o.dev.read_file(Device::part(13));
            return text == "not a partition" ? "" : "it holds \"" + text.substr(0, 40) + "\"";
        });
    }
};

TEST(Stream, TargetPartitionsAreCheckedBeforeTheFirstWrite)
{
    KOR_SANDBOX_OR_SKIP();
    const std::string p13 = Device::part(13);
    // The root part's header, which write type 2 puts in front of the body.
    const bytes probe = image({kKernel, {"root", "ROOTS", 4096, 2}});
    const size_t header = probe[part_offsets(probe)[3] + 6] | probe[part_offsets(probe)[3] + 7] << 8;
    const Target rows[] = {
        Target("no partition node", 4096).no_node().status(17)
            .stderr_has("install: partition " + p13 + " does not exist\n").device_unchanged().still_no_node(),
        Target("a regular file in place of the partition", 4096).regular_file().status(17)
            .stderr_has("install: " + p13 + " is not a block device\n").device_unchanged().file_kept(),
        Target("one byte too small", (1 << 20) + 1).partition_of(1 << 20).status(17)
            .stderr_has("install: " + p13 + " holds 1048576 bytes, 1048577 are to be written\n").device_unchanged(),
        Target("one byte too small for header and body", (1 << 20) + 1 - header, 2).partition_of(1 << 20).status(17)
            .stderr_has("install: " + p13 + " holds 1048576 bytes, 1048577 are to be written\n").device_unchanged(),
        Target("exactly large enough", 1 << 20).partition_of(1 << 20).status(0)
            .stdout_has("Writing out 1048576 bytes of data to " + p13 + "\n").stored("set[1].refs", "11,13"),
    };
    for (const Target& row : rows) {
        Device d;
        d.with_default_layout();
        cli::run(row, d, {"install"});
    }
}

}  // namespace
