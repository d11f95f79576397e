// The partition metadata record: sets, partition entries and pools.
#include "korl/korl.h"

#include <cstring>

void korl_partpool_generate(korl_data*) {}
int korl_partpool_items(const korl_data*, const char*, int8_t*) { return -1; }
int korl_partpool_items_count(const korl_data*, const char*) { return -1; }
int korl_partpool_count(const korl_data*) { return -1; }
int korl_actset_activate(korl_data* d, int setidx) { d->actset = static_cast<uint8_t>(setidx); return 1; }
int korl_actset_get(const korl_data* d) { return d->actset; }
int korl_partinfo_owned_by_set(const korl_data*, int, int) { return 0; }
int korl_partinfo_mark_meta_invalid(korl_data*, int) { return 1; }
int korl_getsetidx(const korl_data*, const char*) { return -1; }
void partinfo_init(korl_data*, int, const char*, uint32_t, uint32_t) {}
void partset_init(korl_data*, int, const char*) {}
int parse_setidx_arg(const korl_data*, const char*) { return -1; }
int korl_init(korl_data* d) { std::memset(d, 0, sizeof *d); return 1; }
