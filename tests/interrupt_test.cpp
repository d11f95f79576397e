// kor killed at any device write, whole or torn, twice in a row, or a save landing in any subset of blocks.
#include <gtest/gtest.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <set>
#include <tuple>
#include <sstream>

#include "mkvelk.h"
#include "support/hostconfig_decoder.h"
#include "support/sandbox.h"

using sandbox::bytes, sandbox::Device;
using Args = std::vector<std::string>;
using Writes = std::vector<std::pair<std::string, size_t>>;  // device path, length

namespace {

constexpr size_t kKorData = 3240, kBlock = 512, kImageMax = 5120, kFlags = 0x3FE00, kSaveBlocks = 7;
constexpr int kKilled = 9 + 63;  // the parent's status for a worker killed by SIGKILL

uint32_t u32(const bytes& b, size_t at) { return b[at] | b[at + 1] << 8 | b[at + 2] << 16 | uint32_t(b[at + 3]) << 24; }

std::string release_path(uint16_t build) { return sandbox::workdir() + "/r1.0." + std::to_string(build) + ".velk"; }

// Release 1.0.`build` with a kernel, a device tree and a root of odd lengths; its path.
std::string release(Device& d, uint16_t build)
{
    const std::string v = "1.0." + std::to_string(build), path = release_path(build);
    std::vector<mkvelk::part> parts{mkvelk::release_header(1, 0, build, 0, "b" + v, "products=dev1\n"),
        mkvelk::korm("2,KNLS,0,-,-,-," + v + ",1\n3,DTS,0,-,-,-," + v + ",1\n4,ROOTS,0,-,-,-," + v + ",3\n")};
    for (auto [name, n] : {std::pair{"kernel", 1501}, {"dtb", 301}, {"root", 2002}}) {
        bytes b(n);
        for (int i = 0; i < n; ++i) b[i] = uint8_t(build * 31 + n + i * 7 + (i >> 8));
        parts.push_back(mkvelk::software(name, 1, 0, build, name, b));
    }
    const bytes img = mkvelk::build_image(parts);
    d.write_file(path, std::string(img.begin(), img.end()));
    return path;
}

// The default layout with release 1 installed in set 2.
void start(Device& d)
{
    d.with_default_layout(64 << 10);
    ASSERT_EQ(d.kor({"install", release(d, 1), "2"}).status, 0);
}

// The "KOR data" of the copy kor loads (the primary when it passes every CRC, else the backup), or nothing.
bytes record(const Device& d, bool backup_too = true)
{
    for (int n = 3; n <= (backup_too ? 4 : 3); ++n) {
        hcdec::Image img;
        bool ok = hcdec::decode_image(d.read(Device::part(n), 0, kImageMax), &img) && img.crcs_ok;
        for (const hcdec::Part& p : img.parts) ok = ok && p.crcs_ok;
        if (!ok) continue;
        for (const hcdec::Part& p : img.parts)
            if (p.name == "KOR data" && p.body.size() >= kKorData)
                return bytes(p.body.begin(), p.body.begin() + kKorData);
    }
    return {};
}

// Listed entries whose recorded content (zlib CRC) is neither at offset 0 of their partition nor behind its header.
std::string missing_content(const Device& d, const bytes& kd)
{
    std::string missing;
    for (size_t i = 0; i < 3 * 22 && !kd.empty(); ++i) {  // the partition lists of the three sets
        const size_t p = kd[17 + i / 22 * 38 + i % 22], meta = 1832 + 64 * p;
        if (p >= 22) continue;
        const uint32_t length = u32(kd, meta + 8), crc = u32(kd, meta + 28), hdr = kd[meta + 6] | kd[meta + 7] << 8;
        bytes part = d.read(Device::part(kd[116 + 72 * p + 16]), 0, hdr + length);
        auto crc_at = [&](size_t at) { return at + length <= part.size() && crc32(0, &part[at], length) == crc; };
        if (length > 0 && !crc_at(0) && !crc_at(hdr)) missing += "content of entry " + std::to_string(p) + " missing; ";
    }
    return missing;
}

struct State { bytes kd; std::string info; };  // the info less the upgrade state lines, which come from the flags

State state(Device& d)
{
    sandbox::RunResult r = d.kor({"info"});
    EXPECT_EQ(r.status, 0) << r.err;
    for (size_t at = r.out.find("KOR Data Upgrade"); at != std::string::npos; at = r.out.find("KOR Data Upgrade"))
        r.out.erase(at, r.out.find('\n', at) + 1 - at);
    return {record(d), r.out};
}

auto snapshot(const Device& d)
{
    std::vector<std::tuple<int, size_t, bytes>> saved{{3, kFlags, d.read(Device::part(3), kFlags, kBlock)}};
    for (int n : {3, 4, 5, 6, 7, 8, 11, 12, 13, 14, 15, 16, 17, 18})
        saved.push_back({n, 0, d.read(Device::part(n), 0, 8192)});
    return [&d, saved] {
        for (const auto& [n, at, b] : saved) d.write(Device::part(n), at, b);
        for (const char* f : {"/tmp/kor.lock", "/tmp/kor.autoset", "/tmp/kor.activeset"}) unlink(f);
    };
}

constexpr long kWhole = -1;

// kor killed at device write `k` (0: never, the writes go to `writes`) after `torn` bytes of it (kWhole: all).
int cut_run(Device& d, const Args& args, size_t k, long torn, Writes* writes = nullptr)
{
    const std::string log = d.workdir() + "/writes.log";
    const char* asan = std::getenv("ASAN_OPTIONS");  // the preload comes before ASan's runtime
    auto o = sandbox::RunOptions()
                 .set("LD_PRELOAD", d.stage(KOR_PRELOAD_kill_after_writes))
                 .set("KOR_WRITE_LOG", log)
                 .set("ASAN_OPTIONS", std::string(asan ? asan : "") + ":verify_asan_link_order=0");
    if (k > 0) o.set("KOR_KILL_AFTER_WRITES", std::to_string(k)).set("KOR_TORN_BYTES", std::to_string(torn));
    unlink(log.c_str());
    const int status = d.kor(args, o).status;
    std::istringstream in(d.read_file(log));
    std::pair<std::string, size_t> w;
    while (writes && in >> w.first >> w.second) writes->push_back(w);
    return status;
}

// What is wrong after a cut run ("": nothing). ok: the states that may load; lost: counts runs that lost the primary.
std::string damage(Device& d, const State& now, const std::vector<State>& ok, bool tested, int* lost)
{
    auto any = [&](auto same) { return std::any_of(ok.begin(), ok.end(), same); };
    std::string why = any([&](const State& s) { return s.info == now.info; }) ? "" : "info neither old nor new; ";
    if (!any([&](const State& s) { return s.kd == now.kd; })) why += "stored record neither old nor new; ";
    if (tested && now.kd == ok.back().kd && !(d.read(Device::part(3), kFlags, 1)[0] & 1))
        why += "new set active without its test mark; ";
    if (lost && record(d, false).empty()) {
        ++*lost;
        if (now.kd == ok.front().kd) why += "primary lost before the backup was new; ";
    }
    if (d.kor({"verify", "2"}).status != 0) why += "set active before does not verify; ";
    return why + missing_content(d, now.kd);
}

// A command cut at each of its device writes, whole or torn; after each cut, `then` (if any) cut at each of its own.
class Scenario {
public:
    explicit Scenario(Args args) : args(std::move(args)) {}
    Scenario& then(Args a) { then_ = std::move(a); return *this; }
    // Release 3 installed into SET1 first, so that the command installs over a release.
    Scenario& over_release() { over_release_ = true; return *this; }
    // The command marks the new set for test: it must never be active without its mark.
    Scenario& marks_for_test() { tested = true; return *this; }

    Args args, then_;
    bool over_release_ = false, tested = false;
};

TEST(Interrupt, EveryWriteCutWholeOrTornThenTheNextSaveCutToo)
{
    KOR_SANDBOX_OR_SKIP();
    if (std::getenv("KOR_TEST_EMULATOR")) GTEST_SKIP() << "hundreds of kor runs, too slow under emulation";
    const std::string release2 = release_path(2);
    const Scenario scenarios[] = {
        Scenario({"install", release2, "1", "-test"}).marks_for_test(),
        Scenario({"install", release2, "1", "-noactivate"}),
        Scenario({"partset", "1", "SET1", "-refs=15,16,17", "-meta=1.0.9"})
            .then({"partset", "1", "SETX", "-refs=16", "-meta=1.0.6"}),
        Scenario({"partinfo", "19", "KNLS", "0x10000", "-pn=15", "-metacrc=7"}),
        Scenario({"activate", "0", "-f"}),  // SAFESET lists nothing to verify
        Scenario({"install", release2, "1"}).over_release(),
    };
    int lost = 0;
    for (const Scenario& s : scenarios) {
        SCOPED_TRACE(s.args[0] + " " + s.args.back());
        Device d;
        ASSERT_NO_FATAL_FAILURE(start(d));
        release(d, 2);
        if (s.over_release_) {
            ASSERT_EQ(d.kor({"install", release(d, 3), "1", "-noactivate"}).status, 0);
        }
        auto restore = snapshot(d);
        std::vector<State> ok{state(d)};
        // Killed after the save before the first partition write: the released record may load.
        if (s.over_release_) {
            ASSERT_EQ(cut_run(d, s.args, 2, kWhole), kKilled);
            ok.push_back(state(d));
            restore();
        }
        Writes w, w2;
        ASSERT_EQ(cut_run(d, s.args, 0, kWhole, &w), 0);
        ok.push_back(state(d));
        if (!s.then_.empty()) {
            ASSERT_EQ(cut_run(d, s.then_, 0, kWhole, &w2), 0);
        }
        const State second = state(d);
        ASSERT_NE(ok.front().kd, ok.back().kd);
        for (size_t k = 1; k <= w.size(); ++k) {
            const long n = long(w[k - 1].second);  // cut after all of it, 0, 1, n / 2, n - 1 bytes, each block
            std::set<long> cuts{kWhole, 0, 1, n / 2, n - 1};
            for (long b = kBlock; b < n; b += kBlock) cuts.insert(b);
            for (long t : cuts) {
                if (t >= n) continue;
                restore();
                EXPECT_EQ(cut_run(d, s.args, k, t), kKilled) << "write " << k << " not reached";
                State now = state(d);
                EXPECT_EQ(damage(d, now, ok, s.tested, &lost), "")
                    << "cut at write " << k << " (" << w[k - 1].first << ", " << w[k - 1].second
                    << " bytes) after " << t;
                auto back = snapshot(d);
                for (size_t j = 1; j <= w2.size(); ++j) {
                    EXPECT_EQ(cut_run(d, s.then_, j, long(w2[j - 1].second / 2)), kKilled);
                    EXPECT_EQ(damage(d, state(d), {now, second}, false, nullptr), "") << "then cut at write " << j;
                    back();
                }
            }
        }
    }
    EXPECT_GT(lost, 0);
}

// Every mix of old and new 512-byte blocks of an install's save: the primary written last after a good backup, or
// repaired first while the backup holds the old.
TEST(Interrupt, EverySubsetOfTheBlocksOfOneCopyLoadsOldOrNew)
{
    KOR_SANDBOX_OR_SKIP();
    Device d;
    ASSERT_NO_FATAL_FAILURE(start(d));
    const bytes old_copy = d.read(Device::part(3), 0, kSaveBlocks * kBlock), zero(old_copy.size(), 0);
    const std::string info_old = state(d).info;
    ASSERT_EQ(d.kor({"install", release(d, 2), "1"}).status, 0);
    const bytes new_copy = d.read(Device::part(3), 0, kSaveBlocks * kBlock);
    const std::string info_new = state(d).info;
    ASSERT_EQ((24 + u32(new_copy, 16) + kBlock - 1) / kBlock, kSaveBlocks);
    std::set<std::pair<bytes, bytes>> seen;
    for (unsigned mask = 0; mask < 2u << kSaveBlocks; ++mask) {  // the top bit: the primary repaired first
        const bool repaired = mask >> kSaveBlocks;
        bytes primary = repaired ? zero : old_copy, backup = repaired ? old_copy : new_copy;
        for (size_t b = 0; b < kSaveBlocks; ++b)
            if (mask >> b & 1) std::copy_n(&new_copy[b * kBlock], kBlock, &primary[b * kBlock]);
        if (!seen.insert({primary, backup}).second) continue;  // same bytes as an earlier mix
        SCOPED_TRACE((repaired ? "repaired first, blocks " : "primary last, blocks ") + std::to_string(mask));
        d.write(Device::part(3), 0, primary);
        d.write(Device::part(4), 0, backup);
        const std::string info = state(d).info;
        EXPECT_TRUE(info == info_old || info == info_new) << info;
    }
}

}  // namespace
