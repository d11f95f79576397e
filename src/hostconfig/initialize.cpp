// The initialize action: a hostconfig holding one empty metadata record.
#include "hostconfig/hostconfig.h"

#include <unistd.h>

#include "base/console.h"
#include "base/options.h"
#include "korl/korl.h"

// Writes regardless of -dryrun, and without reading what is stored: any
// other body kept there is gone afterwards.
int action_initialize(kor_options* opts)
{
    korl_data d;
    if (korl_init(&d) != 1) {
        log_console(LOG_ERR, "initialize: korl_init failed.\n");
        return 1;
    }
    hostconfig hc;
    if (hostconfig_new(&hc, HOSTCONFIG_MAX) != 1) {
        log_console(LOG_ERR, "initialize: hostconfig_new failed.\n");
        return 1;
    }
    if (korl_hostconfig_export(&d, &hc) != 1) {
        log_console(LOG_ERR, "initialize: korl_hostconfig_export failed.\n");
        return 1;
    }
    if (save_hostconfig(opts, &d, &hc, "initialize") != 1) {
        log_console(LOG_ERR, "initialize: save failed.\n");
        return 1;
    }
    if (opts->v || !isatty(1)) log_console(LOG_INFO, "initialize: OK\n");
    return 0;
}
