// The front end: options, statuses, lock, signals, logging, assertions.
#include <gtest/gtest.h>
#include <syslog.h>
#include <unistd.h>

#include <csignal>
#include <array>
#include <set>

#include "base/console.h"
#include "cli/cli.h"
#include "support/cli_case.h"
#include "support/sandbox.h"

namespace {

using cli::Case;

// What kor_options_parse leaves in the record for `args`: the defaults, but for what the row names.
class Parsed {
public:
    explicit Parsed(std::string args) : args_(std::move(args)) {}
    Parsed& words(std::string w) { words_ = std::move(w); return *this; }  // as one text, spaces between
    Parsed& cfg(std::string p) { cfg_ = std::move(p); return *this; }
    Parsed& cfgbak(std::string p) { cfgbak_ = std::move(p); return *this; }
    Parsed& velksize(uint32_t v) { velksize_ = v; return *this; }
    Parsed& meta(int major, int minor, int build) { meta_ = {major, minor, build}; return *this; }
    Parsed& product(std::string p) { product_ = std::move(p); return *this; }  // given: product_set
    Parsed& platform(std::string p) { platform_ = std::move(p); return *this; }
    Parsed& flags(std::set<std::string> f) { flags_ = std::move(f); return *this; }  // "-dryrun", ...; others 0
    Parsed& minver(uint32_t major, uint32_t minor, uint32_t build) { minver_ = {major, minor, build}; return *this; }
    Parsed& iptos(int v) { iptos_ = v; return *this; }

    const std::string& args() const { return args_; }

    // One line per field that differs from what the row names.
    std::string differences(const kor_options& o) const
    {
        std::string d;
        const auto field = [&d](const char* name, const std::string& got, const std::string& want) {
            if (got != want) d += std::string(name) + ": \"" + got + "\", not \"" + want + "\"\n";
        };
        const auto triple = [](auto a, auto b, auto c) {
            return std::to_string(a) + "." + std::to_string(b) + "." + std::to_string(c);
        };
        field("cfg", o.cfg, cfg_);
        field("cfgbak", o.cfgbak, cfgbak_);
        field("velksize", std::to_string(o.velksize), std::to_string(velksize_));
        field("meta", triple(o.meta_major, o.meta_minor, o.meta_buildnumber), triple(meta_[0], meta_[1], meta_[2]));
        field("product", o.product, product_);
        field("product_set", std::to_string(o.product_set), product_.empty() ? "0" : "1");
        field("platform", o.platform, platform_);
        field("platform_set", std::to_string(o.platform_set), platform_.empty() ? "0" : "1");
        const std::pair<const char*, int32_t> flags[] = {{"-rewrite", o.rewrite}, {"-onlymeta", o.onlymeta},
            {"-noactivate", o.noactivate}, {"-dryrun", o.dryrun}, {"-test", o.test}, {"-f", o.f}, {"-r", o.r}};
        for (const auto& [name, value] : flags) field(name, std::to_string(value), flags_.count(name) ? "1" : "0");
        field("minver", triple(o.minver_major, o.minver_minor, o.minver_buildnumber),
              triple(minver_[0], minver_[1], minver_[2]));
        field("minver_set", std::to_string(o.minver_set), minver_ == std::array<uint32_t, 3>{} ? "0" : "1");
        field("iptos", std::to_string(o.iptos), std::to_string(iptos_ < 0 ? 0 : iptos_));
        field("iptos_set", std::to_string(o.iptos_set), iptos_ < 0 ? "0" : "1");
        std::string words;
        for (int i = 0; i < o.nwords; i++) words += (i ? " " : "") + std::string(o.words[i]);
        field("words", words, words_);
        field("entry behind the last word", o.words[o.nwords] ? "set" : "null", "null");
        return d;
    }

private:
    std::string args_, words_, cfg_ = "/dev/mmcblk0p3", cfgbak_ = "/dev/mmcblk0p4", product_, platform_;
    uint32_t velksize_ = 67108864;
    std::array<int, 3> meta_{};
    std::set<std::string> flags_;
    std::array<uint32_t, 3> minver_{};
    int iptos_ = -1;  // not given
};

const Parsed kParsed[] = {
    Parsed("info").words("info"),
    Parsed("info -cfg=/tmp/x").words("info").cfg("/tmp/x").cfgbak(""),  // -cfg= alone: no backup
    Parsed("-cfgbak=/tmp/b info -cfg=/tmp/x").words("info").cfg("/tmp/x").cfgbak("/tmp/b"),
    // Action arguments that look like options stay words.
    Parsed("-product=ABCDEFGHIJKLMNOPQRS -platform=armv7hfxyz -rewriteX -onlymetaY -noactivate -dryrun -test -f -r "
           "install img -1 -all -noactivatex -minver=1.2.3 -iptos=0x10 -velksize=4096")
        .words("install img -1 -all -noactivatex").velksize(4096).product("ABCDEFGHIJKLMNO").platform("armv7hf")
        .flags({"-rewrite", "-onlymeta", "-noactivate", "-dryrun", "-test", "-f", "-r"}).minver(1, 2, 3).iptos(16),
    Parsed("-meta=1.2.3 info").words("info").meta(1, 2, 3),
    Parsed("-meta=0102000A info").words("info").meta(1, 2, 10),
    Parsed("-meta=1,2,3 info").words("info").meta(0, 0, 1),
    Parsed("-meta=1.2 info").words("info").meta(0, 0, 1),
    Parsed("-meta=0x10.0x20.012 info").words("info").meta(16, 32, 10),
};

TEST(Frontend, OptionsParse)
{
    KOR_SANDBOX_OR_SKIP();
    sandbox::Device d;  // a message of the parser would reach the sandbox's syslog only
    for (const Parsed& row : kParsed) {
        std::vector<std::string> kept = cli::split("kor " + row.args());
        std::vector<char*> argv;
        for (auto& a : kept) argv.push_back(a.data());
        kor_options o;
        ASSERT_EQ(kor_options_parse(&o, int(argv.size()), argv.data()), 0) << row.args();
        EXPECT_EQ(row.differences(o), "") << row.args();
    }
}

TEST(Frontend, BoundedCopiesAndTheCriticalRegion)
{
    KOR_SANDBOX_OR_SKIP();
    sandbox::Device d;  // the critical-region notes reach the sandbox's syslog only
    char field[4];
    EXPECT_EQ(kor_field_copy(field, 4, "abcdef"), 4u);  // the field full, no NUL
    EXPECT_EQ(std::string(field, 4), "abcd");
    EXPECT_EQ(kor_field_copy(field, 4, "a"), 1u);  // the rest cleared
    EXPECT_EQ(std::string(field, 4), std::string("a\0\0\0", 4));
    char buf[8];
    EXPECT_EQ(zb_snprintf(buf, sizeof buf, "%s", "abcdefghijklmnopqrst"), 7);
    EXPECT_STREQ(buf, "abcdefg");

    openlog("KOR", LOG_NDELAY, LOG_USER);
    critical_enter("outer %d\n", 1);
    critical_enter("in\n");
    critical_leave("in end\n");
    critical_leave("outer end\n");
    closelog();
    const auto log = d.take_log();  // only the outermost region is noted
    ASSERT_EQ(log.size(), 2u);
    EXPECT_EQ(log[0].priority, LOG_NOTICE);
    EXPECT_EQ(log[0].text, "outer 1\n");
    EXPECT_EQ(log[1].priority, LOG_NOTICE);
    EXPECT_EQ(log[1].text, "outer end\n");
}

const std::string kUsage = std::string(kor_usage_text) + "\n";

// Refused before any action: status 1, the message on stderr and at LOG_ERR.
Case refused(const std::string& name, const std::string& message)
{
    return Case(name).status(1).stdout_is("").stderr_is(message).syslog_is({{LOG_ERR, message}});
}

// Refused for the environment: as above, logged at LOG_CRIT.
Case refused_environment(const std::string& name, const std::string& message)
{
    return Case(name).status(1).stdout_is("").stderr_is(message).syslog_is({{LOG_CRIT, message}});
}

Case helped(const std::string& name) { return Case(name).status(0).stdout_is(kUsage).stderr_is("").syslog_is({}); }

std::vector<Case> front_end_rows()
{
    const std::string x100 = "/" + std::string(99, 'x'), p400(400, 'p'),
                      cut = ("KOR_PRODUCT too long: " + p400).substr(0, 319);
    return {
        refused("-meta=zz", "-meta syntax failure.\n").args("-meta=zz info"),
        refused("-velksize=", "-velksize syntax failure.\n").args("-velksize= info"),
        refused("-cfgfoo", "-cfg syntax failure.\n").args("-cfgfoo info"),
        refused("-iptos=x", "-iptos syntax failure.\n").args("-iptos=x info"),
        refused("-minver=1.2", "-minver syntax failure.\n").args("-minver=1.2 info"),
        refused("-locale", "-lock syntax failure.\n").args("-locale info"),
        refused("-cfgbak", "-cfgbak syntax failure.\n").args("-cfgbak info"),
        refused("-actx", "-activesetfile syntax failure.\n").args("-actx info"),
        Case("no arguments").status(1).stdout_is(kUsage).stderr_is("Syntax error, argc < 2\n")
            .syslog_is({{LOG_ERR, "Syntax error, argc < 2\n"}}),
        helped("help").args("help"),
        refused("unknown action", "Unknown action\n").args("frobnicate"),
        Case("unknown action, on a terminal").args("frobnicate").stdout_on_tty()  // not logged
            .status(1).stdout_is("").stderr_is("Unknown action\n").syslog_is({}),
        Case("KOR_PRODUCT of 400, on a terminal").args("help").env("KOR_PRODUCT", p400).stdout_on_tty()
            .status(1).stdout_is("").stderr_is(cut).syslog_is({{LOG_CRIT, cut}}),  // cut at 319, logged too
        refused_environment("KOR_PRODUCT of 16", "KOR_PRODUCT too long: " + std::string(16, 'P') + "\n")
            .args("help").env("KOR_PRODUCT", std::string(16, 'P')),
        helped("KOR_PRODUCT of 15").args("help").env("KOR_PRODUCT", std::string(15, 'P')),
        refused_environment("KOR_PLATFORM of 8", "KOR_PLATFORM too long: 12345678\n")
            .args("help").env("KOR_PLATFORM", "12345678"),
        Case("-v").args("-v help x").status(0).stderr_is("").syslog_is({})
            .stdout_is("action: help hostcfg: /dev/mmcblk0p3 (backup: /dev/mmcblk0p4) -r: 0 -dryrun: 0 -v: 1 -f: 0 "
                       "-meta: 0.0.0 -velksize=67108864 -rewrite=0\n-minver: 0.0.0 -lockfile: /tmp/kor.lock "
                       "-autosetfile: /tmp/kor.autoset -activesetfile: /tmp/kor.activeset\nother: x \n" + kUsage),
        refused("no action", "ACTION is missing.\n").args("-v"),
        refused("20 words", "Too many words on the command line (at most 19).\n").args(
            "w w w w w w w w w w w w w w w w w w w w"),
        refused("-cfg= of 100", "-cfg value too long (at most 99 characters).\n").args("-cfg=" + x100 + " info"),
        refused("-lockfile= of 100", "-lockfile value too long (at most 99 characters).\n")
            .args("-lockfile=" + x100 + " info"),
    };
}

const Case kLockHeld[] = {
    refused("lock held", "Could not acquire kor lock\n").args("help").lock_held(),
    helped("lock held, another -lockfile=").args("help -lockfile=/tmp/other.lock").lock_held(),
};

TEST(Frontend, StatusesMessagesAndTheLock)
{
    KOR_SANDBOX_OR_SKIP();
    sandbox::Device d;
    for (Case& row : front_end_rows()) cli::run(row.file_absent("/tmp/kor.lock"), d);  // the run removed its lock
    // A failed assertion in the worker: the panic line on stdout, the parent's status SIGABRT + 63. The aborted
    // worker leaves its lock file, unlocked: the next run takes it.
    cli::run(Case("assertion").args("activate 1 -f -dryrun").arg("-plugin=" + d.stage(KOR_PLUGIN_assert_plugin))
                 .status(69).stdout_matches("Panic: \\*\\*\\* ASSERT in korl at [0-9]+\n")
                 .syslog_has(LOG_CRIT, "child terminated by signal #6\n"),
             d);
    cli::run(helped("after an assertion").args("help").file_absent("/tmp/kor.lock"), d);
    for (const Case& row : kLockHeld) cli::run(row, d);
}

// Signals are logged by parent and worker and ignored, but SIGKILL of the worker.
TEST(Frontend, Signals)
{
    KOR_SANDBOX_OR_SKIP();
    sandbox::Device d;
    const std::string plugin = "-plugin=" + d.stage(KOR_PLUGIN_slow_plugin), mark = d.workdir() + "/started";
    const auto slow = sandbox::RunOptions().set("KOR_TEST_SLOW_MARK", mark);
    const struct {
        int signo;
        bool to_worker;
        int status;
        const char* logged;
    } signals[] = {
        {SIGINT, false, 0, "parent: Got signal #2\n"},
        {SIGTERM, false, 0, "parent: Got signal #15\n"},
        {SIGHUP, true, 0, "child: Got signal #1\n"},
        {SIGKILL, true, 72, "child terminated by signal #9\n"},
    };
    for (const auto& row : signals) {
        SCOPED_TRACE(row.logged);
        unlink(mark.c_str());
        const int pid = d.spawn_kor({"activate", "1", "-f", "-dryrun", plugin}, slow);
        for (int i = 0; i < 500 && !d.exists(mark); i++) usleep(10000);
        ASSERT_EQ(kill(row.to_worker ? sandbox::Device::worker_pid(pid) : pid, row.signo), 0);
        const sandbox::RunResult r = d.wait(pid);
        EXPECT_EQ(r.status, row.status);
        EXPECT_NE(r.log_text().find(row.logged), std::string::npos) << r.log_text();
    }
}

}  // namespace
