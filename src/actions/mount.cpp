// "mount SETIDX|SETNAME": mount every partition of a set that records a
// file system type and a mount point.
#include "actions/actions.h"

#include <cerrno>
#include <cstring>
#include <sys/mount.h>

#include "base/console.h"
#include "base/options.h"
#include "hostconfig/hostconfig.h"
#include "korl/korl.h"

namespace {

constexpr uint32_t kDeviceSize = 40;  // "/dev/mmcblk0p%i", at most 39 characters

int fail(const char* message)
{
    log_console(LOG_ERR, "%s", message);
    return 1;
}

// One entry; the result line tells the caller how it went, the action's
// status does not.
void mount_entry(const korl_partinfo& p, bool dryrun)
{
    // Terminated copies: the stored fields carry no NUL when full.
    char mountpnt[sizeof p.mountpnt + 1] = {};
    char fstype[sizeof p.fstype + 1] = {};
    std::memcpy(mountpnt, p.mountpnt, sizeof p.mountpnt);
    std::memcpy(fstype, p.fstype, sizeof p.fstype);
    if (fstype[0] == '\0' || mountpnt[0] == '\0' || std::strcmp(mountpnt, "/") == 0) return;

    char device[kDeviceSize];
    zb_snprintf(device, sizeof device, "/dev/mmcblk0p%i", p.pn);
    zb_printf("KOR: Mounting %s on %s as %s...", device, mountpnt, fstype);
    if (dryrun) {
        zb_printf(" DRYRUN\n");
        return;
    }
    if (mount(device, mountpnt, fstype, 0, nullptr) == 0) {
        zb_printf(" OK\n");
    } else if (errno == EBUSY) {
        zb_printf(" PASS: Already mounted or in use (EBUSY)\n");
    } else {
        zb_printf(" FAILED: %s\n", std::strerror(errno));
    }
}

}  // namespace

int action_mount(kor_options* opts)
{
    korl_data d;
    hostconfig hc;
    if (load(opts, &d, &hc) != 1) return fail("mount: loading hostcfg failed.\n");
    const char* w1 = opts->nwords > 1 ? opts->words[1] : nullptr;
    if (!w1) return fail("mount: missing set idx?\n");
    int setidx = parse_setidx_arg(&d, w1);
    if (setidx < 0) return fail("mount: invalid set idx?\n");
    korl_partpool_generate(&d);
    for (int8_t ref : d.partset[setidx].refs) {
        if (ref == -1) break;
        if (ref < 0 || ref >= KORL_PARTINFOS) continue;  // not an entry of the table
        mount_entry(d.partinfo[ref], opts->dryrun != 0);
    }
    return 0;
}
