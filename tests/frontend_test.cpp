// The front end: options, statuses, lock, signals, logging, assertions.
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <csignal>
#include <iterator>
#include <sstream>

#include "base/console.h"
#include "cli/cli.h"
#include "support/sandbox.h"

namespace {

std::vector<std::string> words(const std::string& s)
{
    std::istringstream in(s);
    return {std::istream_iterator<std::string>(in), {}};
}
std::string logs(const std::vector<sandbox::LogLine>& log)  // "priority text" per line
{
    return log.empty() ? "" : std::to_string(log[0].priority) + " " + log[0].text + logs({log.begin() + 1, log.end()});
}

// "cfg,cfgbak,velksize,meta,product,platform,rewrite..r,*_set,minver,iptos:words" ("!": no null after the words).
std::string parse(const std::string& args)
{
    std::vector<std::string> kept = words("kor " + args);
    std::vector<char*> argv;
    for (auto& a : kept) argv.push_back(a.data());
    kor_options o;
    if (kor_options_parse(&o, int(argv.size()), argv.data()) != 0) return "refused";
    char b[600];
    snprintf(b, sizeof b, "%s,%s,%u,%d.%d.%d,%s,%s,%d%d%d%d%d%d%d,%d%d%d%d,%u.%u.%u,%d:", o.cfg, o.cfgbak, o.velksize,
             o.meta_major, o.meta_minor, o.meta_buildnumber, o.product, o.platform, o.rewrite, o.onlymeta, o.noactivate,
             o.dryrun, o.test, o.f, o.r, o.product_set, o.platform_set, o.minver_set, o.iptos_set, o.minver_major,
             o.minver_minor, o.minver_buildnumber, o.iptos);
    std::string s = b;
    for (int i = 0; i < o.nwords; i++) s += std::string(i ? " " : "") + o.words[i];
    return s + (o.words[o.nwords] ? "!" : "");
}

// Each row: arguments, "status|stdout|stderr|syslog" or only the message of a refusal (status 1, on stderr and at
// LOG_ERR, at LOG_CRIT when about the environment), set-up: "tty", "lock" held by the test, VAR=value.
TEST(Frontend, OptionsStatusesMessagesLockSignalsAndSyslog)
{
    KOR_SANDBOX_OR_SKIP();
    sandbox::Device d;  // parse messages and critical-region notes reach the sandbox's syslog only
    const std::string p3 = "/dev/mmcblk0p3,/dev/mmcblk0p4,67108864,", t = ",,,0000000,0000,0.0.0,0:info";
    std::vector<std::pair<std::string, std::string>> parsed = {
        {"info", p3 + "0.0.0" + t}, {"info -cfg=/tmp/x", "/tmp/x,,67108864,0.0.0" + t},  // -cfg= alone: no backup
        {"-cfgbak=/tmp/b info -cfg=/tmp/x", "/tmp/x,/tmp/b,67108864,0.0.0" + t},
        {"-product=ABCDEFGHIJKLMNOPQRS -platform=armv7hfxyz -rewriteX -onlymetaY -noactivate -dryrun -test -f -r install "
         "img -1 -all -noactivatex -minver=1.2.3 -iptos=0x10 -velksize=4096",  // action arguments that look like options
         "/dev/mmcblk0p3,/dev/mmcblk0p4,4096,0.0.0,ABCDEFGHIJKLMNO,armv7hf,1111111,1111,1.2.3,16:install img -1 -all "
         "-noactivatex"},
    };
    for (const std::string& w : words("1.2.3:1.2.3 0102000A:1.2.10 1,2,3:0.0.1 1.2:0.0.1 0x10.0x20.012:16.32.10"))
        parsed.push_back({"-meta=" + w.substr(0, w.find(':')) + " info", p3 + w.substr(w.find(':') + 1) + t});
    for (const auto& [args, expect] : parsed) EXPECT_EQ(parse(args), expect) << args;

    char buf[8], field[4];
    auto copy = [&](const char* s) { auto n = kor_field_copy(field, 4, s); return std::to_string(n) + std::string(field, 4); };
    const std::string n = std::to_string(zb_snprintf(buf, sizeof buf, "%s", "abcdefghijklmnopqrst"));
    EXPECT_EQ(copy("abcdef") + copy("a") + n + buf, std::string("4abcd1a\0\0\0" "7abcdefg", 18));
    openlog("KOR", LOG_NDELAY, LOG_USER), critical_enter("outer %d\n", 1), critical_enter("in\n");
    critical_leave("in end\n"), critical_leave("outer end\n"), closelog();
    EXPECT_EQ(logs(d.take_log()), "5 outer 1\n5 outer end\n");  // only the outermost region is noted
    const std::string u = std::string(kor_usage_text) + "\n", x99 = "/" + std::string(99, 'x'), p400(400, 'p'),
                      cut = ("KOR_PRODUCT too long: " + p400).substr(0, 319), w20 = "w w w w w w w w w w w w w w w w w w w w";
    struct Row { std::string args, expect, setup = ""; };
    std::vector<Row> rows = {
        {"", "1|" + u + "|Syntax error, argc < 2\n|3 Syntax error, argc < 2\n"}, {"help", "0|" + u + "||"},
        {"frobnicate", "Unknown action\n"}, {"frobnicate", "1||Unknown action\n|", "tty"},
        {"help", "1||" + cut + "|2 " + cut, "tty KOR_PRODUCT=" + p400},  // cut at 319, logged from a terminal too
        {"help", "KOR_PRODUCT too long: " + std::string(16, 'P') + "\n", "KOR_PRODUCT=" + std::string(16, 'P')},
        {"help", "0|" + u + "||", "KOR_PRODUCT=" + std::string(15, 'P')},
        {"help", "KOR_PLATFORM too long: 12345678\n", "KOR_PLATFORM=12345678"},
        {"-v help x", "0|action: help hostcfg: /dev/mmcblk0p3 (backup: /dev/mmcblk0p4) -r: 0 -dryrun: 0 -v: 1 -f: 0 "
                      "-meta: 0.0.0 -velksize=67108864 -rewrite=0\n-minver: 0.0.0 -lockfile: /tmp/kor.lock -autosetfile: "
                      "/tmp/kor.autoset -activesetfile: /tmp/kor.activeset\nother: x \n" + u + "||"},
        {"-v", "ACTION is missing.\n"}, {w20, "Too many words on the command line (at most 19).\n"},
        {"-cfg=" + x99 + " info", "-cfg value too long (at most 99 characters).\n"},
        {"help", "Could not acquire kor lock\n", "lock"}, {"help -lockfile=/tmp/other.lock", "0|" + u + "||", "lock"},
    };
    for (const std::string& w : words("-meta=zz:-meta -velksize=:-velksize -cfgfoo:-cfg -iptos=x:-iptos -minver=1.2:-minver "
                                      "-locale:-lock -cfgbak:-cfgbak -actx:-activesetfile"))
        rows.insert(rows.begin(), {w.substr(0, w.find(':')) + " info", w.substr(w.find(':') + 1) + " syntax failure.\n"});
    int lock = -1;  // the rows above: argument:NAME refused with "NAME syntax failure."
    for (const Row& row : rows) {
        SCOPED_TRACE(row.setup + " | " + row.args);
        sandbox::RunOptions o;
        for (const std::string& w : words(row.setup))
            w == "tty" ? (void)o.tty() : w == "lock" ? void() : (void)o.set(w.substr(0, w.find('=')), w.substr(w.find('=') + 1));
        if (row.setup == "lock" && lock < 0) lock = open("/tmp/kor.lock", O_RDONLY | O_CREAT, 0600);
        ASSERT_TRUE(lock < 0 || flock(lock, LOCK_EX) == 0);
        sandbox::RunResult r = d.kor(words(row.args), o);
        const std::string& m = row.expect;
        EXPECT_EQ(std::to_string(r.status) + "|" + r.out + "|" + r.err + "|" + logs(r.log),
                  m[1] == '|' ? m : "1||" + m + "|" + (m.rfind("KOR_", 0) ? "3 " : "2 ") + m);
        EXPECT_TRUE(lock >= 0 || !d.exists("/tmp/kor.lock"));  // a run that got the lock removes it
    }
    close(lock);  // then signals: logged by parent and worker and ignored, but SIGKILL of the worker
    const std::string plugin = "-plugin=" + d.stage(KOR_PLUGIN_slow_plugin), mark = d.workdir() + "/started";
    const auto slow = sandbox::RunOptions().set("KOR_TEST_SLOW_MARK", mark);
    const struct { int signo; bool to_worker; int status; const char* logged; } signals[] = {
        {SIGINT, false, 0, "parent: Got signal #2\n"}, {SIGTERM, false, 0, "parent: Got signal #15\n"},
        {SIGHUP, true, 0, "child: Got signal #1\n"}, {SIGKILL, true, 72, "child terminated by signal #9\n"}};
    for (const auto& row : signals) {
        unlink(mark.c_str());
        int pid = d.spawn_kor({"activate", "1", "-f", "-dryrun", plugin}, slow);
        for (int i = 0; i < 500 && !d.exists(mark); i++) usleep(10000);
        ASSERT_EQ(kill(row.to_worker ? sandbox::Device::worker_pid(pid) : pid, row.signo), 0);
        const sandbox::RunResult r = d.wait(pid);
        EXPECT_EQ(std::to_string(r.status) + (r.log_text().find(row.logged) == std::string::npos ? r.log_text() : ""),
                  std::to_string(row.status)) << row.logged;
    }
}

}  // namespace
