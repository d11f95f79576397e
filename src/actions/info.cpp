// The info action: the metadata report and the upgrade states.
#include "actions/actions.h"

#include "base/console.h"
#include "hostconfig/hostconfig.h"
#include "korl/korl.h"

int action_info(kor_options* opts)
{
    korl_data d;
    hostconfig hc;
    if (load(opts, &d, &hc) != 1) {
        log_console(LOG_ERR, "info action: loading hostcfg failed.\n");
        return 1;
    }
    korl_partpool_generate(&d);
    korl_dump_info(&d);
    korl_upgrade_info();
    return 0;
}
