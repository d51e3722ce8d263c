// The requests that queue operations, against workers that exist only on paper: the faults a
// gateway cannot be made to show (a worker that cannot start, a package removed while its install
// waits, a cancel) and what an update takes from its package.
#include "daemon/package_operation_object.hpp"
#include "daemon/packages_object.hpp"
#include "daemon_fixture.hpp"
#include "recorded_workers.hpp"

namespace daemon_test {
namespace {

TEST_F(DaemonTest, FailedStartsWithdrawOnlyTheirOwnOperationAndWaitingOnesRunOnTheirRecord) {
    d_.pkg_name = "SoftwareModules.Package.System";
    auto& workers = static_cast<RecordedWorkers&>(*(d_.workers = std::make_unique<RecordedWorkers>()));
    ASSERT_EQ(add_opkg_object(d_).status, ubus::kOk);
    ASSERT_EQ(add_package_object(d_).status, ubus::kOk);
    const std::string ops(d_.pkg_name.view()), ids = R"("OperateID":1,"OperateMID":1)";
    const auto install = [&](int request, std::string_view url) {
        return call(ops, "Install",
                    R"({"RequestID":)" + std::to_string(request) + "," + ids + R"(,"URL":")" +
                        std::string(url) + "\"}")
            .first;
    };
    ASSERT_EQ(install(1, "http://h/a"), 0);
    ASSERT_EQ(install(2, "http://h/b"), 0);
    del_pkg(d_, object_of("2"));  // as the events of its failed install would, while it waits
    EXPECT_EQ(call(ops, "Cancel", R"({"RequestID":1,"OperateID":1})").first, ubus::kInvalidArgument);
    EXPECT_EQ(call(ops, "Cancel", R"({"RequestID":9,)" + ids + "}").first, ubus::kNotFound);
    EXPECT_EQ(call(ops, "Cancel", R"({"RequestID":2,)" + ids + "}").first, 0);  // waiting: stays
    EXPECT_EQ(call(ops, "Cancel", R"({"RequestID":1,)" + ids + "}").first, 0);
    EXPECT_EQ(workers.killed, std::vector<pid_t>{100});
    workers.exit(100);
    ASSERT_EQ(workers.started, (std::vector<std::int32_t>{1, 2}));
    EXPECT_EQ(d_.queue._info.front()->pkg->url, "http://h/b");

    workers.exit(101);
    workers.fail_start = true;
    EXPECT_EQ(install(3, "http://h/c"), ubus::kUnknownError);
    EXPECT_FALSE(on_bus(object_of("2")));
    // The Packages object's install keeps its package; only the operation is discarded.
    EXPECT_EQ(call(kPackages, "add", R"({"Source":{"Protocol":"http","Address":"h","Resource":"c"}})").second,
              R"({"Header":{"Name":"OPERATION_ERROR"}})");
    EXPECT_TRUE(on_bus(object_of("2")));
    EXPECT_TRUE(d_.queue._info.empty());

    // An update takes the package's source and credentials unless the request names others.
    workers.fail_start = false;
    pkg_info five = installed_package("5", 5);
    five.username = "user";
    five.password = "secret";
    ASSERT_TRUE(add_pkg(d_, "5", std::move(five)));
    EXPECT_EQ(call(object_of("5"), "Update",
                   R"({"Source":{"Protocol":"FTP","Address":"host","Resource":"x.ipk",)"
                   R"("Credentials":{"Username":"","Password":"pw"}}})")
                  .second,
              R"({"Header":{"Name":"OK"}})");
    const pkg_info& copy = *d_.queue._info.front()->pkg;
    EXPECT_EQ(copy.url.str() + " " + copy.username.str() + ":" + copy.password.str() + " " + copy.object_name,
              "ftp://host/x.ipk user:pw " + object_of("5"));
}

}  // namespace
}  // namespace daemon_test
