// The install's changes to the device: the autoset claim, then inside the
// critical region the partition writes, the hostconfig and the activation.
#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

#include "base/console.h"
#include "base/fileutil.h"
#include "base/options.h"
#include "install/install_steps.h"

namespace {

constexpr int GO_ON = INSTALL_GO_ON;

// The autoset file keeps the set that ran before, one raw byte.
int store_old_set(install_run* run, unique_fd& fd)
{
    const char* path = run->opts->autosetfile;
    uint8_t old = run->data.actset;
    ssize_t w = ::write(fd.get(), &old, 1);
    if (w == -1) log_console(LOG_ERR, "errno = %i\n", errno);
    (void)fd.reset();
    if (w == 1) return GO_ON;
    ::unlink(path);
    log_console(LOG_ERR, "Failed to store old setidx into %s\n", path);
    return 5;
}

int save(install_run* run)
{
    if (save_hostconfig(run->opts, &run->data, &run->hc, "install") == 1) return GO_ON;
    log_always(LOG_CRIT, "KOR_EXIT_FATAL_ERR_HOSTCONFIG_WRITE\n");
    return KOR_EXIT_FATAL_ERR_HOSTCONFIG_WRITE;
}

// The failed partition's metadata was cleared by the writer; store that.
int after_failed_write(install_run* run, int pool_count)
{
    int r = save(run);
    if (r != GO_ON) return r;
    if (run->autoset) ::unlink(run->opts->autosetfile);
    if (pool_count == 1) {
        log_always(LOG_CRIT, "KOR_EXIT_FATAL_ERR_SINGLETON_WRITE");
        return KOR_EXIT_FATAL_ERR_SINGLETON_WRITE;
    }
    return 1;
}

// A streaming install that stopped before everything was written and
// verified records nothing: the claims released before the first write are
// its only change, and the sets in use never lost a partition.
int after_stream_failure(install_run* run, int status)
{
    if (run->autoset) ::unlink(run->opts->autosetfile);
    log_always(LOG_NOTICE,
               "install: stopped before every part was written; set %u was not recorded and "
               "the active set is unchanged\n",
               run->ctx.setidx);
    return status;
}

int post_activate(install_run* run)
{
    const kor_hooks* h = kor_hooks_get();
    if (!h || !h->install_post_activate) return 0;
    return h->install_post_activate(&run->ctx, &run->hc);
}

// The test mark goes on before the save that makes the set active: cut
// between the two, the device still runs the old set, while the other
// order would leave a new set active without its trial boot.
int activate(install_run* run)
{
    const kor_options* o = run->opts;
    if (o->noactivate)
        (void)fnprintf(o->activesetfile, "%d", run->ctx.setidx);
    else
        run->data.actset = run->ctx.setidx;
    bool marked = !o->test || set_upgrade_state(run->data.actset, 1) == 0;
    int r = save(run);
    if (r != GO_ON) return r;
    if (!marked) {
        log_always(LOG_CRIT, "cannot set test mode\n");
        return 1;
    }
    return post_activate(run);
}

// Partitions about to be written may hold content the stored record claims
// (a set installed over, a damaged copy rewritten). Those claims are dropped
// from the stored record before the first write, so that a run cut while
// writing never leaves a hostconfig that claims content no longer there.
// Nothing else of the stored record changes.
int release_claims(install_run* run)
{
    if (run->opts->dryrun || run->opts->onlymeta) return GO_ON;
    korl_data stored = run->stored;
    bool claimed = false;
    for (const korm_element& e : run->ctx.korm) {
        if (e.action != 1 || e.partinfo_idx < 0 || e.partinfo_idx >= KORL_PARTINFOS) continue;
        const korl_pinfometa& m = stored.pinfometa[e.partinfo_idx];
        if (m.body_length == 0 && m.body_crc == 0) continue;
        korl_partinfo_mark_meta_invalid(&stored, e.partinfo_idx);
        claimed = true;
    }
    if (!claimed) return GO_ON;
    if (save_hostconfig(run->opts, &stored, &run->hc, "install") == 1) return GO_ON;
    log_always(LOG_CRIT, "KOR_EXIT_FATAL_ERR_HOSTCONFIG_WRITE\n");
    return KOR_EXIT_FATAL_ERR_HOSTCONFIG_WRITE;
}

// Writes, records and activates; the status with which the install ends.
int write_and_record(install_run* run)
{
    int released = release_claims(run);
    if (released != GO_ON) return released;
    install_write_result w = run->ctx.stream ? stream_write_out(run) : install_write_out(&run->ctx);
    const kor_hooks* h = kor_hooks_get();
    if (h && h->install_post_write_out) {
        int r = h->install_post_write_out(&run->ctx, &run->hc);
        if (r != 0) return r;
    }
    if (run->opts->dryrun) return post_activate(run);
    ::unlink(run->opts->activesetfile);
    if (!w.ok && w.status != 0) return after_stream_failure(run, w.status);
    if (!w.ok) return after_failed_write(run, w.pool_count);
    return activate(run);
}

}  // namespace

int claim_autoset(install_run* run)
{
    if (run->opts->dryrun || !run->autoset) return GO_ON;
    const char* path = run->opts->autosetfile;
    unique_fd fd(::open(path, O_WRONLY | O_CREAT | O_EXCL, 0600));
    if (fd.valid()) return store_old_set(run, fd);
    if (errno == EEXIST)
        log_console(LOG_ERR,
                    "Autodetected set installation has already been tried by KOR with or "
                    "without success.\n");
    else
        log_console(LOG_ERR, "install: could not CREATE|EXCL %s\n", path);
    return 5;
}

int commit_install(install_run* run)
{
    bool dryrun = run->opts->dryrun;
    if (!dryrun) critical_enter("install: entering critical region\n");
    int c = write_and_record(run);
    if (!dryrun) critical_leave("install: leaving critical region with exitcode=%i\n", c);
    const kor_hooks* h = kor_hooks_get();
    if (c != 0 && h && h->install_on_failure) (void)h->install_on_failure(&run->ctx, &run->hc, c);
    return c;
}
