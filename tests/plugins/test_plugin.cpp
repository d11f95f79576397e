// Test plugin: defines every hook. Each call appends "<hook> <args>" to the
// file named by KOR_TEST_HOOK_LOG (when set) and returns what
// KOR_TEST_HOOK_<NAME> says: "R" returns R on every call, "R@N" returns R on
// the N-th call only (counted from 1) and 0 otherwise; unset returns 0.
// <NAME> is the hook name behind "kor_install_hook_" in upper case, or
// ACTIVATE_POST for kor_activate_hook_post.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "install/install.h"

namespace {

struct hook_state {
    const char* name;
    const char* env;
    int calls;
};

// Logs the call and returns the steered result.
int hook(hook_state& h, const char* format, ...) __attribute__((format(printf, 2, 3)));
int hook(hook_state& h, const char* format, ...)
{
    const char* path = std::getenv("KOR_TEST_HOOK_LOG");
    if (FILE* f = path ? std::fopen(path, "a") : nullptr) {
        std::fprintf(f, "%s ", h.name);
        va_list ap;
        va_start(ap, format);
        std::vfprintf(f, format, ap);
        va_end(ap);
        std::fputc('\n', f);
        std::fclose(f);
    }
    ++h.calls;
    const char* v = std::getenv(h.env);
    int result = 0, at = 0;
    int n = v ? std::sscanf(v, "%i@%i", &result, &at) : 0;
    return n < 1 || (n == 2 && at != h.calls) ? 0 : result;
}

unsigned setidx_of(const install_ctx* c) { return c ? c->setidx : 255u; }

}  // namespace

// One call counter per hook, named after the function.
#define HOOK(name, ...)                                                \
    static hook_state state{__func__, "KOR_TEST_HOOK_" name, 0};       \
    return hook(state, __VA_ARGS__)

extern "C" {

int kor_install_hook_hcfg_fail(install_ctx* c, hostconfig*, int load_result)
{
    HOOK("HCFG_FAIL", "%u %d", setidx_of(c), load_result);
}
int kor_install_hook_data_rcvd(install_ctx* c) { HOOK("DATA_RCVD", "%u", c ? c->received : 0u); }
int kor_install_hook_post_dl(install_ctx* c, hostconfig*, int curl_result, const char* error)
{
    HOOK("POST_DL", "%u %d %s", setidx_of(c), curl_result, error ? error : "");
}
int kor_install_hook_pre_metainstall(install_ctx* c, hostconfig*) { HOOK("PRE_METAINSTALL", "%u", setidx_of(c)); }
int kor_install_hook_pre_install(install_ctx* c, hostconfig*) { HOOK("PRE_INSTALL", "%u", setidx_of(c)); }
int kor_install_hook_post_write_out(install_ctx* c, hostconfig*) { HOOK("POST_WRITE_OUT", "%u", setidx_of(c)); }
int kor_install_hook_post_activate(install_ctx* c, hostconfig*) { HOOK("POST_ACTIVATE", "%u", setidx_of(c)); }
int kor_install_hook_on_failure(install_ctx* c, hostconfig*, int status)
{
    HOOK("ON_FAILURE", "%u %d", setidx_of(c), status);
}
int kor_activate_hook_post(korl_data* d, hostconfig*) { HOOK("ACTIVATE_POST", "%u", d ? d->actset : 255u); }

}
