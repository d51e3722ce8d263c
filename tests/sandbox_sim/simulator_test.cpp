// The gateway simulator where pkgd's own tests do not reach it: catalog queries pkgd never sends
// (pkgd's identity tests cover the name filter), a configuration refused whole, and init scripts
// that fail or would lie outside the init directory. (A slow peer holding up no one else shows in
// the data-model tests, whose control calls go through while an answer is held.)
#include <gtest/gtest.h>

#include "gateway_client.hpp"

namespace {

using Replies = std::vector<std::string>;

constexpr std::string_view kCatalog = "Services.Management.LCM.ExecutionEnvironments";
constexpr std::string_view kSystemServices = "Services.Management.LCM.ExecutionEnvironments.System.Services";

sandbox::GatewayOptions sim_gateway() {
    auto options = gwtest::named_gateway();
    options.simulator = true;
    return options;
}

TEST(Simulator, CatalogAnswersOnlyEnvironmentsAndRefusesAMistakenConfigurationWhole) {
    const std::string with_id = R"({"id":"7","name":"lxc-a"})";
    auto options = sim_gateway();
    options.simulator_config = R"({"environments":[)" + with_id + R"(,{"id":"9"}]})";
    sandbox::Gateway gw(options);
    ASSERT_TRUE(gw.up()) << gw.error();
    gwtest::Client bus(gw);
    const std::tuple<std::string, int, Replies> cases[] = {
        {R"({"Type":"ExecutionEnvironment"})", 0, {with_id, R"({"id":"9"})"}},  // the nameless one too
        {R"({"Type":"ExecutionEnvironment","Filters":{"Name":"nosuch"}})", 0, {}},
        {R"({"Type":"DeploymentUnit"})", 0, {}},
        {R"({"Filters":{"Name":"lxc-a"}})", ubus::kInvalidArgument, {}},
    };
    for (const auto& [args, status, replies] : cases) {
        const gwtest::Reply r = bus.call(kCatalog, "catalog.get", args);
        EXPECT_EQ(std::pair(r.status, r.json), std::pair(status, replies)) << args;
    }
    EXPECT_TRUE(bus.has_object("Services.Management.LCM.ExecutionEnvironments.lxc-a.Services"));
    for (std::string_view bad :
         {R"({"environments":[{"id":"8"},{"enabled":"yes"}]})", R"({"environment":[]})"})
        EXPECT_FALSE(gw.sim_configure(bad)) << bad;
    EXPECT_EQ(bus.call(kCatalog, "catalog.get", R"({"Type":"ExecutionEnvironment"})").json.size(), 2u);
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
