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

hook_state hcfg_fail{"kor_install_hook_hcfg_fail", "KOR_TEST_HOOK_HCFG_FAIL", 0};
hook_state data_rcvd{"kor_install_hook_data_rcvd", "KOR_TEST_HOOK_DATA_RCVD", 0};
hook_state post_dl{"kor_install_hook_post_dl", "KOR_TEST_HOOK_POST_DL", 0};
hook_state pre_metainstall{"kor_install_hook_pre_metainstall", "KOR_TEST_HOOK_PRE_METAINSTALL", 0};
hook_state pre_install{"kor_install_hook_pre_install", "KOR_TEST_HOOK_PRE_INSTALL", 0};
hook_state post_write_out{"kor_install_hook_post_write_out", "KOR_TEST_HOOK_POST_WRITE_OUT", 0};
hook_state post_activate{"kor_install_hook_post_activate", "KOR_TEST_HOOK_POST_ACTIVATE", 0};
hook_state on_failure{"kor_install_hook_on_failure", "KOR_TEST_HOOK_ON_FAILURE", 0};
hook_state activate_post{"kor_activate_hook_post", "KOR_TEST_HOOK_ACTIVATE_POST", 0};

int result_for(hook_state& h)
{
    ++h.calls;
    const char* v = std::getenv(h.env);
    int result = 0;
    int at = 0;
    int n = v ? std::sscanf(v, "%i@%i", &result, &at) : 0;
    if (n < 1 || (n == 2 && at != h.calls)) return 0;
    return result;
}

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
    return result_for(h);
}

unsigned setidx_of(const install_ctx* c) { return c ? c->setidx : 255u; }

}  // namespace

extern "C" {

int kor_install_hook_hcfg_fail(install_ctx* c, hostconfig*, int load_result)
{
    return hook(hcfg_fail, "%u %d", setidx_of(c), load_result);
}
int kor_install_hook_data_rcvd(install_ctx* c)
{
    return hook(data_rcvd, "%u", c ? c->received : 0u);
}
int kor_install_hook_post_dl(install_ctx* c, hostconfig*, int curl_result, const char* error)
{
    return hook(post_dl, "%u %d %s", setidx_of(c), curl_result, error ? error : "");
}
int kor_install_hook_pre_metainstall(install_ctx* c, hostconfig*)
{
    return hook(pre_metainstall, "%u", setidx_of(c));
}
int kor_install_hook_pre_install(install_ctx* c, hostconfig*)
{
    return hook(pre_install, "%u", setidx_of(c));
}
int kor_install_hook_post_write_out(install_ctx* c, hostconfig*)
{
    return hook(post_write_out, "%u", setidx_of(c));
}
int kor_install_hook_post_activate(install_ctx* c, hostconfig*)
{
    return hook(post_activate, "%u", setidx_of(c));
}
int kor_install_hook_on_failure(install_ctx* c, hostconfig*, int status)
{
    return hook(on_failure, "%u %d", setidx_of(c), status);
}
int kor_activate_hook_post(korl_data* d, hostconfig*)
{
    return hook(activate_post, "%u", d ? d->actset : 255u);
}

}
