// Test plugin defining every hook. Each call appends "<function> <args>" to the file named by
// KOR_TEST_HOOK_LOG (when set) and returns the number in KOR_TEST_HOOK_<NAME> (0 when unset), <NAME>
// being the hook name behind "kor_install_hook_" in upper case, or ACTIVATE_POST.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "install/install.h"

__attribute__((format(printf, 3, 4))) static int hook(const char* name, const char* env, const char* format, ...)
{
    const char* path = std::getenv("KOR_TEST_HOOK_LOG");
    if (FILE* f = path ? std::fopen(path, "a") : nullptr) {
        va_list ap;
        va_start(ap, format);
        std::fprintf(f, "%s ", name), std::vfprintf(f, format, ap), std::fputc('\n', f);
        va_end(ap);
        std::fclose(f);
    }
    const char* v = std::getenv(env);
    return v ? int(std::strtol(v, nullptr, 0)) : 0;
}

static unsigned set_of(const install_ctx* c) { return c ? c->setidx : 255u; }

#define HOOK(name, ...) return hook(__func__, "KOR_TEST_HOOK_" name, __VA_ARGS__)

extern "C" {
int kor_install_hook_hcfg_fail(install_ctx* c, hostconfig*, int r) { HOOK("HCFG_FAIL", "%u %d", set_of(c), r); }
int kor_install_hook_data_rcvd(install_ctx* c) { HOOK("DATA_RCVD", "%u", c ? c->received : 0u); }
int kor_install_hook_post_dl(install_ctx* c, hostconfig*, int r, const char* e) { HOOK("POST_DL", "%u %d %s", set_of(c), r, e ? e : ""); }
int kor_install_hook_pre_metainstall(install_ctx* c, hostconfig*) { HOOK("PRE_METAINSTALL", "%u", set_of(c)); }
int kor_install_hook_pre_install(install_ctx* c, hostconfig*) { HOOK("PRE_INSTALL", "%u", set_of(c)); }
int kor_install_hook_post_write_out(install_ctx* c, hostconfig*) { HOOK("POST_WRITE_OUT", "%u", set_of(c)); }
int kor_install_hook_post_activate(install_ctx* c, hostconfig*) { HOOK("POST_ACTIVATE", "%u", set_of(c)); }
int kor_install_hook_on_failure(install_ctx* c, hostconfig*, int status) { HOOK("ON_FAILURE", "%u %d", set_of(c), status); }
int kor_activate_hook_post(korl_data* d, hostconfig*) { HOOK("ACTIVATE_POST", "%u", d ? d->actset : 255u); }
}
