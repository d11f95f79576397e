// Runs of kor at the same time against one device: each runs alone or is turned away by the lock file.
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>

#include "support/sandbox.h"

using sandbox::Device;
using sandbox::RunOptions;
using sandbox::RunResult;
using Args = std::vector<std::string>;

const std::string kRefused = "Could not acquire kor lock\n";

TEST(Concurrency, TwentyRunsAtOnceEachAloneOrTurnedAway)
{
    KOR_SANDBOX_OR_SKIP();
    Device d;
    d.with_default_layout(64 << 10);
    const Args info{"info"}, partset{"partset", "1", "SET1", "-refs=11,12", "-meta=1.2.3"};
    for (int round = 0; round < 5; ++round) {
        SCOPED_TRACE(round);
        std::vector<int> pids;
        for (int i = 0; i < 20; ++i) pids.push_back(d.spawn_kor(i % 4 == 3 ? info : partset));
        bool inside_save = false;  // the critical-region notes of all runs, one run after the other, pair up
        for (int pid : pids) {
            RunResult r = d.wait(pid);
            if (r.status == 1) {  // turned away
                EXPECT_EQ(r.err, kRefused);
            } else {
                EXPECT_EQ(r.status, 0);
                EXPECT_EQ(r.err, "");
            }
            for (const sandbox::LogLine& line : r.log) {
                if (line.text.rfind("critical part start", 0) == 0) {
                    EXPECT_FALSE(inside_save) << "a save began inside another";
                    inside_save = true;
                } else if (line.text.rfind("critical part end", 0) == 0) {
                    EXPECT_TRUE(inside_save) << "a save ended that had not begun";
                    inside_save = false;
                }
            }
        }
        EXPECT_FALSE(inside_save);
        EXPECT_FALSE(d.exists("/tmp/kor.lock"));
        EXPECT_NE(d.kor({"info"}).out.find("  1  SET1             0          1.02 3     11 12"), std::string::npos);
    }
}

// Run A unlocks and is held before it removes the lock file; B opens the file meanwhile. Whatever B gets, a run
// C started while B is inside its action must be turned away.
TEST(Concurrency, LockTakenAsTheHolderLeavesStillExcludes)
{
    KOR_SANDBOX_OR_SKIP();
    Device d;
    d.with_default_layout(64 << 10);
    const auto running = [](int pid) {  // neither gone nor a zombie
        std::string p, name, state;
        return std::ifstream("/proc/" + std::to_string(pid) + "/stat") >> p >> name >> state && state != "Z";
    };
    auto wait_for = [&d, &running](const std::string& path, int pid) {  // while `pid` lives
        for (int i = 0; i < 1000 && !d.exists(path) && running(pid); ++i) usleep(10000);
        return d.exists(path);
    };
    const std::string held = d.workdir() + "/a.held", inside = d.workdir() + "/b.inside";
    const char* asan_options = getenv("ASAN_OPTIONS");  // the preload comes before ASan's runtime
    const std::string asan = std::string(asan_options ? asan_options : "") + ":verify_asan_link_order=0";
    int a = d.spawn_kor({"info"}, RunOptions()
                                      .set("ASAN_OPTIONS", asan)
                                      .set("LD_PRELOAD", d.stage(KOR_PRELOAD_kill_after_writes))
                                      .set("KOR_UNLINK_DELAY_MS", "1000")
                                      .set("KOR_UNLINK_MARK", held));
    ASSERT_TRUE(wait_for(held, a));
    int b = d.spawn_kor({"activate", "0", "-f", "-plugin=" + d.stage(KOR_PLUGIN_slow_plugin)},
                        RunOptions().set("KOR_TEST_SLOW_MARK", inside).set("KOR_TEST_SLOW_MS", "10000"));
    EXPECT_EQ(d.wait(a).status, 0);
    bool b_inside = wait_for(inside, b);
    const RunResult c = b_inside ? d.kor({"info"}) : RunResult{};
    // B holds the lock for 10 s: long enough for C to start and end even under emulation on a busy machine.
    EXPECT_TRUE(!b_inside || running(b)) << "C ended after B: nothing is shown about C's lock";
    const RunResult rb = d.wait(b);
    EXPECT_EQ(rb.status, b_inside ? 0 : 1) << rb.err;
    EXPECT_EQ(b_inside ? c.err : rb.err, kRefused) << "a second run held the lock while B ran";
}
