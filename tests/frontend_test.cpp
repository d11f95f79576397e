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
using sandbox::RunResult;

namespace {

struct parsed {
    int status;
    kor_options o;
};

parsed parse(std::vector<std::string> args)
{
    args.insert(args.begin(), "kor");
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    parsed p{};
    p.status = kor_options_parse(&p.o, static_cast<int>(argv.size()), argv.data());
    return p;
}

// --- option rows -----------------------------------------------------------

struct OptionRow {
    std::vector<std::string> args;
    int status;
    const char* message;  // expected on stderr for a failure
};

TEST(Options, FailureRows)
{
    KOR_SANDBOX_OR_SKIP();
    Device d;
    const std::string long_path(100, 'x');
    const OptionRow rows[] = {
        {{"-v"}, 1, "ACTION is missing.\n"},
        {{"-meta=zz", "info"}, 1, "-meta syntax failure.\n"},
        {{"-velksize", "info"}, 1, "-velksize syntax failure.\n"},
        {{"-velksize=", "info"}, 1, "-velksize syntax failure.\n"},
        {{"-cfgfoo", "info"}, 1, "-cfg syntax failure.\n"},
        {{"-cfgbak", "info"}, 1, "-cfgbak syntax failure.\n"},
        {{"-minver=1.2", "info"}, 1, "-minver syntax failure.\n"},
        {{"-iptos=x", "info"}, 1, "-iptos syntax failure.\n"},
        {{"-locale", "info"}, 1, "-lock syntax failure.\n"},
        {{"-autox", "info"}, 1, "-autosetfile syntax failure.\n"},
        {{"-actx", "info"}, 1, "-activesetfile syntax failure.\n"},
        {{"-cfg=/" + long_path, "info"}, 1, "-cfg value too long (at most 99 characters).\n"},
        {{"-lockfile=/" + long_path, "info"}, 1,
         "-lockfile value too long (at most 99 characters).\n"},
    };
    for (const auto& row : rows) {
        RunResult r = d.kor(row.args);
        EXPECT_EQ(r.status, row.status) << row.args[0];
        EXPECT_EQ(r.err, row.message) << row.args[0];
        EXPECT_FALSE(d.exists("/tmp/kor.lock")) << "no lock before the options parse";
    }
}

TEST(Options, ValuesAndDefaults)
{
    KOR_SANDBOX_OR_SKIP();
    Device d;  // messages of the parse go to the sandbox's syslog
    parsed p = parse({"info"});
    ASSERT_EQ(p.status, 0);
    EXPECT_STREQ(p.o.cfg, "/dev/mmcblk0p3");
    EXPECT_STREQ(p.o.cfgbak, "/dev/mmcblk0p4");
    EXPECT_STREQ(p.o.lockfile, "/tmp/kor.lock");
    EXPECT_STREQ(p.o.autosetfile, "/tmp/kor.autoset");
    EXPECT_STREQ(p.o.activesetfile, "/tmp/kor.activeset");
    EXPECT_EQ(p.o.velksize, 0x4000000u);

    p = parse({"info", "-cfg=/tmp/x"});
    EXPECT_STREQ(p.o.cfg, "/tmp/x");
    EXPECT_STREQ(p.o.cfgbak, "") << "-cfg= alone means no backup";
    p = parse({"-cfgbak=/tmp/b", "info", "-cfg=/tmp/x"});
    EXPECT_STREQ(p.o.cfgbak, "/tmp/b");

    struct {
        const char* arg;
        int major, minor, build;
    } metas[] = {
        {"-meta=1.2.3", 1, 2, 3},
        {"-meta=0102000A", 1, 2, 10},
        {"-meta=1,2,3", 0, 0, 1},
        {"-meta=1.2", 0, 0, 1},
        {"-meta=0x10.0x20.012", 16, 32, 10},
    };
    for (const auto& m : metas) {
        p = parse({m.arg, "info"});
        ASSERT_EQ(p.status, 0) << m.arg;
        EXPECT_EQ(p.o.meta_major, m.major) << m.arg;
        EXPECT_EQ(p.o.meta_minor, m.minor) << m.arg;
        EXPECT_EQ(p.o.meta_buildnumber, m.build) << m.arg;
    }

    p = parse({"-product=ABCDEFGHIJKLMNOPQRS", "-platform=armv7hfxyz", "info"});
    EXPECT_STREQ(p.o.product, "ABCDEFGHIJKLMNO");
    EXPECT_STREQ(p.o.platform, "armv7hf");
    EXPECT_EQ(p.o.product_set, 1);
    EXPECT_EQ(p.o.platform_set, 1);

    p = parse({"-rewriteX", "-onlymetaY", "-noactivate", "-dryrun", "-test", "-f", "-r", "info",
               "-minver=1.2.3", "-iptos=0x10", "-velksize=4096"});
    EXPECT_EQ(p.o.rewrite + p.o.onlymeta + p.o.noactivate + p.o.dryrun + p.o.test + p.o.f + p.o.r,
              7);
    EXPECT_EQ(p.o.minver_set, 1);
    EXPECT_EQ(p.o.minver_minor, 2u);
    EXPECT_EQ(p.o.iptos, 16);
    EXPECT_EQ(p.o.velksize, 4096u);

    // Action arguments that look like options stay words, in order.
    p = parse({"install", "image.velk", "-1", "-all", "-refs=1,2", "-noactivatex"});
    ASSERT_EQ(p.o.nwords, 6);
    EXPECT_STREQ(p.o.words[2], "-1");
    EXPECT_STREQ(p.o.words[5], "-noactivatex");
    EXPECT_EQ(p.o.words[6], nullptr);
    EXPECT_STREQ(p.o.action, "install");
}

TEST(Options, WordLimit)
{
    KOR_SANDBOX_OR_SKIP();
    Device d;
    std::vector<std::string> words(19, "w");
    EXPECT_EQ(parse(words).status, 0);
    words.push_back("w");
    RunResult r = d.kor(words);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "Too many words on the command line (at most 19).\n");
}

TEST(Options, Environment)
{
    KOR_SANDBOX_OR_SKIP();
    Device d;
    const std::string long_product(19, 'P');
    RunResult r = d.kor({"help"}, sandbox::RunOptions().set("KOR_PRODUCT", long_product));
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "KOR_PRODUCT too long: " + long_product + "\n");
    ASSERT_EQ(r.log.size(), 1u);
    EXPECT_EQ(r.log[0].priority, LOG_CRIT);

    r = d.kor({"help"}, sandbox::RunOptions().set("KOR_PLATFORM", "12345678"));
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "KOR_PLATFORM too long: 12345678\n");

    r = d.kor({"help"}, sandbox::RunOptions().set("KOR_PRODUCT", std::string(15, 'P')));
    EXPECT_EQ(r.status, 0);
}

// --- statuses, lock, dispatch --------------------------------------------

TEST(Frontend, Statuses)
{
    KOR_SANDBOX_OR_SKIP();
    Device d;
    RunResult r = d.kor({});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "Syntax error, argc < 2\n");
    EXPECT_EQ(r.out, std::string(kor_usage_text) + "\n");

    r = d.kor({"help"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, std::string(kor_usage_text) + "\n");
    EXPECT_FALSE(d.exists("/tmp/kor.lock")) << "the lock file is removed after the run";

    r = d.kor({"frobnicate"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "Unknown action\n");
    ASSERT_EQ(r.log.size(), 1u) << "stdout is a pipe: the message reaches syslog";
    EXPECT_EQ(r.log[0].priority, LOG_ERR);
    EXPECT_EQ(r.log[0].text, "Unknown action\n");

    r = d.kor({"-v", "help", "x"});
    EXPECT_EQ(r.out.substr(0, r.out.find('\n') + 1),
              "action: help hostcfg: /dev/mmcblk0p3 (backup: /dev/mmcblk0p4) -r: 0 -dryrun: 0 "
              "-v: 1 -f: 0 -meta: 0.0.0 -velksize=67108864 -rewrite=0\n");
    EXPECT_NE(r.out.find("-minver: 0.0.0 -lockfile: /tmp/kor.lock -autosetfile: /tmp/kor.autoset "
                         "-activesetfile: /tmp/kor.activeset\nother: x \n"),
              std::string::npos);
}

TEST(Frontend, LockHeldElsewhere)
{
    KOR_SANDBOX_OR_SKIP();
    Device d;
    int fd = open("/tmp/kor.lock", O_RDONLY | O_CREAT, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(flock(fd, LOCK_EX), 0);
    RunResult r = d.kor({"help"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "Could not acquire kor lock\n");
    EXPECT_EQ(r.out, "");

    r = d.kor({"help", "-lockfile=/tmp/other.lock"});
    EXPECT_EQ(r.status, 0) << "another lock file does not exclude";
    close(fd);
    r = d.kor({"help"});
    EXPECT_EQ(r.status, 0);
}

TEST(Frontend, SyslogOnlyWhenStdoutIsNotATerminal)
{
    KOR_SANDBOX_OR_SKIP();
    Device d;
    RunResult r = d.kor({"frobnicate"}, sandbox::RunOptions().tty());
    EXPECT_EQ(r.err, "Unknown action\n");
    EXPECT_TRUE(r.log.empty()) << r.log_text();

    // log_always reaches syslog from a terminal too; messages are cut at 319.
    const std::string product(400, 'p');
    r = d.kor({"help"}, sandbox::RunOptions().tty().set("KOR_PRODUCT", product));
    const std::string full = "KOR_PRODUCT too long: " + product + "\n";
    EXPECT_EQ(r.err, full.substr(0, 319));
    ASSERT_EQ(r.log.size(), 1u);
    EXPECT_EQ(r.log[0].text, full.substr(0, 319));
}

#ifdef KOR_PLUGIN_slow_plugin
TEST(Frontend, SignalsAreLoggedAndIgnored)
{
    KOR_SANDBOX_OR_SKIP();
    Device d;
    const std::string plugin = "-plugin=" + d.stage(KOR_PLUGIN_slow_plugin);
    const std::string mark = d.workdir() + "/started";
    sandbox::RunOptions o;
    o.env = {{"KOR_TEST_SLOW_MARK", mark}, {"KOR_TEST_SLOW_MS", "1500"}};

    struct {
        int signo;
        bool to_worker;
        int status;
        const char* logged;
    } rows[] = {
        {SIGINT, false, 0, "parent: Got signal #2\n"},
        {SIGTERM, false, 0, "parent: Got signal #15\n"},
        {SIGTERM, true, 0, "child: Got signal #15\n"},
        {SIGHUP, true, 0, "child: Got signal #1\n"},
        {SIGKILL, true, 72, "child terminated by signal #9\n"},
    };
    for (const auto& row : rows) {
        unlink(mark.c_str());
        int pid = d.spawn_kor({"activate", "1", "-f", "-dryrun", plugin}, o);
        for (int i = 0; i < 500 && !d.exists(mark); i++) usleep(10000);
        ASSERT_TRUE(d.exists(mark)) << "the slow hook did not start";
        int target = row.to_worker ? Device::worker_pid(pid) : pid;
        ASSERT_GT(target, 0);
        kill(target, row.signo);
        RunResult r = d.wait(pid);
        EXPECT_EQ(r.status, row.status) << row.signo;
        EXPECT_NE(r.log_text().find(row.logged), std::string::npos) << r.log_text();
    }
}
#endif

TEST(Console, SnprintfAndCriticalRegions)
{
    char buf[8];
    EXPECT_EQ(zb_snprintf(buf, sizeof buf, "%s", "abcdefghijklmnopqrst"), 7);
    EXPECT_STREQ(buf, "abcdefg");
    EXPECT_EQ(zb_snprintf(buf, sizeof buf, "%d", 42), 2);

    char field[4];
    EXPECT_EQ(kor_field_copy(field, sizeof field, "abcdef"), 4u);
    EXPECT_EQ(std::memcmp(field, "abcd", 4), 0);
    EXPECT_EQ(kor_field_copy(field, sizeof field, "a"), 1u);
    EXPECT_EQ(std::memcmp(field, "a\0\0\0", 4), 0);
}

TEST(Console, NestedCriticalRegionsLogOnce)
{
    KOR_SANDBOX_OR_SKIP();
    Device d;
    openlog("KOR", LOG_NDELAY, LOG_USER);
    critical_enter("outer %d\n", 1);
    critical_enter("inner\n");
    critical_leave("inner end\n");
    critical_leave("outer end\n");
    closelog();
    auto log = d.take_log();
    ASSERT_EQ(log.size(), 2u);
    EXPECT_EQ(log[0].text, "outer 1\n");
    EXPECT_EQ(log[0].priority, LOG_NOTICE);
    EXPECT_EQ(log[1].text, "outer end\n");
    EXPECT_EQ(critical_depth(), 0);
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
    char buf[200] = {};
    ssize_t n = 0;
    for (ssize_t k; (k = read(out[0], buf + n, sizeof buf - 1 - n)) > 0;) n += k;
    close(out[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGABRT);
    ASSERT_GT(n, 0);
    EXPECT_EQ(std::string(buf).rfind("Panic: *** ASSERT in korl at ", 0), 0u) << buf;
}

}  // namespace
