// The front end: options, statuses, lock, signals, logging, assertions.
#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <string>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "frontend/console.h"
#include "frontend/options.h"
#include "support/sandbox.h"

using sandbox::Device;
using sandbox::RunOptions;
using sandbox::RunResult;

namespace {

// The words of a parsed record point into the arguments: they stay alive
// until the next parse.
kor_options parse(std::vector<std::string> args, int* status = nullptr)
{
    static std::vector<std::string> kept;
    kept = std::move(args);
    kept.insert(kept.begin(), "kor");
    std::vector<char*> argv;
    for (auto& a : kept) argv.push_back(a.data());
    kor_options o;
    int r = kor_options_parse(&o, static_cast<int>(argv.size()), argv.data());
    if (status) *status = r;
    return o;
}

TEST(Options, Refusals)
{
    KOR_SANDBOX_OR_SKIP();
    Device d;
    const std::string p100 = "/" + std::string(99, 'x');
    const struct {
        std::vector<std::string> args;
        std::string err;
        RunOptions o;
    } rows[] = {
        {{"-v"}, "ACTION is missing.\n", {}},
        {{"-meta=zz", "info"}, "-meta syntax failure.\n", {}},
        {{"-velksize", "info"}, "-velksize syntax failure.\n", {}},
        {{"-velksize=", "info"}, "-velksize syntax failure.\n", {}},
        {{"-cfgfoo", "info"}, "-cfg syntax failure.\n", {}},
        {{"-cfgbak", "info"}, "-cfgbak syntax failure.\n", {}},
        {{"-minver=1.2", "info"}, "-minver syntax failure.\n", {}},
        {{"-iptos=x", "info"}, "-iptos syntax failure.\n", {}},
        {{"-locale", "info"}, "-lock syntax failure.\n", {}},
        {{"-autox", "info"}, "-autosetfile syntax failure.\n", {}},
        {{"-actx", "info"}, "-activesetfile syntax failure.\n", {}},
        {{"-cfg=" + p100, "info"}, "-cfg value too long (at most 99 characters).\n", {}},
        {{"-lockfile=" + p100, "info"}, "-lockfile value too long (at most 99 characters).\n", {}},
        {std::vector<std::string>(20, "w"), "Too many words on the command line (at most 19).\n", {}},
        {{"help"}, "KOR_PRODUCT too long: " + std::string(16, 'P') + "\n",
         RunOptions().set("KOR_PRODUCT", std::string(16, 'P'))},
        {{"help"}, "KOR_PLATFORM too long: 12345678\n", RunOptions().set("KOR_PLATFORM", "12345678")},
    };
    for (const auto& row : rows) {
        RunResult r = d.kor(row.args, row.o);
        EXPECT_EQ(r.status, 1) << row.err;
        EXPECT_EQ(r.err, row.err);
        EXPECT_FALSE(d.exists("/tmp/kor.lock")) << "refused before the lock: " << row.err;
    }
    EXPECT_EQ(d.kor({"help"}, RunOptions().set("KOR_PRODUCT", std::string(15, 'P'))).status, 0);
}

TEST(Options, Values)
{
    KOR_SANDBOX_OR_SKIP();
    Device d;  // parse messages reach the sandbox's syslog only
    kor_options o = parse({"info"});
    EXPECT_STREQ(o.cfg, "/dev/mmcblk0p3");
    EXPECT_STREQ(o.cfgbak, "/dev/mmcblk0p4");
    EXPECT_EQ(o.velksize, 0x4000000u);
    EXPECT_STREQ(parse({"info", "-cfg=/tmp/x"}).cfgbak, "") << "-cfg= alone means no backup";
    EXPECT_STREQ(parse({"-cfgbak=/tmp/b", "info", "-cfg=/tmp/x"}).cfgbak, "/tmp/b");

    const struct {
        const char* arg;
        int major, minor, build;
    } metas[] = {{"-meta=1.2.3", 1, 2, 3}, {"-meta=0102000A", 1, 2, 10}, {"-meta=1,2,3", 0, 0, 1},
                 {"-meta=1.2", 0, 0, 1},   {"-meta=0x10.0x20.012", 16, 32, 10}};
    for (const auto& m : metas) {
        o = parse({m.arg, "info"});
        EXPECT_EQ(std::vector<int>({o.meta_major, o.meta_minor, o.meta_buildnumber}),
                  std::vector<int>({m.major, m.minor, m.build}))
            << m.arg;
    }

    o = parse({"-product=ABCDEFGHIJKLMNOPQRS", "-platform=armv7hfxyz", "-rewriteX", "-onlymetaY",
               "-noactivate", "-dryrun", "-test", "-f", "-r", "install", "img", "-1", "-all",
               "-noactivatex", "-minver=1.2.3", "-iptos=0x10", "-velksize=4096"});
    EXPECT_STREQ(o.product, "ABCDEFGHIJKLMNO");
    EXPECT_STREQ(o.platform, "armv7hf");
    EXPECT_EQ(o.product_set + o.platform_set + o.minver_set + o.iptos_set, 4);
    EXPECT_EQ(o.rewrite + o.onlymeta + o.noactivate + o.dryrun + o.test + o.f + o.r, 7);
    EXPECT_EQ(o.minver_minor, 2u);
    EXPECT_EQ(o.iptos, 16);
    EXPECT_EQ(o.velksize, 4096u);
    ASSERT_EQ(o.nwords, 5) << "action arguments that look like options stay words";
    EXPECT_STREQ(o.action, "install");
    EXPECT_STREQ(o.words[2], "-1");
    EXPECT_STREQ(o.words[4], "-noactivatex");
    EXPECT_EQ(o.words[5], nullptr);
}

TEST(Frontend, StatusesLockAndSyslog)
{
    KOR_SANDBOX_OR_SKIP();
    Device d;
    const std::string usage = std::string(kor_usage_text) + "\n";
    RunResult r = d.kor({});
    EXPECT_EQ(std::make_tuple(r.status, r.err, r.out),
              std::make_tuple(1, std::string("Syntax error, argc < 2\n"), usage));
    r = d.kor({"help"});
    EXPECT_EQ(std::make_tuple(r.status, r.out), std::make_tuple(0, usage));
    EXPECT_FALSE(d.exists("/tmp/kor.lock")) << "the lock file is removed after the run";

    r = d.kor({"frobnicate"});
    EXPECT_EQ(std::make_tuple(r.status, r.err), std::make_tuple(1, std::string("Unknown action\n")));
    ASSERT_EQ(r.log.size(), 1u) << "stdout is a pipe: the message reaches syslog";
    EXPECT_EQ(r.log[0].priority, LOG_ERR);
    EXPECT_EQ(r.log[0].text, "Unknown action\n");
    EXPECT_TRUE(d.kor({"frobnicate"}, RunOptions().tty()).log.empty()) << "not from a terminal";

    // log_always reaches syslog from a terminal too; messages are cut at 319.
    const std::string product(400, 'p');
    r = d.kor({"help"}, RunOptions().tty().set("KOR_PRODUCT", product));
    const std::string cut = ("KOR_PRODUCT too long: " + product).substr(0, 319);
    EXPECT_EQ(r.err, cut);
    ASSERT_EQ(r.log.size(), 1u);
    EXPECT_EQ(std::make_tuple(r.log[0].priority, r.log[0].text), std::make_tuple(LOG_CRIT, cut));

    r = d.kor({"-v", "help", "x"});
    EXPECT_EQ(r.out.substr(0, r.out.find(usage)),
              "action: help hostcfg: /dev/mmcblk0p3 (backup: /dev/mmcblk0p4) -r: 0 -dryrun: 0 -v: 1 -f: 0 "
              "-meta: 0.0.0 -velksize=67108864 -rewrite=0\n-minver: 0.0.0 -lockfile: /tmp/kor.lock "
              "-autosetfile: /tmp/kor.autoset -activesetfile: /tmp/kor.activeset\nother: x \n");

    int fd = open("/tmp/kor.lock", O_RDONLY | O_CREAT, 0600);
    ASSERT_EQ(flock(fd, LOCK_EX), 0);
    r = d.kor({"help"});
    EXPECT_EQ(std::make_tuple(r.status, r.err, r.out),
              std::make_tuple(1, std::string("Could not acquire kor lock\n"), std::string()));
    EXPECT_EQ(d.kor({"help", "-lockfile=/tmp/other.lock"}).status, 0) << "another lock file";
    close(fd);
}

#ifdef KOR_PLUGIN_slow_plugin
TEST(Frontend, SignalsAreLoggedAndIgnored)
{
    KOR_SANDBOX_OR_SKIP();
    Device d;
    const std::string plugin = "-plugin=" + d.stage(KOR_PLUGIN_slow_plugin);
    const std::string mark = d.workdir() + "/started";
    const struct {
        int signo;
        bool to_worker;
        int status;
        const char* logged;
    } rows[] = {
        {SIGINT, false, 0, "parent: Got signal #2\n"}, {SIGTERM, false, 0, "parent: Got signal #15\n"},
        {SIGTERM, true, 0, "child: Got signal #15\n"}, {SIGHUP, true, 0, "child: Got signal #1\n"},
        {SIGKILL, true, 72, "child terminated by signal #9\n"},
    };
    for (const auto& row : rows) {
        unlink(mark.c_str());
        int pid = d.spawn_kor({"activate", "1", "-f", "-dryrun", plugin},
                              RunOptions().set("KOR_TEST_SLOW_MARK", mark));
        for (int i = 0; i < 500 && !d.exists(mark); i++) usleep(10000);
        int target = row.to_worker ? Device::worker_pid(pid) : pid;
        ASSERT_GT(target, 0);
        kill(target, row.signo);
        RunResult r = d.wait(pid);
        EXPECT_EQ(r.status, row.status) << row.signo;
        EXPECT_NE(r.log_text().find(row.logged), std::string::npos) << r.log_text();
    }
}
#endif

TEST(Console, FormattingAndCriticalRegions)
{
    KOR_SANDBOX_OR_SKIP();
    Device d;
    char buf[8];
    EXPECT_EQ(zb_snprintf(buf, sizeof buf, "%s", "abcdefghijklmnopqrst"), 7);
    EXPECT_STREQ(buf, "abcdefg");
    char field[4];
    EXPECT_EQ(kor_field_copy(field, sizeof field, "abcdef"), 4u);
    EXPECT_EQ(std::string(field, 4), "abcd");
    kor_field_copy(field, sizeof field, "a");
    EXPECT_EQ(std::string(field, 4), std::string("a\0\0\0", 4));

    openlog("KOR", LOG_NDELAY, LOG_USER);
    critical_enter("outer %d\n", 1);
    critical_enter("inner\n");
    critical_leave("inner end\n");
    critical_leave("outer end\n");
    closelog();
    auto log = d.take_log();
    ASSERT_EQ(log.size(), 2u) << "only the outermost region is noted";
    EXPECT_EQ(std::make_tuple(log[0].priority, log[0].text, log[1].text),
              std::make_tuple(LOG_NOTICE, std::string("outer 1\n"), std::string("outer end\n")));
}

TEST(Console, AssertionPanicsOnStdout)
{
    int out[2];
    ASSERT_EQ(pipe(out), 0);
    pid_t pid = fork();
    if (pid == 0) {
        dup2(out[1], 1);
        KOR_ASSERT("korl", 1 == 2);
        _exit(0);
    }
    close(out[1]);
    std::string text;
    char buf[200];
    for (ssize_t k; (k = read(out[0], buf, sizeof buf)) > 0;) text.append(buf, static_cast<size_t>(k));
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT);
    EXPECT_EQ(text.rfind("Panic: *** ASSERT in korl at ", 0), 0u) << text;
}

}  // namespace
