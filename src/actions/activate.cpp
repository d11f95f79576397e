// "activate [SETIDX|SETNAME]": make a set the active one once its
// partitions are shown to hold what the metadata records for them.
#include "actions/actions.h"

#include "actions/set_reports.h"
#include "base/console.h"
#include "base/options.h"
#include "hostconfig/hostconfig.h"
#include "install/install.h"
#include "korl/korl.h"

namespace {

[[nodiscard]] int activate_commit(kor_options* opts, korl_data* d, hostconfig* hc, int setidx)
{
    if (save_hostconfig(opts, d, hc, "activate") != 1) {
        log_always(LOG_CRIT, "activate action: hostcfg saving failed.\n");
        return 1;
    }
    // The saved record already names the set: a failed state write leaves
    // the new active set in place but reports the run as failed.
    if (set_upgrade_state(setidx, 0) != 0) {
        log_always(LOG_CRIT, "cannot set normal mode\n");
        return 1;
    }
    return 0;
}

}  // namespace

int action_activate(kor_options* opts)
{
    korl_data d;
    hostconfig hc;
    if (load(opts, &d, &hc) != 1) {
        log_console(LOG_ERR, "activate action: hostcfg loading failed.\n");
        return 1;
    }
    const char* arg = opts->nwords > 1 ? opts->words[1] : nullptr;
    int setidx = parse_setidx_arg(&d, arg);
    if (setidx < 0) {
        log_console(LOG_ERR, "%s: invalid set id: %s\n", "activate", arg ? arg : "(none)");
        return 1;
    }
    if (!opts->f) {
        int err = verify_set(opts, &d, setidx, opts->v);
        if (err != 0) {
            log_console(LOG_ERR, "%s: set %d validation err=%d\n", "activate", setidx, err);
            return 1;
        }
    }
    korl_actset_activate(&d, setidx);
    if (opts->v) print_set_reports(&d);
    if (!opts->dryrun) {
        int status = activate_commit(opts, &d, &hc, setidx);
        if (status != 0) return status;
    }
    const kor_hooks* hooks = kor_hooks_get();
    if (hooks && hooks->activate_post) (void)hooks->activate_post(&d, &hc);
    return 0;
}
