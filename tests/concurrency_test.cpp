// Runs of kor at the same time against one device: each runs alone or is
// turned away by the lock file, and the hostconfig is intact afterwards.
#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <thread>

#include "support/sandbox.h"

using sandbox::Device;
using sandbox::RunResult;

namespace {

const std::string kRefused = "Could not acquire kor lock\n";

TEST(Concurrency, TwentyRunsAtOnceEachAloneOrTurnedAway)
{
    KOR_SANDBOX_OR_SKIP();
    Device d;
    d.with_default_layout(64 << 10);
    const std::vector<std::string> info = {"info"}, partset = {"partset", "1", "SET1", "-refs=11,12", "-meta=1.2.3"};
    int ran = 0;
    for (int round = 0; round < 5; ++round) {
        SCOPED_TRACE(round);
        std::vector<int> pids;
        for (int i = 0; i < 20; ++i) pids.push_back(d.spawn_kor(i % 4 == 3 ? info : partset));
        std::string saves;  // "critical part start" S, "end" E, in the order sent: no two saves overlap
        for (int pid : pids) {
            RunResult r = d.wait(pid);
            ran += r.status == 0;
            EXPECT_TRUE(r.status == 0 || r.status == 1) << r.status;
            EXPECT_EQ(r.status == 1 ? kRefused : "", r.err);
            const std::string log = r.log_text();
            for (size_t at = 0; (at = log.find("critical part ", at)) != std::string::npos; at += 14)
                saves += log.compare(at + 14, 5, "start") == 0 ? 'S' : 'E';
        }
        std::string alone;
        for (size_t i = 0; i < saves.size(); i += 2) alone += "SE";
        EXPECT_EQ(saves, alone);
        EXPECT_FALSE(d.exists("/tmp/kor.lock"));
        EXPECT_EQ(d.kor({"getpartset", "1", "-pif=pidx"}).out, "11\n12\n");
        EXPECT_NE(d.kor({"info"}).out.find("  1  SET1             0          1.02 3     11 12"), std::string::npos);
    }
    EXPECT_GT(ran, 0);
}

// Waits for `path` to appear while process `pid` lives.
bool wait_for(const std::string& path, int pid)
{
    for (int i = 0; i < 1000; ++i, std::this_thread::sleep_for(std::chrono::milliseconds(10))) {
        if (std::ifstream(path).good()) return true;
        std::string p, name, state;
        if (!(std::ifstream("/proc/" + std::to_string(pid) + "/stat") >> p >> name >> state) || state == "Z") return false;
    }
    return false;
}

// Run A unlocks and is held before it removes the lock file; B opens the
// file meanwhile. Whatever B gets, a run C started while B is inside its
// action must be turned away.
TEST(Concurrency, LockTakenAsTheHolderLeavesStillExcludes)
{
    KOR_SANDBOX_OR_SKIP();
    Device d;
    d.with_default_layout(64 << 10);
    const std::string held = d.workdir() + "/a.held", inside = d.workdir() + "/b.inside";
    const char* asan = std::getenv("ASAN_OPTIONS");  // the preload comes before ASan's runtime
    int a = d.spawn_kor({"info"}, sandbox::RunOptions().set("LD_PRELOAD", d.stage(KOR_PRELOAD_kill_after_writes))
        .set("ASAN_OPTIONS", std::string(asan ? asan : "") + ":verify_asan_link_order=0")
        .set("KOR_UNLINK_DELAY_MS", "1000").set("KOR_UNLINK_MARK", held));
    ASSERT_TRUE(wait_for(held, a));
    int b = d.spawn_kor({"activate", "0", "-f", "-plugin=" + d.stage(KOR_PLUGIN_slow_plugin)},
                        sandbox::RunOptions().set("KOR_TEST_SLOW_MARK", inside).set("KOR_TEST_SLOW_MS", "3000"));
    EXPECT_EQ(d.wait(a).status, 0);
    bool b_inside = wait_for(inside, b);
    RunResult c = b_inside ? d.kor({"info"}) : RunResult{}, rb = d.wait(b);
    EXPECT_EQ(rb.status, b_inside ? 0 : 1) << rb.err;
    EXPECT_EQ(b_inside ? c.err : rb.err, kRefused) << "a second run held the lock while B ran";
}

}  // namespace
