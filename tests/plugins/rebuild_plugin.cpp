// Test plugin: repairs a hostconfig that failed to load as an integrator would, with the rebuild
// that kor exports for this hook (looked up when called: only the kor binary exports it).
#include <dlfcn.h>

#include "install/install.h"

extern "C" int kor_install_hook_hcfg_fail(install_ctx* ctx, hostconfig* hc, int)
{
    auto rebuild = reinterpret_cast<int (*)(kor_options*, korl_data*, hostconfig*)>(dlsym(RTLD_DEFAULT, "rebuild_hostcfg"));
    return !rebuild ? 42 : rebuild(ctx->options, ctx->data, hc) == 1 ? 0 : 43;
}
