// The simulated service manager: "operate" runs the environment's init scripts inside the gateway's
// root, and refuses script names that would reach outside the init directory.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "sim_client.hpp"

namespace sandbox_sim {
namespace {

namespace fs = std::filesystem;

// Each script appends its name and action to /tmp/marker, inside the root.
sandbox::GatewayOptions gateway_with_scripts() {
    auto options = sim_gateway();
    options.prepare = [](const fs::path& root) {
        write_script(root / "etc/init.d/alpha", R"(echo "alpha $1" >> /tmp/marker)");
        write_script(root / "etc/init.d/beta", R"(echo "beta $1" >> /tmp/marker)");
        write_script(root / "etc/init.d/broken", R"(echo "broken $1" >> /tmp/marker; exit 3)");
        // What "../x" would name.
        write_script(root / "etc/x", R"(echo "x $1" >> /tmp/marker)");
    };
    return options;
}

std::string marker(const sandbox::Gateway& gw) {
    std::ifstream in(gw.path("/tmp/marker"));
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::string operate(std::string_view operation, std::string_view names_json) {
    return R"({"Operation":")" + std::string(operation) + R"(","name":)" + std::string(names_json) + "}";
}

TEST(SimServices, OperateRunsEachInitScriptInsideTheRoot) {
    sandbox::Gateway gw(gateway_with_scripts());
    ASSERT_TRUE(gw.up()) << gw.error();
    SimClient bus(gw);
    EXPECT_EQ(bus.call(kSystemServices, "operate", operate("start", R"(["alpha","beta"])")).status, 0);
    EXPECT_EQ(bus.call(kSystemServices, "operate", operate("stop", R"(["beta"])")).status, 0);
    // No names: nothing to do, which succeeds (an environment package without its script).
    EXPECT_EQ(bus.call(kSystemServices, "operate", R"({"Operation":"start"})").status, 0);
    EXPECT_EQ(marker(gw), "alpha start\nbeta start\nbeta stop\n");

    // A failing script fails the request; the others still run.
    EXPECT_EQ(bus.call(kSystemServices, "operate", operate("stop", R"(["broken","alpha"])")).status,
              ubus::kUnknownError);
    EXPECT_EQ(marker(gw), "alpha start\nbeta start\nbeta stop\nbroken stop\nalpha stop\n");
}

TEST(SimServices, OperateRunsNothingForANameOutsideTheInitDirectory) {
    sandbox::Gateway gw(gateway_with_scripts());
    ASSERT_TRUE(gw.up()) << gw.error();
    SimClient bus(gw);
    for (std::string_view names :
         {R"(["../x"])", R"(["alpha","../x"])", R"(["init.d/alpha"])", R"([".."])", R"([""])", R"([7])"}) {
        EXPECT_EQ(bus.call(kSystemServices, "operate", operate("start", names)).status,
                  ubus::kInvalidArgument)
            << names;
    }
    EXPECT_EQ(bus.call(kSystemServices, "operate", operate("start", R"(["alpha","nosuch"])")).status,
              ubus::kNotFound);
    EXPECT_EQ(bus.call(kSystemServices, "operate", operate("restart", R"(["alpha"])")).status,
              ubus::kInvalidArgument);
    EXPECT_EQ(marker(gw), "");
}

}  // namespace
}  // namespace sandbox_sim
