// Hook resolution (linked in, then bound by name from a plugin; a bad plugin changes nothing) and a plugin's
// hostconfig rebuild.
#include <syslog.h>

#include <cstdlib>
#include <cstring>

#include "hostconfig/hostconfig.h"
#include "install/install.h"
#include "mkvelk.h"
#include "support/sandbox.h"

extern "C" int kor_activate_hook_post(korl_data*, hostconfig*) { return 42; }  // as an integrator links one in

TEST(Hooks, LinkedHookIsFoundThenPluginFunctionsWinThenAPluginRebuildsTheHostconfig)
{
    KOR_SANDBOX_OR_SKIP();
    sandbox::Device dev;
    const kor_hooks before = *kor_hooks_get(), none{};
    const std::string bad = dev.workdir() + "/text.so", log = dev.workdir() + "/hooks.log";
    dev.write_file(bad, "not a shared object\n");
    testing::internal::CaptureStderr();
    EXPECT_EQ(kor_plugin_load(bad.c_str()), -1);
    const std::string err = testing::internal::GetCapturedStderr(), prefix = "plugin: could not load " + bad + ": ";
    EXPECT_EQ(std::memcmp(&before, kor_hooks_get(), sizeof before), 0);  // a bad plugin changes nothing
#ifndef KOR_PLUGINS  // such a build never calls a hook, not even one linked in
    EXPECT_EQ(err, "plugin support not enabled.\n");
    EXPECT_EQ(std::memcmp(&none, &before, sizeof none), 0);
#else
    EXPECT_EQ(err.rfind(prefix, 0), 0u) << err;
    EXPECT_EQ(err.back(), '\n');
    const auto logged = dev.take_log();
    ASSERT_EQ(logged.size(), 1u);
    EXPECT_EQ(logged[0].priority, LOG_ERR);
    EXPECT_NE(logged[0].text.find(prefix), std::string::npos) << logged[0].text;
    EXPECT_EQ(before.activate_post(nullptr, nullptr), 42);  // the one linked in above
    EXPECT_EQ(before.install_post_write_out, none.install_post_write_out);
    ASSERT_EQ(kor_plugin_load(KOR_PLUGIN_test_plugin), 0);
    ASSERT_EQ(setenv("KOR_TEST_HOOK_LOG", log.c_str(), 1), 0);
    install_ctx c{};
    korl_data d{};
    c.setidx = 2;
    c.received = 1234;
    d.actset = 1;
    const kor_hooks& h = *kor_hooks_get();  // each bound to the function of its name, which logs its arguments
    h.install_hcfg_fail(&c, nullptr, -1);
    h.install_data_rcvd(&c);
    h.install_post_dl(&c, nullptr, 28, "timed out");
    h.install_pre_metainstall(&c, nullptr);
    h.install_pre_install(&c, nullptr);
    h.install_post_write_out(&c, nullptr);
    h.install_post_activate(&c, nullptr);
    h.install_on_failure(&c, nullptr, 3);
    h.activate_post(&d, nullptr);
    EXPECT_EQ(dev.read_file(log),
              "kor_install_hook_hcfg_fail 2 -1\n"
              "kor_install_hook_data_rcvd 1234\n"
              "kor_install_hook_post_dl 2 28 timed out\n"
              "kor_install_hook_pre_metainstall 2\n"
              "kor_install_hook_pre_install 2\n"
              "kor_install_hook_post_write_out 2\n"
              "kor_install_hook_post_activate 2\n"
              "kor_install_hook_on_failure 2 3\n"
              "kor_activate_hook_post 1\n");
#endif
    // Both hostconfig copies lack "KOR data": only a plugin's rebuild lets the install go on.
    dev.with_default_layout();
    dev.write_file("/mnt/appl/.keep", "");
    static hostconfig hc;
    ASSERT_EQ(hostconfig_new(&hc, HOSTCONFIG_MAX), 1);
    ASSERT_EQ(hostconfig_add_body(&hc, "alpha", 5, "A"), 1);
    ASSERT_EQ(hostconfig_save(&hc, sandbox::Device::part(3).c_str(), sandbox::Device::part(4).c_str()), 1);
    ASSERT_EQ(hostconfig_new(&hc, HOSTCONFIG_MAX), 1);
    ASSERT_EQ(hostconfig_default(&hc), 1);
    ASSERT_EQ(hostconfig_save(&hc, HOSTCONFIG_DEFAULT_FILE, nullptr), 1);
    const auto img = mkvelk::build_image({mkvelk::release_header(1, 0, 1, 0, "b1", "products=dev1\n"),
                                          mkvelk::korm("2,KNLS,0,-,-,-,1.0.1,1\n"),
                                          mkvelk::software("kernel", 1, 0, 1, "k1", sandbox::bytes(1000, 0x5A))});
    const std::string path = dev.workdir() + "/img.velk",
                      failed = "korl_hostconfig_import failed.\ninstall: hostcfg loading failed.\n",
                      rebuilt = failed + "rebuild_hostcfg: Using /mnt/appl/hostcfg.default as initial hostconfig\n";
    dev.write_file(path, std::string(img.begin(), img.end()));
    const auto without = dev.kor({"install", path, "1"});
    EXPECT_EQ(without.status, 1);
    EXPECT_EQ(without.err, failed + "rebuild_hostcfg: Not supported by this platform\n");
    const auto with = dev.kor({"install", path, "1", "-plugin=" + dev.stage(KOR_PLUGIN_rebuild_plugin)});
    EXPECT_EQ(with.status, 0);
    EXPECT_EQ(with.err.rfind(rebuilt, 0), 0u) << with.err;
    EXPECT_EQ(dev.kor({"getpartset", "1", "-pif=pidx,pool,len_dec"}).out, "11,KNLS,1000\n")
        << "the rebuilt table was saved";
}
