// "List" of the Packages object on a registry in memory: filters, paging and the package table.
#include <set>
#include <tuple>

#include "daemon/package_list.hpp"
#include "daemon/reply_envelope.hpp"
#include "daemon_fixture.hpp"

namespace daemon_test {
namespace {

class PackageList : public ::testing::Test {
protected:
    PackageList() {
        const std::string usual = R"("version":"1.0","enabled":true,"time":"2024-03-05T07:08:09+01:00")";
        // Registry order, positions 1 to 6: identifier, source, deployment unit (members of its file).
        const std::tuple<const char*, std::string, std::string> packages[] = {
            {"1", "ftp://host/x",
             usual + R"(,"vendor":"Acme","license":"MIT","architecture":"arm","dependency":"libc, libubox,\tjson",)"
                     R"("description":"first","section":"utils","size":4096)"},
            {"2", "http://host:81/feed/app.ipk",
             R"("version":"2.0","enabled":false,"vendor":"acme","license":"GPL","architecture":"arm","dependency":"a ,b,")"},
            {"07", "https://host:81", usual + R"(,"dependency":",lead")"},
            {"run", "HtTp://h:8x/p", usual + R"(,"files":"/gone;/opt/app/bin/sleep;")"},
            {"long", std::string(70, 's') + "://host", usual},
            // Its deployment unit is not known: no name, no vendor, an empty version.
            {"unknown", "host/no-scheme", ""},
        };
        for (auto it = std::rbegin(packages); it != std::rend(packages); ++it) {
            const auto& [id, url, du] = *it;
            auto pkg = std::make_shared<pkg_info>();
            pkg->id = id;
            pkg->url = url;
            pkg->status = PKG_STATUS_INSTALLED;
            ubus::BlobBuf members;
            if (!du.empty() && ubus::json_load(members, R"({"name":"app-)" + pkg->id + R"(","uuid":"uuid-)" +
                                                            pkg->id + R"(",)" + du + "}"))
                apply_du_record(pkg->du, 1, members.members());
            registry_.link_front(std::move(pkg), 0);
        }
        sys_.files["/opt/app/bin/sleep"] = {1, 7};
        sys_.running = {{1, 9}, {1, 7}};
    }
    // The body for these JSON arguments ("" when refused), and the listed identifiers.
    std::string list(std::string_view json, std::vector<std::string>* ids = nullptr) {
        ubus::BlobBuf args, body;
        EXPECT_TRUE(ubus::json_load(args, json)) << json;
        ProcessSnapshot processes(sys_);
        if (package_list_body(body, registry_, args.members(), processes) != HLAPI_OK) return "";
        for (ubus::Attr list : body.root().children())
            for (ubus::Attr pkg : list.name() == "List" ? list.children() : ubus::AttrList())
                if (ids) ids->emplace_back((*pkg.children().begin()).as_string());
        return ubus::json_format(body);
    }
    std::vector<std::string> ids(std::string_view json) {
        std::vector<std::string> out;
        list(json, &out);
        return out;
    }

    package_registry registry_;
    FakeSystem sys_;
    const std::vector<std::string> order_{"1", "2", "07", "run", "long", "unknown"};
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
        {R"({"Architecture":"arm","Status":"Installed","Version":"1.0"})", {"1"}},
        // Filters of another type count as absent.
        {R"({"Name":5,"Enabled":"true"})", all},
    };
    for (const auto& [filters, expected] : cases) {
        std::vector<std::string> in_order;
        for (const std::string& id : order_)
            if (expected.contains(id)) in_order.push_back(id);
        EXPECT_EQ(ids(std::string(R"({"Filters":)") + filters + "}"), in_order) << filters;
    }
    EXPECT_EQ(ids(R"({"Filters":"Name"})"), order_);
}

TEST_F(PackageList, OffsetNamesTheFirstPositionAndLimitTheLastCountedBeforeFiltering) {
    const std::pair<const char*, std::vector<std::size_t>> cases[] = {
        {R"({})", {1, 2, 3, 4, 5, 6}},      {R"({"Limit":0,"Offset":0})", {1, 2, 3, 4, 5, 6}},
        {R"({"Offset":3})", {3, 4, 5, 6}},  {R"({"Limit":2})", {1, 2}},
        {R"({"Limit":4,"Offset":2})", {2, 3, 4}}, {R"({"Limit":3,"Offset":3})", {3}},
        {R"({"Limit":10,"Offset":5})", {5, 6}},   {R"({"Offset":7})", {}},
        {R"({"Filters":{"Id":"2"},"Offset":2,"Limit":5})", {2}}, {R"({"Filters":{"Id":"2"},"Limit":1})", {}},
    };
    for (const auto& [args, positions] : cases) {
        std::vector<std::string> expected;
        for (std::size_t p : positions) expected.push_back(order_[p - 1]);
        EXPECT_EQ(ids(args), expected) << args;
    }
    EXPECT_TRUE(list(R"({"Limit":10,"Offset":5})").ends_with(R"(],"Limit":10,"Offset":5})"));
    EXPECT_TRUE(list(R"({})").ends_with(R"(],"Limit":0,"Offset":0})"));
    for (const char* refused : {R"({"Limit":-1})", R"({"Offset":-1})", R"({"Limit":5,"Offset":10})"})
        EXPECT_EQ(list(refused), "") << refused;
}

TEST_F(PackageList, TablesSplitSourceAndDependencies) {
    const std::pair<const char*, std::string> cases[] = {
        {"2", R"("Source":{"Protocol":"HTTP","Address":"host","Port":81,"Resource":"/feed/app.ipk"})"},
        // A port without a resource is not read.
        {"07", R"("Source":{"Protocol":"HTTPS","Address":"host","Port":0,"Resource":""})"},
        {"run", R"("Source":{"Protocol":"HTTP","Address":"h","Port":8,"Resource":"/p"})"},
        {"unknown", R"("Source":{"Protocol":"","Address":"","Port":0,"Resource":""})"},
        {"long", R"("Source":{"Protocol":")" + std::string(63, 'S') + R"(","Address":"host","Port":0,"Resource":""})"},
        // Blanks are skipped after a comma only; a trailing comma adds nothing, a leading one an
        // empty first item.
        {"2", R"("Dependencies":["a ","b"])"},
        {"07", R"("Dependencies":["","lead"])"},
        {"run", R"("Dependencies":[])"},
    };
    for (const auto& [id, part] : cases) {
        const std::string table = list(std::string(R"({"Filters":{"Id":")") + id + "\"}}");
        EXPECT_NE(table.find(part), std::string::npos) << part << " in " << table;
    }
    EXPECT_EQ(list(R"({"Limit":1})"),
              R"({"List":[{"Id":"1","UUID":"uuid-1","Name":"app-1","Description":"first","Enabled":true,)"
              R"("Source":{"Protocol":"FTP","Address":"host","Port":0,"Resource":"/x"},)"
              R"("Section":"utils","Vendor":"Acme","Version":"1.0",)"
              R"("Dependencies":["libc","libubox","json"],"License":"MIT","Architecture":"arm",)"
              R"("Status":"Installed","Install":{"Timestamp":"2024-03-05T07:08:09+01:00","Size":4096}}],)"
              R"("Limit":1,"Offset":0})");
}

}  // namespace
}  // namespace daemon_test
