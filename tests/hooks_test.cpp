// Hook resolution: a hook linked into the program is found, a plugin's
// functions are bound by name and win, a plugin that does not load changes
// nothing.
#include <gtest/gtest.h>
#include <syslog.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "install/install.h"
#include "support/sandbox.h"

// Linked in the way an integrator links a hook into kor.
extern "C" int kor_activate_hook_post(korl_data*, hostconfig*) { return 42; }

namespace {
#ifdef KOR_PLUGINS

using call_fn = int (*)(const kor_hooks&, install_ctx*, korl_data*);
#define CALL(expr) [](const kor_hooks& h, [[maybe_unused]] install_ctx* c, [[maybe_unused]] korl_data* d) { return expr; }
const struct {
    const char* env;    // KOR_TEST_HOOK_<env>, null value: unset
    const char* value;
    call_fn call;
    int result;
    const char* logged;
} kHookRows[] = {
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

TEST(Hooks, LinkedHookIsFoundThenPluginFunctionsWin)
{
    KOR_SANDBOX_OR_SKIP();
    sandbox::Device dev;
    const kor_hooks* h = kor_hooks_get();
    ASSERT_NE(h->activate_post, nullptr);
    EXPECT_EQ(h->activate_post(nullptr, nullptr), 42);
    EXPECT_EQ(h->install_post_write_out, nullptr);

    ASSERT_EQ(kor_plugin_load(KOR_PLUGIN_test_plugin), 0);
    std::string log = dev.workdir() + "/hooks.log", want;
    setenv("KOR_TEST_HOOK_LOG", log.c_str(), 1);
    install_ctx ctx{};
    ctx.setidx = 2, ctx.received = 1234;
    korl_data d{};
    d.actset = 1;
    for (const auto& row : kHookRows) {
        std::string var = std::string("KOR_TEST_HOOK_") + row.env;
        if (row.value) setenv(var.c_str(), row.value, 1);
        EXPECT_EQ(row.call(*kor_hooks_get(), &ctx, &d), row.result) << row.logged;
        unsetenv(var.c_str());
        want += std::string(row.logged) + "\n";
    }
    unsetenv("KOR_TEST_HOOK_LOG");
    EXPECT_EQ(dev.read_file(log), want);
}

TEST(Hooks, PluginThatDoesNotLoadChangesNothing)
{
    KOR_SANDBOX_OR_SKIP();
    sandbox::Device dev;
    std::string path = dev.workdir() + "/text.so";
    dev.write_file(path, "not a shared object\n");
    kor_hooks before = *kor_hooks_get();
    testing::internal::CaptureStderr();
    EXPECT_EQ(kor_plugin_load(path.c_str()), -1);
    std::string err = testing::internal::GetCapturedStderr();
    std::string prefix = "plugin: could not load " + path + ": ";
    EXPECT_EQ(err.compare(0, prefix.size(), prefix), 0) << err;
    EXPECT_EQ(err.back(), '\n');
    EXPECT_EQ(std::memcmp(&before, kor_hooks_get(), sizeof before), 0);
    std::vector<sandbox::LogLine> logged = dev.take_log();
    EXPECT_TRUE(std::any_of(logged.begin(), logged.end(), [&](const sandbox::LogLine& l) {
        return l.priority == LOG_ERR && l.text.find(prefix) != std::string::npos;
    }));
}

#else

// Such a build never calls a hook, not even one linked in.
TEST(Hooks, WithoutPluginSupportNoHookIsBound)
{
    KOR_SANDBOX_OR_SKIP();
    sandbox::Device dev;
    testing::internal::CaptureStderr();
    EXPECT_EQ(kor_plugin_load(KOR_PLUGIN_test_plugin), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "plugin support not enabled.\n");
    kor_hooks none{};
    EXPECT_EQ(std::memcmp(&none, kor_hooks_get(), sizeof none), 0);
}

#endif
}  // namespace
