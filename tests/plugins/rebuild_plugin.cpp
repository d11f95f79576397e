// Test plugin: repairs a hostconfig that failed to load the way an
// integrator would, with the rebuild that kor exports for this hook.
#include <dlfcn.h>

#include "hostconfig/hostconfig.h"
#include "install/install.h"

extern "C" int kor_install_hook_hcfg_fail(install_ctx* ctx, hostconfig* hc, int)
{
    // Looked up when called: only the kor binary exports it.
    using rebuild_fn = int (*)(kor_options*, korl_data*, hostconfig*);
    auto rebuild = reinterpret_cast<rebuild_fn>(dlsym(RTLD_DEFAULT, "rebuild_hostcfg"));
    if (!rebuild) return 42;
    return rebuild(ctx->options, ctx->data, hc) == 1 ? 0 : 43;
}
