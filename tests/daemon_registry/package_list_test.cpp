// "List" of the Packages object and "Get" of the per-package objects, on packages restored from
// record files: filters, paging and the package table.
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <set>

#include "registry_gateway.hpp"

namespace pkgd::testing {
namespace {

constexpr const char* kProgram = "/opt/app/bin/sleep";

void seed_packages(const fs::path& root) {
    pkg_info one = installed_package("1", 1);
    one.url = "ftp://host/x";
    one.du.vendor = "Acme";
    one.du.license = "MIT";
    one.du.architecture = "arm";
    one.du.dependency = "libc, libubox,\tjson";
    one.du.description = "first";
    one.du.section = "utils";
    one.du.size = 4096;
    seed(root, one);
    pkg_info two = installed_package("2", 2);
    two.url = "http://host:81/feed/app.ipk";
    two.du.vendor = "acme";
    two.du.license = "GPL";
    two.du.architecture = "arm";
    two.du.version = "2.0";
    two.du.enabled = 0;
    two.du.dependency = "a ,b,";
    seed(root, two);
    pkg_info zero_seven = installed_package("07", 7);
    zero_seven.url = "https://host:81";
    zero_seven.du.dependency = ",lead";
    seed(root, zero_seven);
    pkg_info run = installed_package("run", 5);
    run.url = "HtTp://h:8x/p";
    run.du.files = std::string(kProgram) + ";";
    seed(root, run);
    fs::create_directories(root / "opt/app/bin");
    fs::copy_file(root / "bin/busybox", root / std::string(kProgram).substr(1));
    pkg_info long_scheme = installed_package("long", 6);
    long_scheme.url = std::string(70, 's') + "://host";
    seed(root, long_scheme);
    // Its deployment unit is not known (no DU file): no name, no vendor, an empty version.
    pkg_info unknown = installed_package("unknown", 40);
    unknown.url = "host/no-scheme";
    records_in(root).store_pkg(unknown);
}

// One gateway for the suite: the calls only read.
class PackageList : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        sandbox::GatewayOptions options;
        options.name = "PackageList";
        options.pkgd = true;
        options.prepare = seed_packages;
        gw_ = std::make_unique<sandbox::Gateway>(options);
        if (!gw_->up()) return;
        probe_ = std::make_unique<BusProbe>(*gw_);
        program_ = std::make_unique<sandbox::InsideProcess>(gw_->spawn({kProgram, "600"}));
        if (probe_->wait_for_object(kEnvironment)) order_ = listed_ids(probe_->call(kPackages, "List"));
    }
    static void TearDownTestSuite() {
        program_.reset();
        probe_.reset();
        gw_.reset();
    }
    void SetUp() override {
        ASSERT_TRUE(program_ && program_->started()) << gw_->error();
        ASSERT_EQ(order_.size(), 6u);
    }

    static CallResult list(std::string_view json) { return call_json(*probe_, kPackages, "List", json); }

    // `ids` in the registry's order.
    static std::vector<std::string> in_order(const std::set<std::string>& ids) {
        std::vector<std::string> kept;
        for (const std::string& id : order_)
            if (ids.contains(id)) kept.push_back(id);
        return kept;
    }

    static inline std::unique_ptr<sandbox::Gateway> gw_;
    static inline std::unique_ptr<BusProbe> probe_;
    static inline std::unique_ptr<sandbox::InsideProcess> program_;
    static inline std::vector<std::string> order_;
};

TEST_F(PackageList, EachFilterAloneAndCombinedMatchesExactlyAndCaseSensitively) {
    const std::set<std::string> all(order_.begin(), order_.end());
    const std::pair<const char*, std::set<std::string>> cases[] = {
        {R"({})", all},
        {R"({"Id":"07"})", {"07"}},
        {R"({"Id":"7"})", {}},
        {R"({"UUID":"uuid-2"})", {"2"}},
        {R"({"Name":"app-1"})", {"1"}},
        {R"({"Name":"APP-1"})", {}},
        {R"({"Name":""})", {}},
        {R"({"Enabled":true})", {"1", "07", "run", "long"}},
        {R"({"Enabled":false})", {"2", "unknown"}},
        {R"({"Vendor":"acme"})", {"2"}},
        {R"({"Version":"2.0"})", {"2"}},
        {R"({"Version":""})", {"unknown"}},
        {R"({"License":"MIT"})", {"1"}},
        {R"({"Architecture":"arm"})", {"1", "2"}},
        {R"({"Status":"Installed"})", {"1", "2", "07", "long", "unknown"}},
        {R"({"Status":"Running"})", {"run"}},
        {R"({"Status":"installed"})", {}},
        {R"({"Architecture":"arm","Status":"Installed","Version":"1.0"})", {"1"}},
        {R"({"Vendor":"Acme","License":"GPL"})", {}},
        // Filters of another type count as absent.
        {R"({"Name":5,"Enabled":"true"})", all},
    };
    for (const auto& [filters, expected] : cases)
        EXPECT_EQ(listed_ids(list(std::string(R"({"Filters":)") + filters + "}")), in_order(expected))
            << filters;
    EXPECT_EQ(listed_ids(list(R"({"Filters":"Name"})")), order_);
}

TEST_F(PackageList, OffsetNamesTheFirstPositionAndLimitTheLastCountedBeforeFiltering) {
    struct Page {
        std::optional<int> limit, offset;
        std::vector<std::size_t> positions;  // in the registry, from 1
    };
    const Page cases[] = {
        {{}, {}, {1, 2, 3, 4, 5, 6}},
        {0, 0, {1, 2, 3, 4, 5, 6}},
        {{}, 3, {3, 4, 5, 6}},
        {2, {}, {1, 2}},
        {4, 2, {2, 3, 4}},
        {3, 3, {3}},
        {10, 5, {5, 6}},
        {{}, 7, {}},
    };
    for (const auto& [limit, offset, positions] : cases) {
        std::string args = "{";
        if (limit) args += R"("Limit":)" + std::to_string(*limit) + (offset ? "," : "");
        if (offset) args += R"("Offset":)" + std::to_string(*offset);
        const CallResult r = list(args + "}");
        std::vector<std::string> expected;
        for (std::size_t p : positions) expected.push_back(order_[p - 1]);
        EXPECT_EQ(listed_ids(r), expected) << args;
        EXPECT_TRUE(r.json.ends_with(R"("Limit":)" + std::to_string(limit.value_or(0)) + R"(,"Offset":)" +
                                     std::to_string(offset.value_or(0)) + "}}"))
            << r.json;
    }
    const std::string second = R"({"Filters":{"Id":")" + order_[1] + R"("})";
    EXPECT_EQ(listed_ids(list(second + R"(,"Offset":2,"Limit":5})")), (std::vector<std::string>{order_[1]}));
    EXPECT_TRUE(listed_ids(list(second + R"(,"Limit":1})")).empty());

    for (const char* refused : {R"({"Limit":-1})", R"({"Offset":-1})", R"({"Limit":5,"Offset":10})"}) {
        const CallResult r = list(refused);
        EXPECT_EQ(r.status, ubus::kOk) << refused;
        EXPECT_EQ(r.json, R"({"Header":{"Name":"OPERATION_ILLEGAL"}})") << refused;
    }
}

TEST_F(PackageList, TablesSplitSourceAndDependenciesAndGetAnswersTheSameTable) {
    const CallResult all = probe_->call(kPackages, "List");
    const std::pair<const char*, std::string> cases[] = {
        {"2", R"("Source":{"Protocol":"HTTP","Address":"host","Port":81,"Resource":"/feed/app.ipk"})"},
        // A port without a resource is not read.
        {"07", R"("Source":{"Protocol":"HTTPS","Address":"host","Port":0,"Resource":""})"},
        {"run", R"("Source":{"Protocol":"HTTP","Address":"h","Port":8,"Resource":"/p"})"},
        {"unknown", R"("Source":{"Protocol":"","Address":"","Port":0,"Resource":""})"},
        {"long", R"("Source":{"Protocol":")" + std::string(63, 'S') +
                     R"(","Address":"host","Port":0,"Resource":""})"},
        // Blanks are skipped after a comma only; a trailing comma adds nothing, a leading one an
        // empty first item.
        {"2", R"("Dependencies":["a ","b"])"},
        {"07", R"("Dependencies":["","lead"])"},
        {"run", R"("Dependencies":[])"},
    };
    for (const auto& [id, table] : listed(all)) {
        EXPECT_EQ(body_json(probe_->call(object_of(id), "get")), table) << id;
        for (const auto& [case_id, part] : cases)
            if (id == case_id) {
                EXPECT_NE(table.find(part), std::string::npos) << part << " in " << table;
            }
        if (id == "1") {
            EXPECT_EQ(
                table,
                R"({"Id":"1","UUID":"uuid-1","Name":"app-1","Description":"first","Enabled":true,)"
                R"("Source":{"Protocol":"FTP","Address":"host","Port":0,"Resource":"/x"},)"
                R"("Section":"utils","Vendor":"Acme","Version":"1.0",)"
                R"("Dependencies":["libc","libubox","json"],"License":"MIT","Architecture":"arm",)"
                R"("Status":"Installed","Install":{"Timestamp":"2024-03-05T07:08:09+01:00","Size":4096}})");
        }
    }
}

}  // namespace
}  // namespace pkgd::testing
