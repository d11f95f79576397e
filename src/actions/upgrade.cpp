// "upgrade [activate|validate|test]": the test-and-validate cycle of an
// upgrade, run against the set the device booted from.
#include "actions/actions.h"

#include <cstdio>
#include <cstring>

#include "actions/set_reports.h"
#include "base/console.h"
#include "base/fileutil.h"
#include "base/options.h"
#include "hostconfig/hostconfig.h"
#include "korl/korl.h"

namespace {

constexpr int kStateValid = 0;
constexpr int kStateTest = 1;
constexpr int kStateBoot = 2;

struct upgrade_run {
    kor_options* opts;
    korl_data* d;
    hostconfig* hc;
    int booted;
};

// The boot loader names the set it booted on the kernel command line. A
// missing word (or file) means the device came up from the safe set.
int booted_set()
{
    unique_file f(std::fopen("/proc/cmdline", "r"));
    if (!f) return 0;
    char word[81];
    while (std::fscanf(f.get(), "%80s", word) == 1) {
        if (std::strcmp(word, "KORSET=SAFESET") == 0) return 0;
        int n = 0;
        if (std::sscanf(word, "KORSET=SET%d", &n) == 1) return n;
    }
    return 0;
}

// The metadata is saved before the state is written, so a failed save
// leaves the state as it was.
[[nodiscard]] int commit(const upgrade_run& r, int set, int state)
{
    if (save_hostconfig(r.opts, r.d, r.hc, "upgrade") != 1) {
        log_always(LOG_CRIT, "upgrade: hostcfg saving failed.\n");
        return 1;
    }
    if (set_upgrade_state(set, state) != 0) {
        log_always(LOG_CRIT, "failed to set upgrade state\n");
        return 1;
    }
    return 0;
}

[[nodiscard]] int upgrade_activate(const upgrade_run& r)
{
    int set = -1;
    if (fnscanf(r.opts->activesetfile, "%d", &set) != 1) return 1;
    if (set < 0 || set >= KORL_SETS) {
        log_console(LOG_ERR, "upgrade: active set file names no valid set: %d\n", set);
        return 1;
    }
    bool changed = korl_actset_get(r.d) != set;
    korl_actset_activate(r.d, set);
    int state = (r.opts->test && r.booted > 0) ? kStateTest : kStateValid;
    if (r.opts->v) print_set_reports(r.d);
    if (!changed || r.opts->dryrun) return 0;
    return commit(r, set, state);
}

[[nodiscard]] int upgrade_validate(const upgrade_run& r)
{
    int state = get_upgrade_state(r.booted);
    if (state < 0) {
        zb_printf("Upgrade state is invalid\n");
        return 1;
    }
    if (state == kStateValid) {
        zb_printf("Already validated\n");
        return 0;
    }
    if (r.opts->v) print_set_reports(r.d);
    if (r.opts->dryrun) return 0;
    return commit(r, r.booted, kStateValid);
}

[[nodiscard]] int upgrade_test(const upgrade_run& r)
{
    int state = get_upgrade_state(r.booted);
    if (state < 0) {
        zb_printf("Upgrade state is invalid\n");
        return 1;
    }
    if (r.opts->v) print_set_reports(r.d);
    if (state != kStateBoot || r.opts->dryrun) return 0;
    return commit(r, r.booted, kStateTest);
}

struct upgrade_command {
    const char* word;
    int (*run)(const upgrade_run& r);
};

const upgrade_command kCommands[] = {
    {"activate", upgrade_activate},
    {"validate", upgrade_validate},
    {"test", upgrade_test},
};

}  // namespace

int action_upgrade(kor_options* opts)
{
    if (opts->nwords < 2 || opts->words[1] == nullptr) {
        log_console(LOG_ERR, "%s: Missing argument\n", "upgrade");
        return 1;
    }
    korl_data d;
    hostconfig hc;
    if (load(opts, &d, &hc) != 1) {
        log_console(LOG_ERR, "upgrade action: hostcfg loading failed.\n");
        return 1;
    }
    const upgrade_run r{opts, &d, &hc, booted_set()};
    for (const upgrade_command& c : kCommands) {
        if (std::strcmp(opts->words[1], c.word) == 0) return c.run(r);
    }
    log_always(LOG_CRIT, "upgrade: unknown command.\n");
    return 1;
}
