// "verify [SETIDX|SETNAME]": check that the partitions still hold the
// content the hostconfig records for them.
#include "actions/actions.h"

#include <cstring>

#include "actions/set_reports.h"
#include "base/console.h"
#include "base/options.h"
#include "hostconfig/hostconfig.h"
#include "install/install.h"
#include "korl/korl.h"

namespace {

struct disparity_count {
    int multi = 0;
    int singleton = 0;
    bool active_set = false;  // a damaged singleton belongs to the active set
};

bool set_lists(const korl_data* d, int setidx, int partinfo_idx)
{
    if (setidx < 0 || setidx >= KORL_SETS) return false;
    for (int8_t ref : d->partset[setidx].refs) {
        if (ref == partinfo_idx) return true;
    }
    return false;
}

// Set mode: the outcome is the exit status only, unless the argument names
// no set, in which case all sets are checked and reported.
[[nodiscard]] int verify_sets(kor_options* opts, korl_data* d, const char* arg)
{
    int setidx = parse_setidx_arg(d, arg);
    int verbose = (opts->v || setidx < 0) ? 1 : 0;
    if (verbose) zb_printf("%s: Checking set %d\n", "verify_sets", setidx);
    if (setidx >= 0) return verify_set(opts, d, setidx, verbose) != 0 ? 1 : 0;
    int status = 0;
    for (int s = 0; s < KORL_SETS; s++) {
        if (verify_set(opts, d, s, verbose) != 0) status = 1;
    }
    return status;
}

// The content may have been written body first (1), header first (2) or
// in the third layout (3); any of them matching counts as intact.
const char* content_check(const korl_data* d, int i)
{
    static const char* const kMatches[] = {"OK", "OK (wts=2)", "OK (wts=3)"};
    for (int wts = 1; wts <= 3; wts++) {
        if (crc32_check(d, i, wts) == KORL_CRC_OK) return kMatches[wts - 1];
    }
    return d->pinfometa[i].body_crc == 0 ? "UNKNOWN" : nullptr;
}

void verify_entry(const korl_data* d, int i, disparity_count* c)
{
    zb_printf(" %2i  ", i);
    const korl_partinfo& p = d->partinfo[i];
    if (p.poolname[0] == '\0') {
        zb_puts("Not handled by KOR\n");
        return;
    }
    if (d->pinfometa[i].body_length == 0) {
        zb_puts("Nothing installed\n");
        return;
    }
    char pool[sizeof p.poolname + 1] = {};  // a full field carries no NUL
    std::memcpy(pool, p.poolname, sizeof p.poolname);
    zb_printf("Belongs to pool %-15s  ", pool);
    zb_printf("CRC32 content check: ");
    const char* result = content_check(d, i);
    if (result) {
        zb_printf("%s\n", result);
        return;
    }
    zb_puts("DISPARITY\n");
    if (korl_partpool_items_count(d, pool) == 1) {
        c->singleton++;
        if (set_lists(d, korl_actset_get(d), i)) c->active_set = true;
    } else {
        c->multi++;
    }
}

void warn_disparities(const korl_data* d, const disparity_count& c)
{
    int singletons = 0;
    int multis = 0;
    int pools = korl_partpool_count(d);
    for (int p = 0; p < pools && p < KORL_POOLS; p++) {
        if (d->partpool[p].cnt == 1) {
            singletons++;
        } else {
            multis++;
        }
    }
    if (c.multi != 0) {
        log_console(LOG_ERR,
                    "WARNING: %i/%i multi pools have a disparity between\n"
                    "             calculated and hostconfig recorded\n"
                    "             CRC32 values.\n",
                    c.multi, multis);
    }
    if (c.singleton != 0) {
        log_console(LOG_ERR,
                    "WARNING: %i/%i singleton pools have a disparity between\n"
                    "             calculated and hostconfig recorded \n"
                    "             CRC32 values.\n",
                    c.singleton, singletons);
        if (c.active_set) {
            zb_puts("             AT LEAST ONE OF THESE SINGLETONS IS PART OF THE ACTIVE SET\n");
            zb_puts("             DO NOT REBOOT UNTIL THIS ISSUE HAS BEEN FIXED!\n");
        }
    }
}

}  // namespace

int action_verify(kor_options* opts)
{
    korl_data d;
    hostconfig hc;
    if (load(opts, &d, &hc) != 1) {
        log_console(LOG_ERR, "verify action: loading hostcfg failed.\n");
        return 1;
    }
    korl_partpool_generate(&d);
    if (opts->nwords > 1 && opts->words[1] != nullptr) return verify_sets(opts, &d, opts->words[1]);
    if (opts->v) print_set_reports(&d);
    zb_puts("Verifying partitions:\n");
    disparity_count c;
    for (int i = 0; i < KORL_PARTINFOS; i++) verify_entry(&d, i, &c);
    warn_disparities(&d, c);
    return 0;
}
