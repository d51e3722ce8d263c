// The gateway simulator where pkgd's own tests do not reach it: init scripts that fail or would lie
// outside the init directory. (Its catalog answers what pkgd asks in pkgd's identity tests.)
#include <gtest/gtest.h>

#include "gateway_client.hpp"

namespace {

constexpr std::string_view kSystemServices = "Services.Management.LCM.ExecutionEnvironments.System.Services";

sandbox::GatewayOptions sim_gateway() {
    auto options = gwtest::named_gateway();
    options.simulator = true;
    return options;
}

TEST(Simulator, ServiceManagerRunsInitScriptsInsideTheRootAndNothingOutsideIt) {
    auto options = sim_gateway();
    options.prepare = [](const std::filesystem::path& root) {
        for (const char* name : {"alpha", "beta"})
            gwtest::write_script(root / "etc/init.d" / name,
                                 std::string("echo \"") + name + " $1\" >> /tmp/marker");
        gwtest::write_script(root / "etc/init.d/broken", R"(echo "broken $1" >> /tmp/marker; exit 3)");
        gwtest::write_script(root / "etc/x", R"(echo "x $1" >> /tmp/marker)");  // what "../x" would name
    };
    sandbox::Gateway gw(options);
    ASSERT_TRUE(gw.up()) << gw.error();
    gwtest::Client bus(gw);
    const auto operate = [&](std::string_view operation, std::string_view names) {
        const std::string args =
            R"({"Operation":")" + std::string(operation) + R"(","name":)" + std::string(names) + "}";
        return bus.call(kSystemServices, "operate", args).status;
    };
    for (std::string_view names :
         {R"(["../x"])", R"(["alpha","../x"])", R"(["init.d/alpha"])", R"([".."])", R"([""])", R"([7])"})
        EXPECT_EQ(operate("start", names), ubus::kInvalidArgument) << names;
    EXPECT_EQ(operate("start", R"(["alpha","nosuch"])"), ubus::kNotFound);
    EXPECT_EQ(operate("restart", R"(["alpha"])"), ubus::kInvalidArgument);
    EXPECT_EQ(gwtest::read_text(gw.path("/tmp/marker")), "");
    // A failing script fails the request; the others still run.
    EXPECT_EQ(operate("stop", R"(["broken","alpha","beta"])"), ubus::kUnknownError);
    EXPECT_EQ(gwtest::read_text(gw.path("/tmp/marker")), "broken stop\nalpha stop\nbeta stop\n");
}

}  // namespace
