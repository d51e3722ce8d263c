// Which execution environment pkgd serves, as the gateway's LCM catalog (the simulator) tells it:
// seen in the names of its objects, its working directory and the environment's "Get".
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "bus_probe.hpp"
#include "ubus/json.hpp"
#include "ubus/wire.hpp"

namespace pkgd::testing {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kSimControl = "Sandbox.GatewaySim";
constexpr std::string_view kEnvPrefix = "Services.Management.LCM.ExecutionEnvironments.";

std::string ee_object(std::string_view id) {
    return std::string(kEnvPrefix).append(id);
}

// A gateway with the simulator, whose pkgd is started once the simulator is set up.
class CatalogGateway {
public:
    explicit CatalogGateway(std::vector<std::string> pkgd_env) {
        auto options = pkgd_gateway();
        options.simulator = true;
        options.pkgd_at_start = false;
        options.pkgd_env = std::move(pkgd_env);
        gw.emplace(options);
        if (gw->up()) probe.emplace(*gw);
    }

    ::testing::AssertionResult ready() {
        if (!gw->up()) return ::testing::AssertionFailure() << gw->error();
        if (!probe->wait_for_object(kSimControl)) return ::testing::AssertionFailure() << "no simulator";
        return ::testing::AssertionSuccess();
    }

    // A call on the simulator's control object with JSON arguments.
    int control(std::string_view method, std::string_view json) {
        ubus::BlobBuf args;
        if (!ubus::json_load(args, json)) return -1;
        return probe->call(kSimControl, method, args).status;
    }

    // The data of every request the catalog received, as JSON.
    std::vector<std::string> catalog_requests() {
        std::vector<std::string> out;
        const CallResult r = probe->call(kSimControl, "state");
        if (r.replies.empty()) return {"(no state)"};
        static constexpr ubus::Policy kState[] = {{"requests", ubus::Type::Array}};
        static constexpr ubus::Policy kRequest[] = {{"peer", ubus::Type::String},
                                                    {"data", ubus::Type::Table}};
        const auto state = ubus::parse(kState, r.replies[0]);
        for (ubus::Attr request : state[0].children()) {
            const auto fields = ubus::parse(kRequest, request.data());
            if (fields[0].as_string() != "catalog") continue;
            std::string json;
            ubus::json_format_list(json, fields[1]);
            out.push_back(json);
        }
        return out;
    }

    // The environment's "Get" reply up to its figures.
    std::string identity(std::string_view id) {
        const CallResult r = probe->call(ee_object(id), "Get");
        const auto cut = r.json.find(R"(,"Resources":)");
        return cut == std::string::npos ? "status " + std::to_string(r.status) + ": " + r.json
                                        : r.json.substr(0, cut);
    }

    std::optional<sandbox::Gateway> gw;
    std::optional<BusProbe> probe;
};

constexpr auto kStartUp = std::chrono::seconds(20);  // start-up may wait out the catalog's 5 s

TEST(Identity, WithoutTheVariableItIsSystemAndTheCatalogIsNotAsked) {
    CatalogGateway c({});
    ASSERT_TRUE(c.ready());
    ASSERT_TRUE(c.gw->start_pkgd());
    ASSERT_TRUE(c.probe->wait_for_object(ee_object("System"), kStartUp));
    EXPECT_EQ(c.identity("System"),
              R"({"Header":{"Name":"OK"},"Body":{"Id":"System","Name":"System","Enabled":false,)"
              R"("Version":"","Vendor":"","Type":"")");
    EXPECT_TRUE(c.catalog_requests().empty());
}

TEST(Identity, TheCatalogNamesTheIdentifierOrTheVariableDoes) {
    CatalogGateway with_id({"EXECENV_INDEX=lxc-a"});
    CatalogGateway without_id({"EXECENV_INDEX=lxc-b"});
    ASSERT_TRUE(with_id.ready());
    ASSERT_TRUE(without_id.ready());
    ASSERT_EQ(with_id.control("configure", R"({"environments":[{"id":"7","name":"lxc-a","enabled":true,)"
                                           R"("version":"2.0","vendor":"Acme","type":"LXC"}]})"),
              0);
    ASSERT_EQ(without_id.control("configure", R"({"environments":[{"name":"lxc-b","version":"1.0"}]})"), 0);
    ASSERT_TRUE(with_id.gw->start_pkgd());
    ASSERT_TRUE(without_id.gw->start_pkgd());

    ASSERT_TRUE(with_id.probe->wait_for_object(ee_object("7"), kStartUp));
    EXPECT_TRUE(with_id.probe->has_object(ee_object("7") + ".Packages"));
    EXPECT_TRUE(with_id.probe->has_object("SoftwareModules.Package.7"));
    EXPECT_TRUE(fs::is_directory(with_id.gw->path("/tmp/opkg-7")));
    EXPECT_EQ(with_id.identity("7"),
              R"({"Header":{"Name":"OK"},"Body":{"Id":"7","Name":"lxc-a","Enabled":true,)"
              R"("Version":"2.0","Vendor":"Acme","Type":"LXC")");
    EXPECT_EQ(with_id.catalog_requests(),
              std::vector<std::string>{R"({"Type":"ExecutionEnvironment","Filters":{"Name":"lxc-a"}})"});

    ASSERT_TRUE(without_id.probe->wait_for_object(ee_object("lxc-b"), kStartUp));
    EXPECT_EQ(without_id.identity("lxc-b"),
              R"({"Header":{"Name":"OK"},"Body":{"Id":"lxc-b","Name":"lxc-b","Enabled":false,)"
              R"("Version":"1.0","Vendor":"","Type":"")");
}

TEST(Identity, ACatalogThatIsAbsentOrTooSlowGivesIdentifierOne) {
    CatalogGateway absent({"EXECENV_INDEX=lxc-a"});
    CatalogGateway slow({"EXECENV_INDEX=lxc-a"});
    ASSERT_TRUE(absent.ready());
    ASSERT_TRUE(slow.ready());
    const std::string env = R"({"environments":[{"id":"7","name":"lxc-a","version":"2.0"}]})";
    ASSERT_EQ(absent.control("configure", env), 0);
    ASSERT_EQ(slow.control("configure", env), 0);
    ASSERT_EQ(absent.control("fault", R"({"peer":"catalog","mode":"absent"})"), 0);
    ASSERT_EQ(slow.control("fault", R"({"peer":"catalog","mode":"slow","delay":6000})"), 0);
    ASSERT_TRUE(absent.gw->start_pkgd());
    ASSERT_TRUE(slow.gw->start_pkgd());

    for (CatalogGateway* c : {&absent, &slow}) {
        ASSERT_TRUE(c->probe->wait_for_object(ee_object("1"), kStartUp));
        EXPECT_EQ(c->identity("1"),
                  R"({"Header":{"Name":"OK"},"Body":{"Id":"1","Name":"lxc-a","Enabled":false,)"
                  R"("Version":"","Vendor":"","Type":"")");
        EXPECT_TRUE(fs::is_directory(c->gw->path("/tmp/opkg-1")));
    }
    // The slow catalog was asked; its late answer changed nothing.
    EXPECT_EQ(slow.catalog_requests().size(), 1u);
}

TEST(Identity, OverLongTextsAreCutWhereTheyAreKept) {
    const std::string name(300, 'n');
    const std::string id(300, 'i');
    CatalogGateway long_texts({"EXECENV_INDEX=" + name});
    CatalogGateway long_id({"EXECENV_INDEX=lxc-c"});
    ASSERT_TRUE(long_texts.ready());
    ASSERT_TRUE(long_id.ready());
    ASSERT_EQ(long_texts.control("configure", R"({"environments":[{"id":"8","name":")" + name +
                                                  R"(","version":")" + std::string(100, 'v') +
                                                  R"(","vendor":")" + std::string(300, 'w') +
                                                  R"(","type":")" + std::string(300, 't') + R"("}]})"),
              0);
    ASSERT_EQ(long_id.control("configure", R"({"environments":[{"id":")" + id + R"(","name":"lxc-c"}]})"), 0);
    ASSERT_TRUE(long_texts.gw->start_pkgd());
    ASSERT_TRUE(long_id.gw->start_pkgd());

    ASSERT_TRUE(long_texts.probe->wait_for_object(ee_object("8"), kStartUp));
    EXPECT_EQ(long_texts.identity("8"), R"({"Header":{"Name":"OK"},"Body":{"Id":"8","Name":")" +
                                            name.substr(0, 255) + R"(","Enabled":false,"Version":")" +
                                            std::string(63, 'v') + R"(","Vendor":")" + std::string(255, 'w') +
                                            R"(","Type":")" + std::string(255, 't') + R"(")");

    // The identifier (255 characters kept) is cut again to each name's own buffer: the Packages
    // object's name to 255 characters, the package-operation object's to 63, the directory's to 255.
    const std::string packages = std::string(kEnvPrefix) + id.substr(0, 255 - kEnvPrefix.size());
    ASSERT_TRUE(long_id.probe->wait_for_object("SoftwareModules.Package." + id.substr(0, 39), kStartUp));
    EXPECT_TRUE(long_id.probe->has_object(packages));
    EXPECT_TRUE(fs::is_directory(long_id.gw->path("/tmp/opkg-" + id.substr(0, 245))));
    // That cut name is also the environment object's, which is refused: pkgd serves on without it
    // (an answer from its own handler means its loop runs, after the refusal).
    EXPECT_EQ(long_id.probe->call(packages, "Install").status, ubus::kNotSupported);
    const auto status = long_id.gw->pkgd_status();
    ASSERT_TRUE(status);
    EXPECT_EQ(status->state, sandbox::PkgdStatus::State::kRunning);
}

}  // namespace
}  // namespace pkgd::testing
