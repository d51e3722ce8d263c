// The LCM catalog kept in step with the record files, read back from the simulator's state.
#include "pkgd/catalog.hpp"
#include "pkgd/record_files.hpp"
#include "sim_state.hpp"
#include "store_gateway.hpp"

namespace {

using namespace pkgd;
using store_sandbox::read_text;
using store_sandbox::run_as_worker;
using store_sandbox::SimState;

pkg_info ordinary_package() {
    pkg_info pkg;
    pkg.id = "3";
    pkg.url = "http://feed.example/demo.ipk";
    pkg.du.index = 7;
    pkg.du.name = "demo";
    pkg.du.uuid = "uuid-7";
    pkg.du.version = "1.0";
    pkg.du.files = "/usr/bin/demo;/etc/init.d/demo;";
    pkg.eu.push_back({4, "EU-4", "demo"});
    pkg.eu.push_back({6, "EU-6", "demo-watch"});
    return pkg;
}

pkg_info environment_package() {
    pkg_info pkg;
    pkg.id = "5";
    pkg.du.index = 9;
    pkg.du.pkgtype = PKGTYPE_EE;
    pkg.du.name = "lxc";
    ee_info ee;
    ee.index = 2;
    ee.name = "lxc";
    ee.version = "2.0";
    ee.file = "lxc";
    pkg.ee = ee;
    return pkg;
}

template <typename Build>
std::string json_of(Build build) {
    ubus::BlobBuf msg;
    build(msg);
    return ubus::json_format(msg);
}

class CatalogInGateway : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        sandbox::GatewayOptions options;
        options.name = "store-catalog";
        options.simulator = true;
        gw_ = new sandbox::Gateway(options);
    }
    static void TearDownTestSuite() {
        delete gw_;
        gw_ = nullptr;
    }
    void SetUp() override {
        ASSERT_TRUE(gw_->up()) << gw_->error();
        ASSERT_TRUE(gw_->set_fault("catalog", "normal"));
        ASSERT_TRUE(gw_->sim_reset());
    }

    static sandbox::Gateway* gw_;
};
sandbox::Gateway* CatalogInGateway::gw_ = nullptr;

TEST_F(CatalogInGateway, EveryUnitWriteAndDeleteIsMirrored) {
    run_as_worker(*gw_, [](std::string&) {
        const pkg_info pkg = ordinary_package();
        const pkg_info env = environment_package();
        package_store_du_info(pkg);
        package_store_pkg_info(pkg);  // local only
        package_store_eu_info(pkg);
        package_store_ee_info(pkg);  // no environment: nothing
        package_store_ee_info(env);
    });

    // The catalog holds exactly what the files hold.
    const pkg_info pkg = ordinary_package();
    const std::string du_json = json_of([&](auto& m) { du_record_message(m, pkg, "System"); });
    EXPECT_EQ(SimState(*gw_).catalog_entry("DeploymentUnit", 7), du_json);
    EXPECT_EQ(read_text(gw_->path("/usr/local/package/du/7")), du_json);
    EXPECT_EQ(SimState(*gw_).catalog_entry("ExecutionUnit", 6),
              R"({"euid":"EU-6","name":"demo-watch","EE":"System","PKG":"3"})");
    EXPECT_EQ(SimState(*gw_).catalog_entry("ExecutionEnvironment", 2),
              R"({"id":"5","name":"lxc","version":"2.0","file":"lxc","EE":"System"})");
    const std::string catalog = "Services.Management.LCM.ExecutionEnvironments ";
    EXPECT_EQ(
        SimState(*gw_).requests("catalog"),
        (std::vector<std::string>{
            catalog + "catalog.update {\"Type\":\"DeploymentUnit\",\"index\":7,\"extra\":" + du_json + "}",
            catalog + R"(catalog.update {"Type":"ExecutionUnit","index":4,"extra":)"
                      R"({"euid":"EU-4","name":"demo","EE":"System","PKG":"3"}})",
            catalog + R"(catalog.update {"Type":"ExecutionUnit","index":6,"extra":)"
                      R"({"euid":"EU-6","name":"demo-watch","EE":"System","PKG":"3"}})",
            catalog + R"(catalog.update {"Type":"ExecutionEnvironment","index":2,"extra":)"
                      R"({"id":"5","name":"lxc","version":"2.0","file":"lxc","EE":"System"}})",
        }));

    ASSERT_TRUE(gw_->sim_reset());
    const std::string removals = run_as_worker(*gw_, [](std::string& out) {
        const pkg_info stored = ordinary_package();
        package_delete_du_info(stored);
        package_delete_eu_info(stored);
        package_delete_ee_info(environment_package());
        out += std::to_string(package_delete_pkg_info(stored));
        out += std::to_string(package_delete_pkg_info(stored));
        package_delete_du_info(stored);  // the file is gone; the catalog is still told
    });
    EXPECT_EQ(removals, "0-1");
    EXPECT_TRUE(SimState(*gw_).catalog_keys().empty());
    EXPECT_EQ(SimState(*gw_).requests("catalog"),
              (std::vector<std::string>{
                  catalog + R"(catalog.delete {"Type":"DeploymentUnit","Index":7})",
                  catalog + R"(catalog.delete {"Type":"ExecutionUnit","Index":4})",
                  catalog + R"(catalog.delete {"Type":"ExecutionUnit","Index":6})",
                  catalog + R"(catalog.delete {"Type":"ExecutionEnvironment","Index":2})",
                  catalog + R"(catalog.delete {"Type":"DeploymentUnit","Index":7})",
              }));
    for (const char* file : {"/usr/local/package/du/7", "/usr/local/package/eu/4", "/usr/local/package/ee/2",
                             "/usr/local/package/pkg/3"})
        EXPECT_FALSE(std::filesystem::exists(gw_->path(file))) << file;
}

TEST_F(CatalogInGateway, NothingIsSentForAnUnknownKind) {
    run_as_worker(*gw_, [](std::string&) {
        ubus::BlobBuf record;
        record.add_string("name", "x");
        __update_lcmd_catalog(3, 1, record.members());
        __delete_lcmd_catalog(3, 1);
        __delete_lcmd_catalog(-1, 1);
        __delete_lcmd_catalog(CATALOG_EU, 8);  // a known kind still goes out
    });
    EXPECT_EQ(
        SimState(*gw_).requests("catalog"),
        (std::vector<std::string>{
            R"(Services.Management.LCM.ExecutionEnvironments catalog.delete {"Type":"ExecutionUnit","Index":8})"}));
}

TEST_F(CatalogInGateway, RecordsAreWrittenWithoutACatalog) {
    ASSERT_TRUE(gw_->set_fault("catalog", "absent"));
    run_as_worker(*gw_, [](std::string&) { package_store_du_info(ordinary_package()); });
    EXPECT_NE(read_text(gw_->path("/usr/local/package/du/7")).find(R"("name":"demo")"), std::string::npos);
    EXPECT_TRUE(SimState(*gw_).requests("catalog").empty());

    // Read back inside as the daemon would.
    const std::string out = run_as_worker(*gw_, [](std::string& text) {
        pkg_info pkg;
        const int read = package_get_du_info(pkg, 7);
        text = std::to_string(read) + " " + pkg.du.name.value_or("?");
    });
    EXPECT_EQ(out, "0 demo");
}

}  // namespace
