// kor killed at every device write of an install, a partset, a partinfo and
// an activate, whole or torn, twice in a row, and a save whose blocks reach
// the device in any subset. Afterwards a stored hostconfig still loads with
// the newest or the previous record, the set active before still verifies,
// and no set claims content that is not on its partition.
#include <gtest/gtest.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <functional>
#include <set>
#include <sstream>

#include "mkvelk.h"
#include "support/hostconfig_decoder.h"
#include "support/sandbox.h"

using sandbox::bytes;
using sandbox::Device;
using Args = std::vector<std::string>;
using Writes = std::vector<std::pair<std::string, size_t>>;  // device path, length

namespace {

constexpr size_t kKorData = 3240, kBlock = 512, kImageMax = 5120, kFlags = 0x3FE00;
constexpr int kKilled = 9 + 63;  // the parent's status for a worker killed by SIGKILL

uint32_t u32(const bytes& b, size_t at) { return b[at] | b[at + 1] << 8 | b[at + 2] << 16 | uint32_t(b[at + 3]) << 24; }

// Kernel, device tree and root of a few KB, none written header first:
// verifying a set reads every partition as body only.
std::string release(Device& d, uint16_t build)
{
    std::string v = "1.0." + std::to_string(build), path = d.workdir() + "/r" + v + ".velk";
    std::vector<mkvelk::part> parts{mkvelk::release_header(1, 0, build, 0, "b" + v, "products=dev1\n"),
        mkvelk::korm("2,KNLS,0,-,-,-," + v + ",1\n3,DTS,0,-,-,-," + v + ",1\n4,ROOTS,0,-,-,-," + v + ",3\n")};
    for (auto [name, n] : {std::pair{"kernel", 1501}, {"dtb", 301}, {"root", 2002}}) {
        bytes b(n);
        for (int i = 0; i < n; ++i) b[i] = uint8_t(build * 31 + n + i * 7 + (i >> 8));
        parts.push_back(mkvelk::software(name, 1, 0, build, name, b));
    }
    bytes img = mkvelk::build_image(parts);
    d.write_file(path, std::string(img.begin(), img.end()));
    return path;
}

void start(Device& d)  // release 1 installed into SET2, which is active
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
        for (const hcdec::Part& p : img.parts)
            if (ok && p.name == "KOR data" && p.body.size() >= kKorData) return bytes(p.body.begin(), p.body.begin() + kKorData);
    }
    return {};
}

// Entries some set lists whose recorded content (zlib CRC) is neither at
// offset 0 of their partition nor behind the header.
std::string missing_content(const Device& d, const bytes& kd)
{
    std::set<int> listed;
    for (size_t s = 0; s < 3 * 38 && !kd.empty(); s += 38)
        for (size_t i = 0; i < 22; ++i)
            if (kd[1 + s + 16 + i] < 22) listed.insert(kd[1 + s + 16 + i]);
    std::string missing;
    for (int p : listed) {
        size_t meta = 1832 + 64 * size_t(p);
        uint32_t length = u32(kd, meta + 8), crc = u32(kd, meta + 28), hdr = kd[meta + 6] | kd[meta + 7] << 8;
        bytes part = d.read(Device::part(kd[116 + 72 * p + 16]), 0, hdr + length);
        auto crc_at = [&](size_t at) { return at + length <= part.size() && crc32(0, &part[at], length) == crc; };
        if (length > 0 && !crc_at(0) && !crc_at(hdr)) missing += "content of entry " + std::to_string(p) + " missing; ";
    }
    return missing;
}

// The info report less the upgrade state lines, which come from the flags area.
std::string info(Device& d, std::string text = "")
{
    if (text.empty()) {
        sandbox::RunResult r = d.kor({"info"});
        EXPECT_EQ(r.status, 0) << r.err;
        text = r.out;
    }
    for (size_t at; (at = text.find("KOR Data Upgrade")) != std::string::npos;) text.erase(at, text.find('\n', at) + 1 - at);
    return text;
}

struct State {
    bytes kd;
    std::string info;
};

// Takes every byte a run may change; the result puts them back.
std::function<void()> snapshot(const Device& d)
{
    std::vector<std::pair<int, bytes>> parts;
    for (int n : {3, 4, 5, 6, 7, 8, 11, 12, 13, 14, 15, 16, 17, 18}) parts.push_back({n, d.read(Device::part(n), 0, 8192)});
    return [&d, parts, flags = d.read(Device::part(3), kFlags, kBlock)] {
        for (const auto& [n, b] : parts) d.write(Device::part(n), 0, b);
        d.write(Device::part(3), kFlags, flags);
        for (const char* f : {"/tmp/kor.lock", "/tmp/kor.autoset", "/tmp/kor.activeset"}) unlink(f);
    };
}

// kor with the interposer, killed at device write `k` (0: never, and then
// the device writes go to `writes`) after `torn` bytes of it (-1: whole).
int cut_run(Device& d, const Args& args, size_t k, long torn, Writes* writes = nullptr)
{
    static std::string preload;
    if (!d.exists(preload)) preload = d.stage(KOR_PRELOAD_kill_after_writes);
    const std::string log = d.workdir() + "/writes.log", asan = std::getenv("ASAN_OPTIONS") ? std::getenv("ASAN_OPTIONS") : "";
    sandbox::RunOptions o;
    o.set("LD_PRELOAD", preload).set("ASAN_OPTIONS", asan + ":verify_asan_link_order=0").set("KOR_WRITE_LOG", log);
    if (k > 0) o.set("KOR_KILL_AFTER_WRITES", std::to_string(k)).set("KOR_TORN_BYTES", std::to_string(torn));
    unlink(log.c_str());
    int status = d.kor(args, o).status;
    std::istringstream in(d.read_file(log));
    for (std::pair<std::string, size_t> w; writes && in >> w.first >> w.second;) writes->push_back(w);
    return status;
}

// Where to cut a write of n bytes: nothing, one byte, every block boundary, half, all but the last byte.
std::vector<long> cuts(size_t n)
{
    std::set<long> c{0, 1, long(n / 2), long(n) - 1};
    for (size_t b = kBlock; b < n; b += kBlock) c.insert(long(b));
    return {c.lower_bound(0), c.lower_bound(long(n))};
}

// What is wrong after a cut run, "" for nothing. `ok`: the states that may
// load (before, maybe released, after); `tested`: the new set 1 must carry its test mark.
std::string damage(Device& d, const std::vector<State>& ok, bool tested)
{
    State now{record(d), info(d)};
    auto any = [&](auto same) { return std::any_of(ok.begin(), ok.end(), same); };
    std::string why = any([&](const State& s) { return s.info == now.info; }) ? "" : "info neither old nor new; ";
    if (!any([&](const State& s) { return s.kd == now.kd; })) why += "stored record neither old nor new; ";
    if (tested && now.kd == ok.back().kd && !(d.read(Device::part(3), kFlags, 1)[0] & 1)) why += "new set active without its test mark; ";
    if (d.kor({"verify", "2"}).status != 0) why += "set active before does not verify; ";
    return why + missing_content(d, now.kd);
}

TEST(Interrupt, EveryWriteOfInstallAndSaveCutWholeOrTorn)
{
    KOR_SANDBOX_OR_SKIP();
    // Hundreds of kor runs, too slow under an emulator; the order of writes is the same on every target.
    if (std::getenv("KOR_TEST_EMULATOR")) GTEST_SKIP() << "too slow under emulation";
    const struct {
        Args args;                  // "IMG" is release 2
        bool over_release = false;  // release 3 in SET1 (not active) first
    } scenarios[] = {
        {{"install", "IMG", "1", "-test"}},
        {{"install", "IMG", "1", "-noactivate"}},
        {{"partset", "1", "SET1", "-refs=15,16,17", "-meta=1.0.9"}},
        {{"partinfo", "19", "KNLS", "0x10000", "-pn=15", "-metacrc=7"}},
        {{"activate", "0", "-f"}},  // SAFESET lists nothing to verify
        {{"install", "IMG", "1"}, true},
    };
    int runs = 0;
    for (const auto& s : scenarios) {
        SCOPED_TRACE(s.args[0] + " " + s.args.back());
        Device d;
        ASSERT_NO_FATAL_FAILURE(start(d));
        ASSERT_TRUE(!s.over_release || d.kor({"install", release(d, 3), "1", "-noactivate"}).status == 0);
        Args args = s.args;
        std::replace(args.begin(), args.end(), std::string("IMG"), release(d, 2));
        auto restore = snapshot(d);
        std::vector<State> ok{{record(d), info(d)}};
        if (s.over_release) {  // killed after the save before the first partition write: the released record
            ASSERT_EQ(cut_run(d, args, 2, -1), kKilled);
            ok.push_back({record(d), info(d)});
            restore();
        }
        Writes w;
        ASSERT_EQ(cut_run(d, args, 0, -1, &w), 0);
        ok.push_back({record(d), info(d)});
        ASSERT_NE(ok.front().kd, ok.back().kd);
        ASSERT_GE(w.size(), 2u);
        for (size_t k = 1; k <= w.size(); ++k) {
            std::vector<long> torn = cuts(w[k - 1].second);
            torn.push_back(-1);
            for (long t : torn) {
                restore();
                EXPECT_EQ(cut_run(d, args, k, t), kKilled) << "write " << k << " not reached";
                EXPECT_EQ(damage(d, ok, s.args.back() == "-test"), "")
                    << "cut at write " << k << " (" << w[k - 1].first << ", " << w[k - 1].second << " bytes) after " << t;
                ++runs;
            }
        }
    }
    EXPECT_GE(runs, 200);
}

// A torn primary, then the next save torn as well: the copy not being
// written always holds the newest or the previous record.
TEST(Interrupt, TwoFaultsInARowKeepALoadableCopy)
{
    KOR_SANDBOX_OR_SKIP();
    Device d;
    ASSERT_NO_FATAL_FAILURE(start(d));
    const Args first = {"partset", "1", "SET1", "-refs=15", "-meta=1.0.5"},
               second = {"partset", "1", "SETX", "-refs=16", "-meta=1.0.6"};
    auto restore = snapshot(d);
    Writes w1, w2;
    bytes r0 = record(d);
    ASSERT_EQ(cut_run(d, first, 0, -1, &w1), 0);
    bytes r1 = record(d);
    ASSERT_EQ(cut_run(d, second, 0, -1, &w2), 0);
    bytes r2 = record(d);
    ASSERT_EQ(w1.size(), 2u);
    ASSERT_EQ(w2.size(), 2u);
    ASSERT_EQ(w1[1].first, Device::part(3));  // the primary last
    const std::string default_layout = info(d, d.read_file(KOR_SOURCE_DIR "/tests/golden/info_default.txt"));
    int backup_loads = 0;
    for (size_t second_cut : {1, 2}) {
        for (long t : cuts(w1[1].second)) {
            SCOPED_TRACE("primary torn after " + std::to_string(t) + ", second save cut at write " + std::to_string(second_cut));
            restore();
            ASSERT_EQ(cut_run(d, first, 2, t), kKilled);
            bytes mid = record(d);
            bool primary_lost = record(d, false).empty();
            backup_loads += primary_lost;
            EXPECT_TRUE(mid == r1 || (!primary_lost && mid == r0));
            EXPECT_EQ(cut_run(d, second, second_cut, long(w2[second_cut - 1].second / 2)), kKilled);
            EXPECT_TRUE(record(d) == mid || record(d) == r2);
            EXPECT_NE(info(d), default_layout);
        }
    }
    EXPECT_GT(backup_loads, 0);
}

// The save of an install (sets, partition entries, release and content
// headers change, so the copies differ in several blocks): old copy, new
// copy and every mix of their 512-byte blocks, as a device may hold them
// when power fails before the write is flushed; the primary written last
// after a good backup, or repaired first while the backup holds the old.
TEST(Interrupt, EverySubsetOfTheBlocksOfOneCopyLoadsOldOrNew)
{
    KOR_SANDBOX_OR_SKIP();
    Device d;
    ASSERT_NO_FATAL_FAILURE(start(d));
    bytes old_copy = d.read(Device::part(3), 0, kImageMax);
    std::string info_old = info(d);
    ASSERT_EQ(d.kor({"install", release(d, 2), "1"}).status, 0);
    bytes new_copy = d.read(Device::part(3), 0, kImageMax);
    std::string info_new = info(d);
    size_t blocks = (24 + u32(new_copy, 16) + kBlock - 1) / kBlock;
    ASSERT_EQ(blocks, 7u);
    old_copy.resize(blocks * kBlock);
    new_copy.resize(blocks * kBlock);
    const bytes zero(old_copy.size(), 0);
    std::set<std::pair<bytes, bytes>> seen;
    for (auto [primary_before, backup] : {std::pair<const bytes*, const bytes*>{&old_copy, &new_copy}, {&zero, &old_copy}}) {
        for (unsigned mask = 0; mask < 1u << blocks; ++mask) {
            bytes primary = *primary_before;
            for (size_t b = 0; b < blocks; ++b)
                if (mask >> b & 1) std::copy_n(&new_copy[b * kBlock], kBlock, &primary[b * kBlock]);
            if (!seen.insert({primary, *backup}).second) continue;  // same bytes as an earlier mix
            SCOPED_TRACE((backup == &old_copy ? "primary repaired first, blocks " : "primary last, blocks ") + std::to_string(mask));
            d.write(Device::part(3), 0, primary);
            d.write(Device::part(4), 0, *backup);
            std::string rep = info(d);
            EXPECT_TRUE(rep == info_old || rep == info_new) << rep;
        }
    }
}

}  // namespace
