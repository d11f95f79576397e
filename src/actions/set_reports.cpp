#include "actions/set_reports.h"

#include "hostconfig/hostconfig.h"
#include "korl/korl.h"

void print_set_reports(korl_data* d)
{
    korl_partpool_generate(d);
    korl_dump_info(d);
    korl_upgrade_info();
}
