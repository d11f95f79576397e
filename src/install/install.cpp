// The install action: bring a release image into memory, plan it into a
// set, check what the plan keeps, then write, record and activate it inside
// the critical region.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "base/console.h"
#include "base/fileutil.h"
#include "base/options.h"
#include "hostconfig/hostconfig.h"
#include "install/install.h"
#include "install/install_steps.h"

namespace {

constexpr int GO_ON = INSTALL_GO_ON;

int parse_arguments(install_run* run)
{
    const kor_options* o = run->opts;
    if (o->nwords < 3 || !o->words[2]) {
        log_console(LOG_ERR, "install: missing set idx?\n");
        return 1;
    }
    int setidx = 0;
    if (std::sscanf(o->words[2], "%i", &setidx) != 1 || setidx < -1 || setidx > 2) {
        log_console(LOG_ERR, "install: invalid set idx?\n");
        return 1;
    }
    run->source = o->words[1];
    run->wanted_set = setidx;
    if (o->stream) {
        run->stream.file_fd = -1;
        run->stream.sink.fd = -1;
        run->ctx.stream = &run->stream;
    }
    run->ctx.data = &run->data;
    run->ctx.setidx = static_cast<uint8_t>(setidx);
    run->ctx.options = run->opts;
    return GO_ON;
}

int load_metadata(install_run* run)
{
    int r = load(run->opts, &run->data, &run->hc);
    if (r == 1) return GO_ON;
    log_always(LOG_NOTICE, "install: hostcfg loading failed.\n");
    const kor_hooks* h = kor_hooks_get();
    if (!h || !h->install_hcfg_fail) {
        log_console(LOG_ERR, "rebuild_hostcfg: Not supported by this platform\n");
        return 1;
    }
    int hr = h->install_hcfg_fail(&run->ctx, &run->hc, r);
    if (hr == 0) return GO_ON;
    log_console(LOG_ERR, "kor_install_hook_hcfg_fail returned non success (%i)\n", hr);
    return hr;
}

// The source as logs may show it: a password in a URL's user part must not
// reach the console or syslog, so the whole user part becomes "***".
struct shown_source {
    char text[400];
};

shown_source show(const char* source)
{
    shown_source out{};
    const char* scheme_end = std::strstr(source, "://");
    const char* host = scheme_end ? scheme_end + 3 : nullptr;
    const char* at = host ? std::strchr(host, '@') : nullptr;
    const char* slash = host ? std::strchr(host, '/') : nullptr;
    if (!at || (slash && slash < at)) {
        kor_str_copy(out.text, sizeof out.text, source);
        return out;
    }
    std::snprintf(out.text, sizeof out.text, "%.*s***%s", static_cast<int>(host - source), source,
                  at);
    return out;
}

bool release_lower(const korl_rhdr& a, const korl_rhdr& b)
{
    if (a.release_version_major != b.release_version_major)
        return a.release_version_major < b.release_version_major;
    if (a.release_version_minor != b.release_version_minor)
        return a.release_version_minor < b.release_version_minor;
    return a.release_build_number < b.release_build_number;
}

// -1: the set that is not running; from the safe set, the older release.
int choose_set(install_run* run)
{
    if (run->wanted_set >= 0) {
        log_always(LOG_NOTICE, "install: %s into set idx = %i\n", show(run->source).text,
                   run->wanted_set);
        return GO_ON;
    }
    const korl_data& d = run->data;
    int set = -1;
    if (d.actset == 1) set = 2;
    if (d.actset == 2) set = 1;
    if (d.actset == 0) set = release_lower(d.rhdr[2], d.rhdr[1]) ? 2 : 1;
    if (set < 0) {
        log_console(LOG_ERR, "install: could not autodetect Set to install into\n");
        return 1;
    }
    run->ctx.setidx = static_cast<uint8_t>(set);
    run->autoset = true;
    log_always(LOG_NOTICE, "install: %s into autodetected set idx = %i\n", show(run->source).text,
               set);
    return GO_ON;
}

int generate_pools(install_run* run)
{
    korl_partpool_generate(&run->data);
    return GO_ON;
}

int load_keys(install_run* run)
{
    int r = install_load_keys(&run->ctx, &run->keys);
    return r == 0 ? GO_ON : r;
}

int bring_image(install_run* run)
{
    int r = transfer_image(&run->ctx, &run->hc, run->source);
    return r == 0 ? GO_ON : r;
}

int hook_result(int (*hook)(install_ctx*, hostconfig*), install_run* run)
{
    if (!hook) return GO_ON;
    int r = hook(&run->ctx, &run->hc);
    return r == 0 ? GO_ON : r;
}

int pre_metainstall(install_run* run)
{
    const kor_hooks* h = kor_hooks_get();
    return hook_result(h ? h->install_pre_metainstall : nullptr, run);
}

int pre_install(install_run* run)
{
    const kor_hooks* h = kor_hooks_get();
    return hook_result(h ? h->install_pre_install : nullptr, run);
}

using step_fn = int (*)(install_run*);

// Everything before the critical region; each step may end the install.
constexpr step_fn preparation[] = {
    parse_arguments, load_metadata,   generate_pools, choose_set,    load_keys,
    bring_image,     check_release,   pre_metainstall, record_plan,  check_kept,
    check_targets,   plan_stream,     claim_autoset,  pre_install,
};

}  // namespace

int action_install(kor_options* opts)
{
    install_run run{};
    run.opts = opts;
    run.ctx.state = INSTALL_STATE_HEADER;
    int status = GO_ON;
    for (step_fn step : preparation) {
        status = step(&run);
        if (status != GO_ON) break;
    }
    if (status == GO_ON) status = commit_install(&run);
    transfer_release(&run.ctx);
    return status;
}
