// Optional install and activate hooks. An integrator links them into kor
// (they are weak references here, null when nobody defines them), or names
// a shared object with -plugin=, whose functions of the same names win.
// A build without plugin support never calls a hook.
#include <type_traits>

#include "base/console.h"
#include "install/install.h"

#ifdef KOR_PLUGINS
#include <dlfcn.h>

extern "C" {
int kor_install_hook_hcfg_fail(install_ctx*, hostconfig*, int) __attribute__((weak));
int kor_install_hook_data_rcvd(install_ctx*) __attribute__((weak));
int kor_install_hook_post_dl(install_ctx*, hostconfig*, int, const char*) __attribute__((weak));
int kor_install_hook_pre_metainstall(install_ctx*, hostconfig*) __attribute__((weak));
int kor_install_hook_pre_install(install_ctx*, hostconfig*) __attribute__((weak));
int kor_install_hook_post_write_out(install_ctx*, hostconfig*) __attribute__((weak));
int kor_install_hook_post_activate(install_ctx*, hostconfig*) __attribute__((weak));
int kor_install_hook_on_failure(install_ctx*, hostconfig*, int) __attribute__((weak));
int kor_activate_hook_post(korl_data*, hostconfig*) __attribute__((weak));
}

namespace {

// Stores a found function in its slot; a null one leaves the slot alone.
template <auto Slot>
void bind_hook(kor_hooks& h, void* fn)
{
    using fn_type = std::remove_reference_t<decltype(h.*Slot)>;
    if (fn != nullptr) h.*Slot = reinterpret_cast<fn_type>(fn);
}

struct hook_binding {
    const char* name;
    void* linked;
    void (*bind)(kor_hooks&, void*);
};

template <typename F>
void* address_of(F* fn)
{
    return reinterpret_cast<void*>(fn);
}

constexpr int HOOK_COUNT = 9;

const hook_binding* hook_table()
{
    static const hook_binding table[HOOK_COUNT] = {
        {"kor_install_hook_hcfg_fail", address_of(kor_install_hook_hcfg_fail),
         bind_hook<&kor_hooks::install_hcfg_fail>},
        {"kor_install_hook_data_rcvd", address_of(kor_install_hook_data_rcvd),
         bind_hook<&kor_hooks::install_data_rcvd>},
        {"kor_install_hook_post_dl", address_of(kor_install_hook_post_dl),
         bind_hook<&kor_hooks::install_post_dl>},
        {"kor_install_hook_pre_metainstall", address_of(kor_install_hook_pre_metainstall),
         bind_hook<&kor_hooks::install_pre_metainstall>},
        {"kor_install_hook_pre_install", address_of(kor_install_hook_pre_install),
         bind_hook<&kor_hooks::install_pre_install>},
        {"kor_install_hook_post_write_out", address_of(kor_install_hook_post_write_out),
         bind_hook<&kor_hooks::install_post_write_out>},
        {"kor_install_hook_post_activate", address_of(kor_install_hook_post_activate),
         bind_hook<&kor_hooks::install_post_activate>},
        {"kor_install_hook_on_failure", address_of(kor_install_hook_on_failure),
         bind_hook<&kor_hooks::install_on_failure>},
        {"kor_activate_hook_post", address_of(kor_activate_hook_post),
         bind_hook<&kor_hooks::activate_post>},
    };
    return table;
}

// The hooks in force, bound on first use: a plugin is loaded while the
// options are read, before any hook can be called, so one binding serves
// the whole run.
kor_hooks g_in_force;
bool g_bound = false;

void bind_all(void* const plugin_functions[HOOK_COUNT])
{
    g_in_force = kor_hooks{};
    const hook_binding* table = hook_table();
    for (int i = 0; i < HOOK_COUNT; ++i) {
        table[i].bind(g_in_force, table[i].linked);
        if (plugin_functions) table[i].bind(g_in_force, plugin_functions[i]);
    }
    g_bound = true;
}

}  // namespace

const kor_hooks* kor_hooks_get()
{
    if (!g_bound) bind_all(nullptr);
    return &g_in_force;
}

int kor_plugin_load(const char* path)
{
    KOR_ASSERT("kor", path != nullptr);
    // The object stays loaded for the rest of the run: its hooks are called
    // until the action ends.
    void* handle = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        const char* why = dlerror();
        log_console(LOG_ERR, "plugin: could not load %s: %s\n", path, why ? why : "");
        return -1;
    }
    const hook_binding* table = hook_table();
    void* plugin_functions[HOOK_COUNT];
    for (int i = 0; i < HOOK_COUNT; ++i) plugin_functions[i] = dlsym(handle, table[i].name);
    bind_all(plugin_functions);
    return 0;
}

#else

const kor_hooks* kor_hooks_get()
{
    static const kor_hooks none{};
    return &none;
}

int kor_plugin_load(const char*)
{
    log_console(LOG_ERR, "plugin support not enabled.\n");
    return -1;
}

#endif
