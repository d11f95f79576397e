// Hook resolution: a hook linked into the program is found, a plugin's functions
// are bound by name and win, a plugin that does not load changes nothing.
#include <syslog.h>

#include <cstdlib>
#include <cstring>

#include "install/install.h"
#include "support/sandbox.h"

// Linked in the way an integrator links a hook into kor.
extern "C" int kor_activate_hook_post(korl_data*, hostconfig*) { return 42; }

TEST(Hooks, LinkedHookIsFoundThenPluginFunctionsWin)
{
    KOR_SANDBOX_OR_SKIP();
    sandbox::Device dev;
    kor_hooks before = *kor_hooks_get();
    std::string bad = dev.workdir() + "/text.so", prefix = "plugin: could not load " + bad + ": ";
    dev.write_file(bad, "not a shared object\n");
    testing::internal::CaptureStderr();
    EXPECT_EQ(kor_plugin_load(bad.c_str()), -1);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(std::memcmp(&before, kor_hooks_get(), sizeof before), 0);
#ifndef KOR_PLUGINS  // such a build never calls a hook, not even one linked in
    EXPECT_EQ(err, "plugin support not enabled.\n");
    static const kor_hooks none{};
    EXPECT_EQ(std::memcmp(&none, &before, sizeof none), 0);
#else
    EXPECT_TRUE(err.rfind(prefix, 0) == 0 && err.back() == '\n') << err;
    auto logged = dev.take_log();
    EXPECT_TRUE(logged.size() == 1 && logged[0].priority == LOG_ERR && logged[0].text.find(prefix) != std::string::npos);
    EXPECT_EQ(before.activate_post(nullptr, nullptr), 42);
    EXPECT_EQ(before.install_post_write_out, nullptr);

    ASSERT_EQ(kor_plugin_load(KOR_PLUGIN_test_plugin), 0);
#define CALL(expr) [](const kor_hooks& h, [[maybe_unused]] install_ctx* c, [[maybe_unused]] korl_data* d) { return expr; }
    using call_fn = int (*)(const kor_hooks&, install_ctx*, korl_data*);
    const struct { const char *env, *value; call_fn call; int result; const char* logged; } rows[] = {
        // KOR_TEST_HOOK_<env>=value (null: unset), then the hook's result and its logged line
        {"HCFG_FAIL", "3", CALL(h.install_hcfg_fail(c, nullptr, -1)), 3, "kor_install_hook_hcfg_fail 2 -1"},
        {"DATA_RCVD", "5@2", CALL(h.install_data_rcvd(c)), 0, "kor_install_hook_data_rcvd 1234"},
        {"DATA_RCVD", "5@2", CALL(h.install_data_rcvd(c)), 5, "kor_install_hook_data_rcvd 1234"},
        {"POST_DL", "0", CALL(h.install_post_dl(c, nullptr, 28, "timed out")), 0, "kor_install_hook_post_dl 2 28 timed out"},
        {"PRE_METAINSTALL", "9", CALL(h.install_pre_metainstall(c, nullptr)), 9, "kor_install_hook_pre_metainstall 2"},
        {"PRE_INSTALL", nullptr, CALL(h.install_pre_install(c, nullptr)), 0, "kor_install_hook_pre_install 2"},
        {"POST_WRITE_OUT", "3", CALL(h.install_post_write_out(c, nullptr)), 3, "kor_install_hook_post_write_out 2"},
        {"POST_ACTIVATE", "-1", CALL(h.install_post_activate(c, nullptr)), -1, "kor_install_hook_post_activate 2"},
        {"ON_FAILURE", "0x10", CALL(h.install_on_failure(c, nullptr, 3)), 16, "kor_install_hook_on_failure 2 3"},
        {"ACTIVATE_POST", "0", CALL(h.activate_post(d, nullptr)), 0, "kor_activate_hook_post 1"},
    };
    std::string log = dev.workdir() + "/hooks.log", want;
    setenv("KOR_TEST_HOOK_LOG", log.c_str(), 1);
    for (const auto& r : rows)
        if (r.value) setenv(("KOR_TEST_HOOK_" + std::string(r.env)).c_str(), r.value, 1);
    install_ctx ctx{};
    korl_data d{};
    ctx.setidx = 2, ctx.received = 1234, d.actset = 1;
    for (const auto& r : rows) {
        EXPECT_EQ(r.call(*kor_hooks_get(), &ctx, &d), r.result) << r.logged;
        want += std::string(r.logged) + "\n";
    }
    EXPECT_EQ(dev.read_file(log), want);
#endif
}
