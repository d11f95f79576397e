// A hostconfig that cannot be loaded is rebuilt during an install by a
// plugin's hostconfig-failure hook; without such a hook the install stops.
#include <gtest/gtest.h>

#include <string>

#include "hostconfig/hostconfig.h"
#include "mkvelk.h"
#include "support/sandbox.h"

using sandbox::Device;

TEST(RebuildInstall, HookRebuildsTheHostconfig)
{
    KOR_SANDBOX_OR_SKIP();
    Device d;
    d.with_default_layout();
    // Both copies load as images but carry no "KOR data": the load fails.
    hostconfig hc;
    ASSERT_EQ(hostconfig_new(&hc, HOSTCONFIG_MAX), 1);
    ASSERT_EQ(hostconfig_add_body(&hc, "alpha", 5, "A"), 1);
    ASSERT_EQ(hostconfig_save(&hc, Device::part(3).c_str(), Device::part(4).c_str()), 1);
    // The integrator's default hostconfig file, with the default layout.
    d.write_file("/mnt/appl/.keep", "");
    ASSERT_EQ(hostconfig_new(&hc, HOSTCONFIG_MAX), 1);
    ASSERT_EQ(hostconfig_default(&hc), 1);
    ASSERT_EQ(hostconfig_save(&hc, HOSTCONFIG_DEFAULT_FILE, nullptr), 1);

    const auto img = mkvelk::build_image(
        {mkvelk::release_header(1, 0, 1, 0, "b1", "products=dev1\n"),
         mkvelk::korm("2,KNLS,0,-,-,-,1.0.1,1\n"),
         mkvelk::software("kernel", 1, 0, 1, "k1", sandbox::bytes(1000, 0x5A))});
    const std::string path = d.workdir() + "/img.velk";
    d.write_file(path, std::string(img.begin(), img.end()));

    auto r = d.kor({"install", path, "1"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("install: hostcfg loading failed.\n"
                         "rebuild_hostcfg: Not supported by this platform\n"),
              std::string::npos)
        << r.err;

    r = d.kor({"install", path, "1", "-plugin=" + d.stage(KOR_PLUGIN_rebuild_plugin)});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.err.find("rebuild_hostcfg: Using /mnt/appl/hostcfg.default as initial hostconfig\n"),
              std::string::npos)
        << r.err;
    r = d.kor({"getpartset", "1", "-pif=pidx,pool,len_dec"});
    EXPECT_EQ(r.out, "11,KNLS,1000\n") << "the install went on with the rebuilt table and saved it";
}
