// Runs of kor at the same time against one device: each runs alone or is
// turned away by the lock file, and the hostconfig is intact afterwards.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "support/sandbox.h"

using sandbox::Device;
using sandbox::RunOptions;
using sandbox::RunResult;

namespace {

const std::string kRefused = "Could not acquire kor lock\n";

// True while every "critical part start" is closed by its end before the
// next start: no two saves overlap.
bool saves_alone(const std::string& log)
{
    const std::string start = "critical part start";
    bool open = false;
    for (size_t at = 0; (at = log.find("critical part ", at)) != std::string::npos; ++at) {
        bool is_start = log.compare(at, start.size(), start) == 0;
        if (is_start == open) return false;
        open = is_start;
    }
    return !open;
}

TEST(Concurrency, TwentyRunsAtOnceEachAloneOrTurnedAway)
{
    KOR_SANDBOX_OR_SKIP();
    Device d;
    d.with_default_layout(64 << 10);
    int ran = 0, turned_away = 0;
    for (int round = 0; round < 5; ++round) {
        SCOPED_TRACE(round);
        std::vector<int> pids;
        for (int i = 0; i < 20; ++i) {
            if (i % 4 == 3) {
                pids.push_back(d.spawn_kor({"info"}));
            } else {
                pids.push_back(d.spawn_kor({"partset", "1", "SET1", "-refs=11,12", "-meta=1.2.3"}));
            }
        }
        std::string log;  // every run's syslog, in the order it was sent
        for (int pid : pids) {
            RunResult r = d.wait(pid);
            log += r.log_text();
            if (r.status == 1) {
                EXPECT_EQ(r.err, kRefused);
                ++turned_away;
            } else {
                EXPECT_EQ(r.status, 0) << r.err;
                EXPECT_EQ(r.err, "");
                ++ran;
            }
        }
        EXPECT_TRUE(saves_alone(log)) << log;
        EXPECT_FALSE(d.exists("/tmp/kor.lock"));
        RunResult set = d.kor({"getpartset", "1", "-pif=pidx"});
        EXPECT_EQ(set.status, 0);
        EXPECT_EQ(set.out, "11\n12\n");
        EXPECT_NE(d.kor({"info"}).out.find("  1  SET1             0          1.02 3     11 12"),
                  std::string::npos);
    }
    std::printf("100 runs at once in 5 rounds: %d ran, %d turned away by the lock\n", ran,
                turned_away);
    EXPECT_EQ(ran + turned_away, 100);
    EXPECT_GT(ran, 0);
}

bool wait_for(const std::string& path, int pid_gone)
{
    for (int i = 0; i < 1000; ++i) {
        if (std::ifstream(path).good()) return true;
        std::ifstream stat("/proc/" + std::to_string(pid_gone) + "/stat");
        std::string pid, name, state;
        if (!(stat >> pid >> name >> state) || state == "Z") return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
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
    RunOptions a;
    const char* asan = std::getenv("ASAN_OPTIONS");  // the preload comes before ASan's runtime
    a.set("LD_PRELOAD", d.stage(KOR_PRELOAD_kill_after_writes))
        .set("ASAN_OPTIONS", std::string(asan ? asan : "") + ":verify_asan_link_order=0")
        .set("KOR_UNLINK_DELAY_MS", "1000")
        .set("KOR_UNLINK_MARK", held);
    int pa = d.spawn_kor({"info"}, a);
    ASSERT_TRUE(wait_for(held, pa));
    RunOptions b;
    b.set("KOR_TEST_SLOW_MARK", inside).set("KOR_TEST_SLOW_MS", "3000");
    int pb = d.spawn_kor({"activate", "0", "-f", "-plugin=" + d.stage(KOR_PLUGIN_slow_plugin)}, b);
    EXPECT_EQ(d.wait(pa).status, 0);
    bool b_inside = wait_for(inside, pb);
    RunResult c = b_inside ? d.kor({"info"}) : RunResult{};
    RunResult rb = d.wait(pb);
    if (b_inside) {
        EXPECT_EQ(rb.status, 0) << rb.err;
        EXPECT_EQ(c.status, 1) << "a second run held the lock while B ran";
        EXPECT_EQ(c.err, kRefused);
    } else {
        EXPECT_EQ(rb.status, 1);
        EXPECT_EQ(rb.err, kRefused);
    }
}

}  // namespace
