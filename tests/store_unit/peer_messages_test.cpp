// The messages pkgd sends to its peers: LCM events, catalog updates and deletes, and the service
// manager's "operate".
#include <gtest/gtest.h>

#include "pkgd/catalog.hpp"
#include "pkgd/lcm_events.hpp"
#include "pkgd/record_files.hpp"
#include "pkgd/run_state.hpp"
#include "sample_records.hpp"
#include "ubus/json.hpp"

namespace {

using namespace pkgd;

template <typename Build>
std::string json_of(Build build) {
    ubus::BlobBuf msg;
    build(msg);
    return ubus::json_format(msg);
}

TEST(LcmEventMessage, BodyOnlyWithAKey) {
    EXPECT_EQ(json_of([](auto& m) {
                  lcm_event_message(m, kLcmPackageEnabled.code, kLcmPackageEnabled.name, kLcmPackageIdKey,
                                    "Services.Management.LCM.ExecutionEnvironments.System.Packages.3");
              }),
              R"({"Header":{"Code":10,"Name":"SERVICES_MANAGEMENT_LCM_PACKAGE_ENABLED"},)"
              R"("Body":{"PackageId":"Services.Management.LCM.ExecutionEnvironments.System.Packages.3"}})");
    EXPECT_EQ(json_of([](auto& m) { lcm_event_message(m, 9, "X", {}, "ignored"); }),
              R"({"Header":{"Code":9,"Name":"X"}})");
    // A key with an empty value still makes a body.
    EXPECT_EQ(json_of([](auto& m) { lcm_event_message(m, 1, "Y", kLcmExecEnvIdKey, ""); }),
              R"({"Header":{"Code":1,"Name":"Y"},"Body":{"ExecutionEnvironmentId":""}})");
}

TEST(CatalogMessages, UpdateCarriesTheRecordAndDeleteSpellsIndexWithACapital) {
    const pkg_info pkg = store_test::ordinary_package();
    ubus::BlobBuf record;
    eu_record_message(record, pkg, pkg.eu[0], "System");
    EXPECT_EQ(
        json_of([&](auto& m) { EXPECT_TRUE(catalog_update_message(m, CATALOG_EU, 4, record.members())); }),
        R"({"Type":"ExecutionUnit","index":4,"extra":{"euid":"EU-4","name":"demo","EE":"System","PKG":"3"}})");
    EXPECT_EQ(json_of([&](auto& m) { EXPECT_TRUE(catalog_update_message(m, CATALOG_DU, 7, {})); }),
              R"({"Type":"DeploymentUnit","index":7,"extra":{}})");
    EXPECT_EQ(json_of([](auto& m) { EXPECT_TRUE(catalog_delete_message(m, CATALOG_EE, 2)); }),
              R"({"Type":"ExecutionEnvironment","Index":2})");
}

TEST(CatalogMessages, UnknownKindsBuildNothing) {
    for (int kind : {-1, 3, 100}) {
        ubus::BlobBuf msg;
        EXPECT_FALSE(catalog_update_message(msg, kind, 1, {}));
        EXPECT_FALSE(catalog_delete_message(msg, kind, 1));
        EXPECT_TRUE(msg.members().empty());
    }
}

TEST(OperateMessage, NamesTheScriptsOfTheUnitsOrTheEnvironment) {
    pkg_info pkg = store_test::ordinary_package();
    pkg.eu.push_back({8, "EU-8", std::nullopt});  // no script to name
    EXPECT_EQ(json_of([&](auto& m) { operate_message(m, pkg, "start"); }),
              R"({"Operation":"start","name":["demo","demo-watch"]})");
    pkg.eu.clear();
    EXPECT_EQ(json_of([&](auto& m) { operate_message(m, pkg, "stop"); }),
              R"({"Operation":"stop","name":[]})");

    pkg_info env = store_test::environment_package();
    env.eu.push_back({4, "EU-4", "ignored"});  // an environment package is started by its own script
    EXPECT_EQ(json_of([&](auto& m) { operate_message(m, env, "start"); }),
              R"({"Operation":"start","name":["lxc-env"]})");
    env.ee.reset();
    EXPECT_EQ(json_of([&](auto& m) { operate_message(m, env, "start"); }), R"({"Operation":"start"})");
}

}  // namespace
