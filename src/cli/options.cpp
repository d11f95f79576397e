// Options, the lock file and the action dispatch: the worker's run.
#include "cli/cli.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "actions/actions.h"
#include "base/console.h"
#include "hostconfig/hostconfig.h"
#include "install/install.h"
#include "velk/velkinfo.h"

const char kor_usage_text[] =
    "Usage: kor [ ... ] ACTION [ ... ]\n"
    "where ACTION usage must be one of the following:\n"
    "  help\n"
    "  initialize\n"
    "  info\n"
    "  partset SETIDX [SETNAME] [-refs=PARTREFS]\n"
    "  activate [SETIDX|SETNAME]\n"
    "  partinfo PARTIDX [ POOLNAME SIZE [-offset=OFFSET] [-mount=MOUNT]\n"
    "                                   [-pn=PNUMBER] [-fstype=FSTYPE] ]\n"
    "  install VELK SETIDX\n"
    "  verify [SETIDX|SETNAME]\n"
    "  upgrade [activate|validate|test]\n"
    "  mount [SETIDX|SETNAME]\n"
    "  getpartset [SETIDX|active] [name] [-pif=PIF]\n"
    "  getrh [SETIDX|SETNAME|active] [-pif=PIF]\n"
    "  velkinfo VELK [-all] [-keys=PATH]\n"
    "COMMON OPTIONS can be located anywhere as long\n"
    "as they do not break the syntax of an ACTION:\n"
    "  -dryrun       do not alter hostconfig\n"
    "  -test         when activating set, mark it for test\n"
    "  -onlymeta     do only operate on hostconfig\n"
    "  -v            show verbose information\n"
    "  -f            force an action\n"
    "  -meta=major,minor,buildnumber\n"
    "  -velksize     max VELK size\n"
    "  -rewrite      force rewrite even if installed\n"
    "  -cfg=HOSTCFG  use another hostconfig than the default one\n"
    "  -cfgbak=HOSTCFG  use another hostconfig backup than the default one\n"
    "  -noactivate   do not update active set after install\n"
    "  -product=MODEL only install if release header contains this model\n"
    "                 can also be set from the environment KOR_PRODUCT\n"
    "  -platform=PLF match platform in korm, defaults to product\n"
    "                 can also be set from the environment KOR_PLATFORM\n"
    "  -minver=major.minor.buildnumber mimimum release version to install\n"
    "  -iptos=TOS    set type of service (TOS) for IP communication\n"
    "  -keys=PATH    trust the public keys in PATH (a directory of *.pub\n"
    "                 files, or one file) instead of the device's own\n"
    "  -downgrade    install a release older than the device's minimum\n"
    "  -retries=N    after a failed download, resume it up to N times\n"
    "  -timeout=SECONDS  give up a download that takes longer, retries included\n"
    "  -cacert=FILE  trust only the CA certificates in FILE for HTTPS\n"
    "  -cert=FILE    client certificate for HTTPS (PEM)\n"
    "  -key=FILE     private key of the client certificate (PEM)\n"
    "  -stream       install: write each part while the image arrives, with\n"
    "                 memory bounded by -velksize instead of the image's size\n"
    "HOSTCFG:\n"
    "  For this system default hostconfig (HOSTCFG) is located at:\n"
    "    /dev/mmcblk0p3 (backup located at /dev/mmcblk0p4)\n"
    "SETIDX and install action:\n"
    "  If -1 is given as SETIDX at install time KOR will try to\n"
    "  autoselect a SETIDX suitable for installation.\n"
    "PARTIDX and partinfo action:\n"
    "  PARTIDX is the index to an element in the hostconfig partition info\n"
    "  table. As default the PARTIDX number is the same as the partition\n"
    "  number the entry covers. However the partition number can be set to\n"
    "  something else with the -pn=NUMBER option. Example:\n"
    "    $ kor partinfo 4 TESTPOOL 0x100 -pn=22\n"
    "  In this example PARTIDX 4 covers partition 22 and not partition 4\n"
    "  as it would have if the -pn option was not given.\n"
    "VELK is a valid VELK file. Can be fetched either from\n"
    "  the file system, tftp or by CURL (if CURL is enabled).\n"
    "FSTYPE:\n"
    "  can be e.g. squashfs, ext2, ex3, ext4, jffs2, virtuals.";

namespace {

// How a row of the option table treats a matching argument.
enum class opt_kind {
    flag,         // exact word, sets a flag
    flag_prefix,  // prefix, sets a flag
    meta,
    velksize,
    path,         // prefix; "NAME=%s" into a path field
    product,
    platform,
    minver,
    iptos,
    plugin,
    count,        // "NAME=N", decimal, bounded
};

struct opt_row {
    const char* match;     // the argument, or its prefix
    opt_kind kind;
    const char* pattern;   // NAME= part for values
    const char* failure;   // message when the value does not parse
};

// Checked in this order; the first row that matches decides.
const opt_row kOptionRows[] = {
    {"-r", opt_kind::flag, nullptr, nullptr},
    {"-dryrun", opt_kind::flag, nullptr, nullptr},
    {"-test", opt_kind::flag, nullptr, nullptr},
    {"-v", opt_kind::flag, nullptr, nullptr},
    {"-f", opt_kind::flag, nullptr, nullptr},
    {"-meta=", opt_kind::meta, nullptr, "-meta syntax failure.\n"},
    {"-velksize", opt_kind::velksize, nullptr, "-velksize syntax failure.\n"},
    {"-rewrite", opt_kind::flag_prefix, nullptr, nullptr},
    {"-cfgbak", opt_kind::path, "-cfgbak=", "-cfgbak syntax failure.\n"},
    {"-cfg", opt_kind::path, "-cfg=", "-cfg syntax failure.\n"},
    {"-onlymeta", opt_kind::flag_prefix, nullptr, nullptr},
    {"-noactivate", opt_kind::flag, nullptr, nullptr},
    {"-downgrade", opt_kind::flag, nullptr, nullptr},
    {"-keys=", opt_kind::path, "-keys=", "-keys syntax failure.\n"},
    {"-stream", opt_kind::flag, nullptr, nullptr},
    {"-product=", opt_kind::product, nullptr, nullptr},
    {"-platform=", opt_kind::platform, nullptr, nullptr},
    {"-minver=", opt_kind::minver, nullptr, "-minver syntax failure.\n"},
    {"-iptos", opt_kind::iptos, nullptr, "-iptos syntax failure.\n"},
    {"-plugin=", opt_kind::plugin, nullptr, nullptr},
    {"-loc", opt_kind::path, "-lockfile=", "-lock syntax failure.\n"},
    {"-aut", opt_kind::path, "-autosetfile=", "-autosetfile syntax failure.\n"},
    {"-act", opt_kind::path, "-activesetfile=", "-activesetfile syntax failure.\n"},
    // Matched on the whole "NAME=": -key= must not take -keys=, nor -cert= a word.
    {"-retries=", opt_kind::count, "-retries=", "-retries syntax failure.\n"},
    {"-timeout=", opt_kind::count, "-timeout=", "-timeout syntax failure.\n"},
    {"-cacert=", opt_kind::path, "-cacert=", "-cacert syntax failure.\n"},
    {"-cert=", opt_kind::path, "-cert=", "-cert syntax failure.\n"},
    {"-key=", opt_kind::path, "-key=", "-key syntax failure.\n"},
};

bool starts_with(const char* s, const char* prefix)
{
    return std::strncmp(s, prefix, std::strlen(prefix)) == 0;
}

bool row_matches(const opt_row& row, const char* arg)
{
    switch (row.kind) {
    case opt_kind::flag:
        return std::strcmp(arg, row.match) == 0;
    default:
        return starts_with(arg, row.match);
    }
}

int32_t* flag_field(kor_options* o, const char* match)
{
    struct {
        const char* match;
        int32_t kor_options::*field;
    } static const flags[] = {
        {"-r", &kor_options::r},           {"-dryrun", &kor_options::dryrun},
        {"-test", &kor_options::test},     {"-v", &kor_options::v},
        {"-f", &kor_options::f},           {"-rewrite", &kor_options::rewrite},
        {"-onlymeta", &kor_options::onlymeta}, {"-noactivate", &kor_options::noactivate},
        {"-downgrade", &kor_options::downgrade},
        {"-stream", &kor_options::stream},
    };
    for (const auto& f : flags)
        if (std::strcmp(f.match, match) == 0) return &(o->*(f.field));
    return nullptr;
}

char* path_field(kor_options* o, const char* pattern)
{
    if (std::strcmp(pattern, "-cfgbak=") == 0) return o->cfgbak;
    if (std::strcmp(pattern, "-cfg=") == 0) return o->cfg;
    if (std::strcmp(pattern, "-lockfile=") == 0) return o->lockfile;
    if (std::strcmp(pattern, "-autosetfile=") == 0) return o->autosetfile;
    if (std::strcmp(pattern, "-keys=") == 0) return o->keys;
    if (std::strcmp(pattern, "-cacert=") == 0) return o->cacert;
    if (std::strcmp(pattern, "-cert=") == 0) return o->cert;
    if (std::strcmp(pattern, "-key=") == 0) return o->key;
    return o->activesetfile;
}

// "NAME=N": decimal digits only, at most `limit`. A sign, a hexadecimal
// form or trailing text is refused rather than read as something else.
bool scan_count(const char* arg, const char* pattern, uint32_t limit, uint32_t* value)
{
    const char* v = arg + std::strlen(pattern);
    if (*v == '\0') return false;
    uint32_t n = 0;
    for (; *v >= '0' && *v <= '9'; v++) {
        n = n * 10 + static_cast<uint32_t>(*v - '0');
        if (n > limit) return false;
    }
    if (*v != '\0') return false;
    *value = n;
    return true;
}

bool parse_count(kor_options* o, const char* arg, const char* pattern)
{
    if (std::strcmp(pattern, "-timeout=") == 0)
        return scan_count(arg, pattern, KOR_MAX_TIMEOUT, &o->timeout);
    uint32_t n = 0;
    if (!scan_count(arg, pattern, KOR_MAX_RETRIES, &n)) return false;
    o->retries = static_cast<int32_t>(n);
    return true;
}

// "NAME=%s" into a field of `size` bytes: the value runs to the first white
// space after any leading white space, as %s reads it. A value that does not
// fit is refused rather than cut: a cut path names another file.
// 1 stored, 0 no value, -1 too long.
int scan_text(const char* arg, const char* pattern, char* field, uint32_t size)
{
    if (!starts_with(arg, pattern)) return 0;
    const char* v = arg + std::strlen(pattern);
    while (*v == ' ' || (*v >= '\t' && *v <= '\r')) v++;
    uint32_t n = 0;
    while (v[n] != '\0' && v[n] != ' ' && !(v[n] >= '\t' && v[n] <= '\r')) n++;
    if (n == 0) return 0;
    if (n >= size) return -1;
    std::memcpy(field, v, n);
    field[n] = '\0';
    return 1;
}

int fail(const char* message)
{
    log_console(LOG_ERR, "%s", message);
    return 1;
}

int too_long(const char* pattern, uint32_t limit)
{
    log_console(LOG_ERR, "%.*s value too long (at most %u characters).\n",
                static_cast<int>(std::strlen(pattern) - 1), pattern, limit);
    return 1;
}

int parse_meta(kor_options* o, const char* arg)
{
    int a = 0, b = 0, c = 0;
    if (std::sscanf(arg, "-meta=%i.%i.%i", &a, &b, &c) == 3) {
        o->meta_major = a;
        o->meta_minor = b;
        o->meta_buildnumber = c;
        return 0;
    }
    unsigned x = 0;
    if (std::sscanf(arg, "-meta=%X", &x) != 1) return 1;
    o->meta_major = static_cast<int32_t>((x >> 24) & 0xFF);
    o->meta_minor = static_cast<int32_t>((x >> 16) & 0xFF);
    o->meta_buildnumber = static_cast<int32_t>(x & 0xFFFF);
    return 0;
}

// One argument through the option table. 0 taken (or a word), else the
// exit status.
int parse_argument(kor_options* o, char* arg)
{
    for (const opt_row& row : kOptionRows) {
        if (!row_matches(row, arg)) continue;
        switch (row.kind) {
        case opt_kind::flag:
        case opt_kind::flag_prefix:
            *flag_field(o, row.match) = 1;
            return 0;
        case opt_kind::meta:
            return parse_meta(o, arg) == 0 ? 0 : fail(row.failure);
        case opt_kind::velksize:
            return std::sscanf(arg, "-velksize=%u", &o->velksize) == 1 ? 0 : fail(row.failure);
        case opt_kind::path: {
            int r = scan_text(arg, row.pattern, path_field(o, row.pattern), KOR_PATH_SIZE);
            if (r < 0) return too_long(row.pattern, KOR_PATH_SIZE - 1);
            return r == 1 ? 0 : fail(row.failure);
        }
        case opt_kind::product:
            if (std::sscanf(arg, "-product=%15s", o->product) != 1) continue;
            o->product_set = 1;
            return 0;
        case opt_kind::platform:
            if (std::sscanf(arg, "-platform=%7s", o->platform) != 1) continue;
            o->platform_set = 1;
            return 0;
        case opt_kind::minver:
            if (std::sscanf(arg, "-minver=%u.%u.%u", &o->minver_major, &o->minver_minor,
                            &o->minver_buildnumber) != 3)
                return fail(row.failure);
            o->minver_set = 1;
            return 0;
        case opt_kind::iptos:
            if (std::sscanf(arg, "-iptos=%i", &o->iptos) != 1) return fail(row.failure);
            o->iptos_set = 1;
            return 0;
        case opt_kind::count:
            return parse_count(o, arg, row.pattern) ? 0 : fail(row.failure);
        case opt_kind::plugin: {
            int r = scan_text(arg, "-plugin=", o->plugin, sizeof o->plugin);
            if (r == 0) continue;
#ifdef KOR_PLUGINS
            if (r < 0) return too_long("-plugin=", sizeof o->plugin - 1);
            return 0;
#else
            return fail("plugin support not enabled.\n");
#endif
        }
        }
    }
    if (o->nwords >= KOR_MAX_WORDS - 1) {
        log_console(LOG_ERR, "Too many words on the command line (at most %d).\n",
                    KOR_MAX_WORDS - 1);
        return 1;
    }
    o->words[o->nwords++] = arg;
    return 0;
}

int environment_value(const char* name, char* field, uint32_t size, int32_t* set)
{
    const char* v = std::getenv(name);
    if (!v) return 0;
    if (std::strlen(v) >= size) {
        log_always(LOG_CRIT, "%s too long: %s\n", name, v);
        return 1;
    }
    kor_str_copy(field, size, v);
    *set = 1;
    return 0;
}

void verbose_dump(const kor_options* o)
{
    zb_printf("action: %s hostcfg: %s (backup: %s) -r: %i -dryrun: %i -v: %i -f: %i "
              "-meta: %i.%i.%i -velksize=%u -rewrite=%i\n",
              o->action, o->cfg, o->cfgbak, o->r, o->dryrun, o->v, o->f, o->meta_major,
              o->meta_minor, o->meta_buildnumber, o->velksize, o->rewrite);
    zb_printf("-minver: %u.%u.%u -lockfile: %s -autosetfile: %s -activesetfile: %s\n",
              o->minver_major, o->minver_minor, o->minver_buildnumber, o->lockfile,
              o->autosetfile, o->activesetfile);
    zb_printf("other: ");
    for (int i = 1; i < o->nwords; i++) zb_printf("%s ", o->words[i]);
    zb_printf("\n");
}

// The lock descriptor lives from locking to unlocking.
int g_lock_fd = -1;

// Tries to hold the lock on the file the path names. A run that opened the
// file just before its holder removed it may still get a lock, but on a
// removed file, which excludes nobody: it must open the path again.
constexpr int kLockAttempts = 3;

bool same_file(int fd, const char* path)
{
    struct stat held, named;
    return fstat(fd, &held) == 0 && stat(path, &named) == 0 && held.st_dev == named.st_dev &&
           held.st_ino == named.st_ino;
}

bool kor_lock(const char* path)
{
    for (int attempt = 0; attempt < kLockAttempts; attempt++) {
        int fd = open(path, O_RDONLY | O_CREAT | O_CLOEXEC, 0600);
        if (fd < 0) return false;
        if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
            close(fd);
            return false;
        }
        if (same_file(fd, path)) {
            g_lock_fd = fd;
            return true;
        }
        close(fd);
    }
    return false;
}

// The file is removed while it is still locked: removed after the unlock,
// it could be the file another run has just locked, and a third run would
// then lock a new file beside it.
void kor_unlock(const char* path)
{
    bool failed = unlink(path) != 0 && errno != EBUSY;
    failed = flock(g_lock_fd, LOCK_UN) != 0 || failed;
    failed = close(g_lock_fd) != 0 || failed;
    g_lock_fd = -1;
    if (failed) log_console(LOG_ERR, "WARNING: kor_unlock failed\n");
}

int action_help(kor_options*)
{
    std::puts(kor_usage_text);
    std::fflush(stdout);
    return 0;
}

struct action_row {
    const char* word;
    int (*run)(kor_options*);
};

const action_row kActions[] = {
    {"initialize", action_initialize}, {"install", action_install},
    {"info", action_info},             {"getrh", action_getrh},
    {"mount", action_mount},           {"partset", action_partset},
    {"partinfo", action_partinfo},     {"activate", action_activate},
    {"upgrade", action_upgrade},       {"verify", action_verify},
    {"getpartset", action_getpartset}, {"velkinfo", action_velkinfo},
    {"help", action_help},
};

int dispatch(kor_options* o)
{
    for (const action_row& a : kActions)
        if (std::strcmp(o->action, a.word) == 0) return a.run(o);
    log_console(LOG_ERR, "Unknown action\n");
    return 1;
}

}  // namespace

int kor_options_parse(kor_options* o, int argc, char** argv)
{
    std::memset(o, 0, sizeof *o);
    kor_str_copy(o->lockfile, sizeof o->lockfile, KOR_DEFAULT_LOCKFILE);
    o->velksize = KOR_DEFAULT_VELKSIZE;
    kor_str_copy(o->autosetfile, sizeof o->autosetfile, KOR_DEFAULT_AUTOSETFILE);
    kor_str_copy(o->activesetfile, sizeof o->activesetfile, KOR_DEFAULT_ACTIVESETFILE);

    if (environment_value("KOR_PRODUCT", o->product, sizeof o->product, &o->product_set) ||
        environment_value("KOR_PLATFORM", o->platform, sizeof o->platform, &o->platform_set))
        return 1;

    for (int i = 1; i < argc; i++) {
        int r = parse_argument(o, argv[i]);
        if (r != 0) return r;
    }
    o->action = o->words[0];
    if (o->nwords == 0) {
        log_console(LOG_ERR, "ACTION is missing.\n");
        return 1;
    }
    if (o->cfg[0] == '\0') {
        kor_str_copy(o->cfg, sizeof o->cfg, KOR_DEFAULT_CFG);
        if (o->cfgbak[0] == '\0') kor_str_copy(o->cfgbak, sizeof o->cfgbak, KOR_DEFAULT_CFGBAK);
    }
    return 0;
}

int kor_run(int argc, char** argv)
{
    kor_options o;
    int r = kor_options_parse(&o, argc, argv);
    if (r != 0) return r;
    if (o.v) verbose_dump(&o);
    if (o.plugin[0] != '\0' && kor_plugin_load(o.plugin) != 0) return 1;
    if (!kor_lock(o.lockfile)) {
        log_console(LOG_ERR, "Could not acquire kor lock\n");
        return 1;
    }
    r = dispatch(&o);
    kor_unlock(o.lockfile);
    return r;
}
