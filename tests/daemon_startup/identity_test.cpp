// Which execution environment pkgd serves, as the gateway's LCM catalog (the simulator) tells it:
// seen in the names of its objects, its working directory and the environment's "Get". (How the
// catalog's replies are read is a unit test of the store.)
#include <gtest/gtest.h>

#include "gateway_client.hpp"

namespace {

constexpr std::string_view kEnvPrefix = "Services.Management.LCM.ExecutionEnvironments.";

TEST(Identity, TheCatalogNamesTheEnvironmentPkgdServes) {
    auto options = gwtest::named_gateway();
    options.simulator = true;
    options.pkgd = true;
    options.pkgd_env = {"EXECENV_INDEX=lxc-a"};
    options.simulator_config =
        R"({"environments":[{"id":"7","name":"lxc-a","enabled":true,"version":"2.0","vendor":"Acme","type":"LXC"}]})";
    sandbox::Gateway gw(options);
    ASSERT_TRUE(gw.up()) << gw.error();
    gwtest::Client probe(gw);
    ASSERT_TRUE(probe.wait_for_object(std::string(kEnvPrefix) + "7"));
    EXPECT_TRUE(probe.call(std::string(kEnvPrefix) + "7", "Get")
                    .first()
                    .starts_with(R"({"Header":{"Name":"OK"},"Body":{"Id":"7","Name":"lxc-a","Enabled":true,)"
                                 R"("Version":"2.0","Vendor":"Acme","Type":"LXC","Resources":)"));
    EXPECT_TRUE(probe.has_object(std::string(kEnvPrefix) + "7.Packages"));
    EXPECT_TRUE(probe.has_object("SoftwareModules.Package.7"));
    EXPECT_TRUE(std::filesystem::is_directory(gw.path("/tmp/opkg-7")));
    EXPECT_EQ(gwtest::sim_requests(gw, "catalog"),
              std::vector<std::string>{
                  R"(catalog.get {"Type":"ExecutionEnvironment","Filters":{"Name":"lxc-a"}})"});
}

}  // namespace
