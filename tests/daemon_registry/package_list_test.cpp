// Packages restored from record files at start-up, as "List" of the Packages object and "Get" of
// the per-package objects show them: registry order, filters, paging and the package table.
#include <gtest/gtest.h>

#include <fstream>
#include <optional>
#include <set>

#include "registry_gateway.hpp"

namespace registry_test {
namespace {

// A program of one package only: a copy of the root's busybox, run as "sleep".
constexpr const char* kProgram = "/opt/app/bin/sleep";

// Record files as an earlier run left them: each package's file and its deployment unit's.
sandbox::GatewayOptions seeded_gateway() {
    return pkgd_gateway([](const fs::path& root) {
        const std::string usual = R"("version":"1.0","enabled":true,"time":"2024-03-05T07:08:09+01:00")";
        const std::tuple<const char*, int, std::string, std::string> packages[] = {
            {"1", 1, "ftp://host/x",
             usual +
                 R"(,"vendor":"Acme","license":"MIT","architecture":"arm","dependency":"libc, libubox,\tjson",)"
                 R"("description":"first","section":"utils","size":4096)"},
            {"2", 2, "http://host:81/feed/app.ipk",
             R"("version":"2.0","enabled":false,"vendor":"acme","license":"GPL","architecture":"arm","dependency":"a ,b,")"},
            {"07", 7, "https://host:81", usual + R"(,"dependency":",lead")"},
            {"run", 5, "HtTp://h:8x/p", usual + R"(,"files":")" + std::string(kProgram) + ";\""},
            {"long", 6, std::string(70, 's') + "://host", usual},
            // Its deployment unit is not known (no DU file): no name, no vendor, an empty version.
            {"unknown", 40, "host/no-scheme", ""},
        };
        const fs::path dir = root / "usr/local/package";
        for (const auto& [id, du, url, members] : packages) {
            std::ofstream(dir / "pkg" / id) << R"({"DU":)" << du << R"(,"resource.url":")" << url << R"("})";
            if (!members.empty())
                std::ofstream(dir / "du" / std::to_string(du))
                    << R"({"name":"app-)" << id << R"(","uuid":"uuid-)" << id << R"(",)" << members << "}";
        }
        fs::create_directories(root / "opt/app/bin");
        fs::copy_file(root / "bin/busybox", root / std::string(kProgram).substr(1));
        // No packages of pkgd's: hidden, no deployment unit (or one of the wrong type), not JSON, not
        // a JSON object.
        fs::copy_file(dir / "pkg/07", dir / "pkg/.3");
        const std::pair<const char*, const char*> skipped[] = {
            {"no-du", R"({"EU":[1],"resource.url":"http://feed.example/x.ipk"})"},
            {"text-du", R"({"DU":"7"})"},
            {"broken", R"({"DU":7,)"},
            {"array", R"([{"DU":7}])"}};
        for (const auto& [name, text] : skipped) std::ofstream(dir / "pkg" / name) << text;
    });
}

// One gateway for the suite: the calls only read.
class PackageList : public gwtest::SharedGateway<seeded_gateway> {
protected:
    static void SetUpTestSuite() {
        SharedGateway::SetUpTestSuite();
        if (!gw_->up()) return;
        probe_ = std::make_unique<gwtest::Client>(*gw_);
        if (!probe_->wait_for_object(kEnvironment)) return;
        order_ = listed_ids(probe_->call(kPackages, "List"));
        program_ = std::make_unique<sandbox::InsideProcess>(gw_->spawn({kProgram, "600"}));
        wait_status(*probe_, "run", "Running");
    }
    static void TearDownTestSuite() {
        program_.reset();
        probe_.reset();
        SharedGateway::TearDownTestSuite();
    }
    void SetUp() override {
        ASSERT_NO_FATAL_FAILURE(SharedGateway::SetUp());
        ASSERT_TRUE(program_ && program_->started()) << gw_->error();
        ASSERT_EQ(order_.size(), 6u);
    }
    static gwtest::Reply list(std::string_view json) { return probe_->call(kPackages, "List", json); }

    static inline std::unique_ptr<gwtest::Client> probe_;
    static inline std::unique_ptr<sandbox::InsideProcess> program_;
    static inline std::vector<std::string> order_;
};

TEST_F(PackageList, RecordFilesComeBackAsPackagesTheLastReadFirstAndOtherFilesAreSkipped) {
    std::set<std::string> objects;
    probe_->bus().lookup(object_of("*"), [&](const ubus::ObjectInfo& o) { objects.emplace(o.path); });
    std::vector<std::string> last_read_first;
    for (const auto& entry : fs::directory_iterator(gw_->path("/usr/local/package/pkg")))
        if (objects.contains(object_of(entry.path().filename().string())))
            last_read_first.insert(last_read_first.begin(), entry.path().filename());
    EXPECT_EQ(objects.size(), 6u);
    EXPECT_EQ(order_, last_read_first);
}

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
    for (const auto& [filters, expected] : cases) {
        std::vector<std::string> in_order;  // `expected` in the registry's order
        for (const std::string& id : order_)
            if (expected.contains(id)) in_order.push_back(id);
        EXPECT_EQ(listed_ids(list(std::string(R"({"Filters":)") + filters + "}")), in_order) << filters;
    }
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
        const gwtest::Reply r = list(args + "}");
        std::vector<std::string> expected;
        for (std::size_t p : positions) expected.push_back(order_[p - 1]);
        EXPECT_EQ(listed_ids(r), expected) << args;
        EXPECT_TRUE(r.first().ends_with(R"("Limit":)" + std::to_string(limit.value_or(0)) + R"(,"Offset":)" +
                                        std::to_string(offset.value_or(0)) + "}}"))
            << r.first();
    }
    const std::string second = R"({"Filters":{"Id":")" + order_[1] + R"("})";
    EXPECT_EQ(listed_ids(list(second + R"(,"Offset":2,"Limit":5})")), (std::vector<std::string>{order_[1]}));
    EXPECT_TRUE(listed_ids(list(second + R"(,"Limit":1})")).empty());
    for (const char* refused : {R"({"Limit":-1})", R"({"Offset":-1})", R"({"Limit":5,"Offset":10})"}) {
        const gwtest::Reply r = list(refused);
        EXPECT_EQ(r.status, ubus::kOk) << refused;
        EXPECT_EQ(r.first(), R"({"Header":{"Name":"OPERATION_ILLEGAL"}})") << refused;
    }
}

TEST_F(PackageList, TablesSplitSourceAndDependenciesAndGetAnswersTheSameTable) {
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
    for (const auto& [id, table] : listed(probe_->call(kPackages, "List"))) {
        EXPECT_EQ(body_json(probe_->call(object_of(id), "get")), table) << id;
        for (const auto& [case_id, part] : cases)
            EXPECT_TRUE(id != case_id || table.find(part) != std::string::npos) << part << " in " << table;
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
}  // namespace registry_test
