// Test plugin: defines every hook. Each call appends "<hook> <args>" to the
// file named by KOR_TEST_HOOK_LOG (when set) and returns what
// KOR_TEST_HOOK_<NAME> says: "R" returns R on every call, "R@N" returns R on
// the N-th call only (counted from 1) and 0 otherwise; unset returns 0.
// <NAME> is the hook name behind "kor_install_hook_" in upper case, or
// ACTIVATE_POST for kor_activate_hook_post.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "install/install.h"

namespace {

struct hook_state {
    const char* env;
    int calls;
};

int result_for(hook_state& h)
{
    ++h.calls;
    const char* v = std::getenv(h.env);
    if (v == nullptr) return 0;
    int result = 0;
    int at = 0;
    int n = std::sscanf(v, "%i@%i", &result, &at);
    if (n == 2 && at != h.calls) return 0;
    return n >= 1 ? result : 0;
}

void record(const char* format, ...) __attribute__((format(printf, 1, 2)));
void record(const char* format, ...)
{
    const char* path = std::getenv("KOR_TEST_HOOK_LOG");
    if (path == nullptr) return;
    FILE* f = std::fopen(path, "a");
    if (f == nullptr) return;
    va_list ap;
    va_start(ap, format);
    std::vfprintf(f, format, ap);
    va_end(ap);
    std::fputc('\n', f);
    std::fclose(f);
}

hook_state hcfg_fail{"KOR_TEST_HOOK_HCFG_FAIL", 0};
hook_state data_rcvd{"KOR_TEST_HOOK_DATA_RCVD", 0};
hook_state post_dl{"KOR_TEST_HOOK_POST_DL", 0};
hook_state pre_metainstall{"KOR_TEST_HOOK_PRE_METAINSTALL", 0};
hook_state pre_install{"KOR_TEST_HOOK_PRE_INSTALL", 0};
hook_state post_write_out{"KOR_TEST_HOOK_POST_WRITE_OUT", 0};
hook_state post_activate{"KOR_TEST_HOOK_POST_ACTIVATE", 0};
hook_state on_failure{"KOR_TEST_HOOK_ON_FAILURE", 0};
hook_state activate_post{"KOR_TEST_HOOK_ACTIVATE_POST", 0};

unsigned setidx_of(const install_ctx* ctx) { return ctx ? ctx->setidx : 255u; }

}  // namespace

extern "C" {

int kor_install_hook_hcfg_fail(install_ctx* ctx, hostconfig*, int load_result)
{
    record("kor_install_hook_hcfg_fail %u %d", setidx_of(ctx), load_result);
    return result_for(hcfg_fail);
}

int kor_install_hook_data_rcvd(install_ctx* ctx)
{
    record("kor_install_hook_data_rcvd %u", ctx ? ctx->received : 0u);
    return result_for(data_rcvd);
}

int kor_install_hook_post_dl(install_ctx* ctx, hostconfig*, int curl_result, const char* error)
{
    record("kor_install_hook_post_dl %u %d %s", setidx_of(ctx), curl_result, error ? error : "");
    return result_for(post_dl);
}

int kor_install_hook_pre_metainstall(install_ctx* ctx, hostconfig*)
{
    record("kor_install_hook_pre_metainstall %u", setidx_of(ctx));
    return result_for(pre_metainstall);
}

int kor_install_hook_pre_install(install_ctx* ctx, hostconfig*)
{
    record("kor_install_hook_pre_install %u", setidx_of(ctx));
    return result_for(pre_install);
}

int kor_install_hook_post_write_out(install_ctx* ctx, hostconfig*)
{
    record("kor_install_hook_post_write_out %u", setidx_of(ctx));
    return result_for(post_write_out);
}

int kor_install_hook_post_activate(install_ctx* ctx, hostconfig*)
{
    record("kor_install_hook_post_activate %u", setidx_of(ctx));
    return result_for(post_activate);
}

int kor_install_hook_on_failure(install_ctx* ctx, hostconfig*, int status)
{
    record("kor_install_hook_on_failure %u %d", setidx_of(ctx), status);
    return result_for(on_failure);
}

int kor_activate_hook_post(korl_data* d, hostconfig*)
{
    record("kor_activate_hook_post %u", d ? d->actset : 255u);
    return result_for(activate_post);
}

}
