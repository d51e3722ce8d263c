// Which execution environment pkgd serves, as the gateway's LCM catalog (the simulator) tells it:
// seen in the names of its objects, its working directory and the environment's "Get".
#include <gtest/gtest.h>

#include <memory>

#include "gateway_client.hpp"

namespace {

namespace fs = std::filesystem;

constexpr std::string_view kEnvPrefix = "Services.Management.LCM.ExecutionEnvironments.";
constexpr auto kStartUp = std::chrono::seconds(20);  // start-up may wait out the catalog's 5 s

// A gateway whose simulator holds `environments` (JSON; default: "System") with a catalog fault,
// and whose pkgd gets `env` as EXECENV_INDEX.
std::unique_ptr<sandbox::Gateway> catalog_gateway(const std::string& env, const std::string& environments,
                                                  const std::string& fault = "") {
    auto options = gwtest::named_gateway();
    options.simulator = true;
    options.pkgd = true;
    if (!env.empty()) options.pkgd_env = {"EXECENV_INDEX=" + env};
    if (!environments.empty()) options.simulator_config = R"({"environments":[)" + environments + "]}";
    if (!fault.empty()) options.simulator_faults = {"catalog=" + fault};
    return std::make_unique<sandbox::Gateway>(options);
}

// The environment's "Get" reply up to its figures.
std::string identity(gwtest::Client& probe, std::string_view id) {
    const std::string json = probe.call(std::string(kEnvPrefix).append(id), "Get").first();
    return json.substr(0, json.find(R"(,"Resources":)"));
}

std::string get_body(std::string_view id, std::string_view name, std::string_view rest) {
    return R"({"Header":{"Name":"OK"},"Body":{"Id":")" + std::string(id) + R"(","Name":")" +
           std::string(name) + R"(",)" + std::string(rest);
}

TEST(Identity, TheCatalogNamesTheIdentifierElseTheVariableElseOneWhenItCannotBeAsked) {
    const std::string lxc_a =
        R"({"id":"7","name":"lxc-a","enabled":true,"version":"2.0","vendor":"Acme","type":"LXC"})";
    const std::string unknown = R"("Enabled":false,"Version":"","Vendor":"","Type":"")";
    // The name is the variable's ("System" without it); `asked`: the catalog got a request for it.
    struct Case {
        std::string env, environments, fault, id, identity;
        bool asked;
    };
    const Case cases[] = {
        {"", "", "", "System", unknown, false},
        {"lxc-a", lxc_a, "", "7", R"("Enabled":true,"Version":"2.0","Vendor":"Acme","Type":"LXC")", true},
        {"lxc-b", R"({"name":"lxc-b","version":"1.0"})", "", "lxc-b",
         R"("Enabled":false,"Version":"1.0","Vendor":"","Type":"")", true},
        {"lxc-a", lxc_a, "absent", "1", unknown, false},
        // The slow catalog was asked; its late answer changed nothing.
        {"lxc-a", lxc_a, "slow:6000", "1", unknown, true},
    };
    std::vector<std::unique_ptr<sandbox::Gateway>> gateways;  // all up at once: start-ups overlap
    for (const Case& c : cases) gateways.push_back(catalog_gateway(c.env, c.environments, c.fault));
    for (std::size_t i = 0; i < std::size(cases); ++i) {
        const Case& c = cases[i];
        const sandbox::Gateway& gw = *gateways[i];
        SCOPED_TRACE(c.env + " " + c.fault);
        ASSERT_TRUE(gw.up()) << gw.error();
        gwtest::Client probe(gw);
        ASSERT_TRUE(probe.wait_for_object(std::string(kEnvPrefix) + c.id, kStartUp));
        EXPECT_EQ(identity(probe, c.id), get_body(c.id, c.env.empty() ? "System" : c.env, c.identity));
        EXPECT_TRUE(probe.has_object(std::string(kEnvPrefix) + c.id + ".Packages"));
        EXPECT_TRUE(probe.has_object("SoftwareModules.Package." + c.id));
        EXPECT_TRUE(fs::is_directory(gw.path("/tmp/opkg-" + c.id)));
        std::vector<std::string> requests;
        if (c.asked)
            requests.push_back(R"(catalog.get {"Type":"ExecutionEnvironment","Filters":{"Name":")" + c.env +
                               "\"}}");
        EXPECT_EQ(gwtest::sim_requests(gw, "catalog"), requests);
    }
}

TEST(Identity, OverLongTextsAreCutWhereTheyAreKept) {
    const std::string name(300, 'n');
    const std::string id(300, 'i');
    const auto long_texts =
        catalog_gateway(name, R"({"id":"8","name":")" + name + R"(","version":")" + std::string(100, 'v') +
                                  R"(","vendor":")" + std::string(300, 'w') + R"(","type":")" +
                                  std::string(300, 't') + R"("})");
    const auto long_id = catalog_gateway("lxc-c", R"({"id":")" + id + R"(","name":"lxc-c"})");
    ASSERT_TRUE(long_texts->up()) << long_texts->error();
    ASSERT_TRUE(long_id->up()) << long_id->error();

    gwtest::Client texts(*long_texts);
    ASSERT_TRUE(texts.wait_for_object(std::string(kEnvPrefix) + "8", kStartUp));
    EXPECT_EQ(identity(texts, "8"),
              get_body("8", name.substr(0, 255),
                       R"("Enabled":false,"Version":")" + std::string(63, 'v') + R"(","Vendor":")" +
                           std::string(255, 'w') + R"(","Type":")" + std::string(255, 't') + "\""));

    // The identifier (255 characters kept) is cut again to each name's own buffer: the Packages
    // object's name to 255 characters, the package-operation object's to 63, the directory's to 255.
    gwtest::Client ids(*long_id);
    const std::string packages = std::string(kEnvPrefix) + id.substr(0, 255 - kEnvPrefix.size());
    ASSERT_TRUE(ids.wait_for_object("SoftwareModules.Package." + id.substr(0, 39), kStartUp));
    EXPECT_TRUE(ids.has_object(packages));
    EXPECT_TRUE(fs::is_directory(long_id->path("/tmp/opkg-" + id.substr(0, 245))));
    // That cut name is also the environment object's, which is refused: pkgd serves on without it
    // (an answer from its own handler means its loop runs, after the refusal).
    EXPECT_EQ(ids.call(packages, "Install").status, ubus::kNotSupported);
}

}  // namespace
