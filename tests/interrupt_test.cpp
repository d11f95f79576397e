// kor killed at every device write of an install, a partset, a partinfo and
// an activate, whole or torn, and a save whose blocks reach the device in
// any subset. Afterwards a stored hostconfig still loads with the newest or
// the previous record, the set active before still verifies, and no set
// claims content that is not on its partition.
#include <gtest/gtest.h>
#include <unistd.h>
#include <zlib.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "mkvelk.h"
#include "support/hostconfig_decoder.h"
#include "support/sandbox.h"

using sandbox::bytes;
using sandbox::Device;
using sandbox::RunOptions;
using sandbox::RunResult;

namespace {

constexpr uint64_t kPartSize = 64 << 10;
constexpr uint64_t kFlags = 0x3FE00;
constexpr size_t kKorData = 3240, kBlock = 512, kImageMax = 5120;
constexpr int kKilled = 9 + 63;  // the parent's status for a worker killed by SIGKILL
const int kPartitions[] = {3, 4, 5, 6, 7, 8, 11, 12, 13, 14, 15, 16, 17, 18};

uint32_t u32(const bytes& b, size_t at)
{
    return b[at] | b[at + 1] << 8 | b[at + 2] << 16 | uint32_t(b[at + 3]) << 24;
}

bytes pattern(size_t n, uint8_t seed)
{
    bytes b(n);
    for (size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>(seed * 31 + i * 7 + (i >> 8));
    return b;
}

// Kernel and device tree (body only) and root (body, padding, header), a
// few KB in all. No part is written header first: verifying a set reads
// every partition as body only.
bytes release(uint16_t build)
{
    std::string v = "1.0." + std::to_string(build);
    std::string korm = "2,KNLS,0,-,-,-," + v + ",1\n3,DTS,0,-,-,-," + v + ",1\n4,ROOTS,0,-,-,-," +
                       v + ",3\n";
    uint8_t s = static_cast<uint8_t>(build);
    return mkvelk::build_image(
        {mkvelk::release_header(1, 0, build, 0, "b" + v, "products=dev1\n"), mkvelk::korm(korm),
         mkvelk::software("kernel", 1, 0, build, "k", pattern(1501, s)),
         mkvelk::software("dtb", 1, 0, build, "d", pattern(301, s + 1)),
         mkvelk::software("root", 1, 0, build, "r", pattern(2002, s + 2))});
}

std::string put(Device& d, const std::string& name, const bytes& b)
{
    std::string path = d.workdir() + "/" + name;
    d.write_file(path, std::string(b.begin(), b.end()));
    return path;
}

// The "KOR data" body of a stored copy that passes every CRC, else empty.
bytes record_of(const bytes& image)
{
    hcdec::Image img;
    if (!hcdec::decode_image(image, &img) || !img.crcs_ok) return {};
    bytes kd;
    for (const hcdec::Part& p : img.parts) {
        if (!p.crcs_ok) return {};
        if (p.name == "KOR data") kd = p.body;
    }
    return kd.size() < kKorData ? bytes{} : bytes(kd.begin(), kd.begin() + kKorData);
}

// The record kor loads: the primary when it passes, else the backup.
bytes loaded_record(const Device& d)
{
    bytes r = record_of(d.read(Device::part(3), 0, kImageMax));
    return r.empty() ? record_of(d.read(Device::part(4), 0, kImageMax)) : r;
}

// Entries that some set lists and whose recorded content is not where the
// record says, checked with zlib over the body at offset 0 (write types 1
// and 3) or behind the header (write type 2).
std::vector<int> missing_content(const Device& d, const bytes& kd)
{
    std::vector<int> missing;
    std::set<int> listed;
    for (int s = 0; s < 3; ++s)
        for (int i = 0; i < 22; ++i)
            if (kd[1 + 38 * s + 16 + i] < 22) listed.insert(kd[1 + 38 * s + 16 + i]);
    for (int p : listed) {
        size_t meta = 1832 + 64 * size_t(p);
        uint32_t length = u32(kd, meta + 8), crc = u32(kd, meta + 28);
        uint32_t hdr = kd[meta + 6] | kd[meta + 7] << 8;
        if (length == 0) continue;
        bytes part = d.read(Device::part(kd[116 + 72 * p + 16]), 0, hdr + length);
        auto crc_at = [&](size_t at) {
            return at + length <= part.size() ? uint32_t(crc32(0, &part[at], length)) : ~crc;
        };
        if (crc_at(0) != crc && crc_at(hdr) != crc) missing.push_back(p);
    }
    return missing;
}

// The info report without the upgrade state lines, which the flags area
// gives and not the record.
std::string report(const std::string& text)
{
    std::istringstream in(text);
    std::string line, out;
    while (std::getline(in, line))
        if (line.rfind("KOR Data Upgrade", 0) != 0) out += line + "\n";
    return out;
}

std::string golden_default()
{
    std::ifstream in(std::string(KOR_SOURCE_DIR) + "/tests/golden/info_default.txt");
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// Bytes a run may change, put back before each interruption.
class Snapshot {
public:
    explicit Snapshot(const Device& d)
    {
        for (int n : kPartitions) take(d, Device::part(n), 0, 8192);
        take(d, Device::part(3), kFlags, kBlock);
    }
    void restore(const Device& d) const
    {
        for (const Region& r : regions_) d.write(r.path, r.offset, r.data);
        for (const char* f : {"/tmp/kor.lock", "/tmp/kor.autoset", "/tmp/kor.activeset"}) unlink(f);
    }

private:
    struct Region {
        std::string path;
        uint64_t offset;
        bytes data;
    };
    void take(const Device& d, const std::string& path, uint64_t offset, uint64_t n)
    {
        regions_.push_back({path, offset, d.read(path, offset, n)});
    }
    std::vector<Region> regions_;
};

struct Write {
    std::string path;
    size_t length;
};

// Runs kor with the interposer; kill_at 0 never kills, torn -1 is whole.
RunResult run_preloaded(Device& d, const std::vector<std::string>& args, long kill_at, long torn,
                        const std::string& log = "")
{
    static std::string preload;
    if (preload.empty() || !d.exists(preload)) preload = d.stage(KOR_PRELOAD_kill_after_writes);
    RunOptions o;
    o.set("LD_PRELOAD", preload);
    const char* asan = std::getenv("ASAN_OPTIONS");
    o.set("ASAN_OPTIONS", std::string(asan ? asan : "") + ":verify_asan_link_order=0");
    if (kill_at > 0) o.set("KOR_KILL_AFTER_WRITES", std::to_string(kill_at));
    if (torn >= 0) o.set("KOR_TORN_BYTES", std::to_string(torn));
    if (!log.empty()) o.set("KOR_WRITE_LOG", log);
    return d.kor(args, o);
}

std::vector<Write> writes_of(Device& d, const std::vector<std::string>& args)
{
    std::string log = d.workdir() + "/writes.log";
    unlink(log.c_str());
    RunResult r = run_preloaded(d, args, 0, -1, log);
    EXPECT_EQ(r.status, 0) << r.err;
    std::vector<Write> w;
    std::istringstream in(d.read_file(log));
    for (Write x; in >> x.path >> x.length;) w.push_back(x);
    return w;
}

// Where to cut a write of n bytes: nothing, one byte, at every block
// boundary, half, all but the last byte.
std::vector<long> cuts(size_t n)
{
    std::set<long> c{0, 1, long(n / 2), long(n) - 1};
    for (size_t b = kBlock; b < n; b += kBlock) c.insert(long(b));
    std::vector<long> out;
    for (long x : c)
        if (x >= 0 && x < long(n)) out.push_back(x);
    return out;
}

// What a good run leaves behind, and the checks after a cut one.
struct Expect {
    bytes before, after, released;  // records; released: before, less the claims on
                                    // partitions about to be rewritten
    std::string info_before, info_after, info_released;
    int active_before;
    int tested = 0;  // a set the new record makes active must carry its test mark
};

// Empty when the device survived, else what is wrong: a hostconfig with the
// old, the new or (installing over a set) the released record loads, the set
// active before still verifies, and no set claims content not on its
// partition.
std::string survived(Device& d, const Expect& e)
{
    std::string why;
    RunResult info = d.kor({"info"});
    std::string rep = report(info.out);
    if (info.status != 0) why += "info status " + std::to_string(info.status) + "; ";
    if (rep != report(e.info_before) && rep != report(e.info_after) &&
        (e.released.empty() || rep != report(e.info_released)))
        why += rep == report(golden_default()) ? "default layout loaded; " : "info neither old nor new; ";
    bytes rec = loaded_record(d);
    if (rec != e.before && rec != e.after && (e.released.empty() || rec != e.released))
        why += "stored record neither old nor new; ";
    if (e.tested > 0 && rec == e.after && !(d.read(Device::part(3), 0x3FE00 + e.tested - 1, 1)[0] & 1))
        why += "new set active without its test mark; ";
    RunResult v = d.kor({"verify", std::to_string(e.active_before)});
    if (v.status != 0) why += "set active before does not verify; ";
    for (int p : rec.empty() ? std::vector<int>{} : missing_content(d, rec))
        why += "content of entry " + std::to_string(p) + " missing; ";
    return why;
}

RunResult info_of(Device& d) { return d.kor({"info"}); }

struct Scenario {
    const char* name;
    std::vector<std::string> args;  // "IMG" stands for the second release
    bool set1_installed = false;    // release 3 in SET1 (not active) first
};

// Each scenario starts from release 1 installed into SET2, which is active.
TEST(Interrupt, EveryWriteOfInstallAndSaveCutWholeOrTorn)
{
    KOR_SANDBOX_OR_SKIP();
    // Hundreds of kor runs: under an emulator they outlast the test's time,
    // and the order of writes they check is the same on every target.
    if (std::getenv("KOR_TEST_EMULATOR")) GTEST_SKIP() << "too slow under emulation";
    const Scenario scenarios[] = {
        {"install -test", {"install", "IMG", "1", "-test"}},
        {"install -noactivate", {"install", "IMG", "1", "-noactivate"}},
        {"partset", {"partset", "1", "SET1", "-refs=15,16,17", "-meta=1.0.9"}},
        {"partinfo", {"partinfo", "19", "KNLS", "0x10000", "-pn=15", "-metacrc=7"}},
        {"activate", {"activate", "0", "-f"}},  // SAFESET lists nothing to verify
        {"install over a release", {"install", "IMG", "1"}, true},
    };
    int cut = 0, ok = 0;
    for (const Scenario& s : scenarios) {
        SCOPED_TRACE(s.name);
        Device d;
        d.with_default_layout(kPartSize);
        ASSERT_EQ(d.kor({"install", put(d, "r1.velk", release(1)), "2"}).status, 0);
        if (s.set1_installed) {
            ASSERT_EQ(d.kor({"install", put(d, "r3.velk", release(3)), "1", "-noactivate"}).status, 0);
        }
        std::vector<std::string> args = s.args;
        for (std::string& a : args)
            if (a == "IMG") a = put(d, "r2.velk", release(2));
        Snapshot snap(d);
        Expect e{loaded_record(d), {}, {}, info_of(d).out, {}, {}, 2, s.args.back() == "-test" ? 1 : 0};
        if (s.set1_installed) {  // the save before the first partition write, whole
            ASSERT_EQ(run_preloaded(d, args, 2, -1).status, kKilled);
            e.released = loaded_record(d);
            e.info_released = info_of(d).out;
            snap.restore(d);
        }
        std::vector<Write> writes = writes_of(d, args);
        e.after = loaded_record(d);
        e.info_after = info_of(d).out;
        ASSERT_NE(e.before, e.after);
        ASSERT_GE(writes.size(), 2u);
        for (size_t k = 1; k <= writes.size(); ++k) {
            std::vector<long> torn = cuts(writes[k - 1].length);
            torn.push_back(-1);
            for (long t : torn) {
                snap.restore(d);
                RunResult r = run_preloaded(d, args, long(k), t);
                std::string why = survived(d, e);
                ++cut;
                ok += why.empty() && r.status == kKilled;
                EXPECT_EQ(r.status, kKilled) << "write " << k << " not reached";
                EXPECT_EQ(why, "") << "cut at write " << k << " (" << writes[k - 1].path << ", "
                                   << writes[k - 1].length << " bytes) after " << t << " bytes";
            }
        }
    }
    std::printf("interrupted %d runs, %d survived\n", cut, ok);
    EXPECT_GE(cut, 200);
}

// A torn primary, then the next save torn as well: the copy not being
// written always holds the newest or the previous record.
TEST(Interrupt, TwoFaultsInARowKeepALoadableCopy)
{
    KOR_SANDBOX_OR_SKIP();
    Device d;
    d.with_default_layout(kPartSize);
    ASSERT_EQ(d.kor({"install", put(d, "r1.velk", release(1)), "2"}).status, 0);
    const std::vector<std::string> first = {"partset", "1", "SET1", "-refs=15", "-meta=1.0.5"};
    const std::vector<std::string> second = {"partset", "1", "SETX", "-refs=16", "-meta=1.0.6"};
    Snapshot snap(d);
    bytes r0 = loaded_record(d);
    std::vector<Write> w1 = writes_of(d, first);
    bytes r1 = loaded_record(d);
    std::vector<Write> w2 = writes_of(d, second);
    bytes r2 = loaded_record(d);
    ASSERT_EQ(w1.size(), 2u);
    ASSERT_EQ(w2.size(), 2u);
    ASSERT_EQ(w1[1].path, Device::part(3));  // the primary last
    int backup_loads = 0;
    for (int second_cut = 1; second_cut <= 2; ++second_cut) {
        for (long t : cuts(w1[1].length)) {
            SCOPED_TRACE("primary torn after " + std::to_string(t) + ", second save cut at write " +
                         std::to_string(second_cut));
            snap.restore(d);
            ASSERT_EQ(run_preloaded(d, first, 2, t).status, kKilled);
            bytes mid = loaded_record(d);
            bool primary_lost = record_of(d.read(Device::part(3), 0, kImageMax)).empty();
            backup_loads += primary_lost;
            EXPECT_TRUE(mid == (primary_lost ? r1 : r0) || mid == r1);
            RunResult r = run_preloaded(d, second, second_cut, long(w2[second_cut - 1].length / 2));
            EXPECT_EQ(r.status, kKilled);
            bytes now = loaded_record(d);
            EXPECT_TRUE(now == mid || now == r2);
            RunResult info = d.kor({"info"});
            EXPECT_EQ(info.status, 0);
            EXPECT_NE(report(info.out), report(golden_default()));
        }
    }
    EXPECT_GT(backup_loads, 0);
}

// Old copy, new copy and every mix of their 512-byte blocks, as a device
// may hold them when power fails before the write is flushed.
bytes mix(const bytes& old_copy, const bytes& new_copy, unsigned mask)
{
    bytes m = old_copy;
    for (size_t b = 0; b * kBlock < m.size(); ++b)
        if (mask >> b & 1)
            std::copy(new_copy.begin() + long(b * kBlock),
                      new_copy.begin() + long(std::min(m.size(), (b + 1) * kBlock)), m.begin() + long(b * kBlock));
    return m;
}

// The save of an install: sets, partition entries, release and content
// headers change, so the copies differ in several blocks.
TEST(Interrupt, EverySubsetOfTheBlocksOfOneCopyLoadsOldOrNew)
{
    KOR_SANDBOX_OR_SKIP();
    Device d;
    d.with_default_layout(kPartSize);
    ASSERT_EQ(d.kor({"install", put(d, "r1.velk", release(1)), "2"}).status, 0);
    bytes old_copy = d.read(Device::part(3), 0, kImageMax);
    std::string info_old = report(d.kor({"info"}).out);
    ASSERT_EQ(d.kor({"install", put(d, "r2.velk", release(2)), "1"}).status, 0);
    bytes new_copy = d.read(Device::part(3), 0, kImageMax);
    std::string info_new = report(d.kor({"info"}).out);
    size_t used = 24 + u32(new_copy, 16);
    size_t blocks = (used + kBlock - 1) / kBlock;
    ASSERT_EQ(blocks, 7u);
    old_copy.resize(blocks * kBlock);
    new_copy.resize(blocks * kBlock);
    const bytes zero(old_copy.size(), 0);
    // The primary written last after a good backup, and the primary
    // repaired first while the backup still holds the old record.
    struct Case {
        const char* name;
        const bytes& primary_before;
        const bytes& backup;
    } cases[] = {{"primary last", old_copy, new_copy}, {"primary repaired first", zero, old_copy}};
    int combos = 0;
    std::set<bytes> seen;
    for (const Case& c : cases) {
        for (unsigned mask = 0; mask < 1u << blocks; ++mask) {
            ++combos;
            bytes primary = mix(c.primary_before, new_copy, mask);
            bytes key = primary;
            key.insert(key.end(), c.backup.begin(), c.backup.end());
            if (!seen.insert(key).second) continue;  // same bytes as an earlier mix
            SCOPED_TRACE(std::string(c.name) + ", blocks " + std::to_string(mask));
            d.write(Device::part(3), 0, primary);
            d.write(Device::part(4), 0, c.backup);
            std::string rep = report(d.kor({"info"}).out);
            EXPECT_TRUE(rep == info_old || rep == info_new) << rep;
        }
    }
    std::printf("%d block combinations (%zu distinct), each loads the old or the new record\n",
                combos, seen.size());
}

}  // namespace
