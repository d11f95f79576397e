// Loading the metadata with its fallbacks and saving it back.
#include "hostconfig/hostconfig.h"

#include <cstring>

#include "base/console.h"
#include "base/options.h"
#include "korl/korl.h"

namespace {

const char* backup_of(const kor_options* opts)
{
    return opts->cfgbak[0] ? opts->cfgbak : nullptr;
}

// The default layout replaces a failed load in a record of its own, so no
// part listed by a load that failed half-way is carried into the next save.
int load_default(hostconfig* hc)
{
    if (hostconfig_new(hc, HOSTCONFIG_MAX) != 1) return -1;
    return hostconfig_default(hc);
}

// The new image: every other body of the loaded one in its order, then the
// record as the one "KOR data" body.
int build_image(korl_data* d, const hostconfig* loaded, hostconfig* out)
{
    if (hostconfig_new(out, HOSTCONFIG_MAX) != 1) {
        log_console(LOG_DEBUG, "hostconfig_new failed.\n");
        return -1;
    }
    for (int i = 0; i < loaded->count && i < static_cast<int32_t>(HOSTCONFIG_MAX_PARTS); i++) {
        const velk_content_header* part = loaded->parts[i];
        if (std::strncmp(part->name, HOSTCONFIG_BODY_NAME, sizeof part->name) == 0) continue;
        if (hostconfig_add(out, part) != 1) {
            log_console(LOG_DEBUG, "hostconfig_add failed.\n");
            return -1;
        }
    }
    if (korl_hostconfig_export(d, out) != 1) {
        log_console(LOG_DEBUG, "korl_hostconfig_export failed.\n");
        return -1;
    }
    return 1;
}

// Two copies, written one after the other, each on the device (fsync)
// before the next write starts: whenever a write is cut off, the copy not
// being written is whole and loads. Normally the backup goes first and the
// primary last. When the load had to take the backup, the backup is the
// only good copy, so the primary is repaired first and the backup written
// only once the primary is stored. With no backup path there is one copy
// and no such guarantee.
int write_copies(hostconfig* out, const char* cfg, const char* cfgbak, int loaded_from)
{
    if (loaded_from != 2 || !cfgbak) return hostconfig_save(out, cfg, cfgbak);
    int r = hostconfig_save(out, cfg, nullptr);
    if (r == 1) (void)hostconfig_save_raw(out, cfgbak);
    return r;
}

}  // namespace

int load(kor_options* opts, korl_data* d, hostconfig* hc)
{
    if (korl_init(d) != 1) {
        log_console(LOG_DEBUG, "korl_init failed.\n");
        return -1;
    }
    if (hostconfig_new(hc, HOSTCONFIG_MAX) != 1) {
        log_console(LOG_DEBUG, "hostconfig_new failed.\n");
        return -1;
    }
    int r = hostconfig_load(hc, opts->cfg, backup_of(opts));
    if (r == 2) {
        log_console(LOG_DEBUG, "hostconfig_load failed; loaded backup (%s) successfully.\n",
                    opts->cfgbak);
    } else if (r != 1 && load_default(hc) != 1) {
        log_console(LOG_DEBUG, "hostconfig_load failed.\n");
        return -1;
    }
    if (korl_hostconfig_import(d, hc) == 1) return 1;
    // A primary that loads but holds no usable "KOR data" is as lost as a
    // damaged one: the backup stands in for it, and is marked as the copy
    // loaded so that the next save repairs the primary first.
    const char* backup = backup_of(opts);
    if (r == 1 && backup && hostconfig_new(hc, HOSTCONFIG_MAX) == 1 &&
        hostconfig_load(hc, backup, nullptr) == 1 && korl_hostconfig_import(d, hc) == 1) {
        hc->loaded_from = 2;
        log_console(LOG_DEBUG, "hostconfig_load failed; loaded backup (%s) successfully.\n",
                    opts->cfgbak);
        return 1;
    }
    log_console(LOG_DEBUG, "korl_hostconfig_import failed.\n");
    return -1;
}

int save_hostconfig(kor_options* opts, korl_data* d, hostconfig* loaded, const char* caller)
{
    hostconfig out;
    if (build_image(d, loaded, &out) != 1) return -1;
    critical_enter("critical part start: hostconfig_save called by %s\n", caller);
    int r = write_copies(&out, opts->cfg, backup_of(opts), loaded->loaded_from);
    critical_leave("critical part end: hostconfig_save\n");
    if (r != 1) {
        log_console(LOG_DEBUG, "hostconfig_save failed.\n");
        return -1;
    }
    return 1;
}
