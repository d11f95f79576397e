// Metadata reports.
#include "korl/korl.h"

void korl_dump_info(const korl_data*) {}
void korl_printf_time(int32_t) {}
void korl_dump_vercfg(const korl_data*) {}
void korl_korm_dump_info(const korm_element*) {}
