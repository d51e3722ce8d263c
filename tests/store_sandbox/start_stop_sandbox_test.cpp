// Packages at run time inside a gateway: starting and stopping them through the simulator's
// service manager (which runs the root's init scripts), the LCM events on the bus, and the run
// state of a program that really runs, found through the package's own paths to it.
#include <cstdint>
#include <filesystem>

#include "pkgd/lcm_events.hpp"
#include "pkgd/run_state.hpp"
#include "worker.hpp"

namespace {

namespace fs = std::filesystem;
using namespace pkgd;
using gwtest::read_text;
using store_sandbox::run_as_worker;

constexpr const char* kPackageObject = "Services.Management.LCM.ExecutionEnvironments.System.Packages.3";

sandbox::GatewayOptions gateway_with_packages() {
    auto options = gwtest::named_gateway();
    options.simulator = true;
    options.prepare = [](const fs::path& root) {
        // Init scripts that note each call in /tmp/operations.
        for (const char* name : {"demo", "demo-watch", "lxc"})
            gwtest::write_script(root / "etc/init.d" / name,
                                 std::string("echo \"") + name + " $1\" >> /tmp/operations");
        // A program that runs as "sleep" by its name, so no other process of the gateway shares its file.
        fs::create_directories(root / "opt/app/bin");
        fs::create_directories(root / "usr/local/app");
        fs::copy_file(root / "bin/busybox", root / "opt/app/bin/sleep");
        fs::create_hard_link(root / "opt/app/bin/sleep", root / "usr/local/app/sleep-hard");
        fs::create_symlink("/opt/app/bin/sleep", root / "usr/local/app/sleep-soft");
        fs::copy_file(root / "bin/busybox", root / "usr/local/app/idle");
    };
    return options;
}

pkg_info ordinary_package() {
    pkg_info pkg;
    pkg.id = "3";
    pkg.object_name = kPackageObject;
    pkg.eu.push_back({4, "EU-4", "demo"});
    pkg.eu.push_back({6, "EU-6", "demo-watch"});
    pkg.eu.push_back({8, "EU-8", std::nullopt});  // no init script to name
    return pkg;
}

std::string event(const lcm_event& e, std::string_view body) {
    return std::string(kLcmEventType) + R"( {"Header":{"Code":)" + std::to_string(e.code) + R"(,"Name":")" +
           std::string(e.name) + "\"}" + std::string(body) + "}";
}
std::string package_body() {
    return std::string(R"(,"Body":{"PackageId":")") + kPackageObject + "\"}";
}

class PackagesInGateway : public gwtest::SharedGateway<gateway_with_packages> {
protected:
    void SetUp() override {
        ASSERT_NO_FATAL_FAILURE(SharedGateway::SetUp());
        ASSERT_TRUE(events_.listen(kLcmEventType));
        ASSERT_TRUE(gw_->set_fault("services", "normal"));
        ASSERT_TRUE(gw_->sim_reset());
        fs::remove(gw_->path("/tmp/operations"));
    }
    // package_start or package_stop of `pkg` inside the gateway: its answer.
    static std::string act(const pkg_info& pkg, bool start) {
        return run_as_worker(*gw_, [&pkg, start](std::string& out) {
            out = std::to_string(start ? package_start(pkg) : package_stop(pkg));
        });
    }
    gwtest::Client events_{*gw_};
};

TEST_F(PackagesInGateway, UnitsAreStartedAndStoppedThenAnnounced) {
    EXPECT_EQ(act(ordinary_package(), true), "0");
    EXPECT_EQ(act(ordinary_package(), false), "0");
    EXPECT_EQ(read_text(gw_->path("/tmp/operations")),
              "demo start\ndemo-watch start\ndemo stop\ndemo-watch stop\n");
    EXPECT_EQ(events_.events(2), (std::vector<std::string>{event(kLcmPackageEnabled, package_body()),
                                                           event(kLcmPackageDisabled, package_body())}));
}

TEST_F(PackagesInGateway, FailedRequestsGiveMinusOneAndNoEvent) {
    for (const char* mode : {"slow", "refuse", "absent"}) {
        SCOPED_TRACE(mode);
        ASSERT_TRUE(gw_->set_fault("services", mode));
        EXPECT_EQ(act(ordinary_package(), true), "-1");
        EXPECT_EQ(act(ordinary_package(), false), "-1");
    }
    EXPECT_FALSE(fs::exists(gw_->path("/tmp/operations")));
    // Events arrive in the order they were sent: the first one seen is this later one.
    run_as_worker(*gw_, [](std::string&) { package_event(kLcmExecEnvAdded, "", ""); });
    EXPECT_EQ(events_.events(1), std::vector<std::string>{event(kLcmExecEnvAdded, "")});
}

TEST_F(PackagesInGateway, EventsCarryABodyWhenGivenAKeyEvenWithAnEmptyValue) {
    run_as_worker(*gw_, [](std::string&) {
        package_event(kLcmExecEnvAdded, kLcmExecEnvIdKey, "");
        package_event(kLcmDeleteFailed, "", "no body");
    });
    EXPECT_EQ(events_.events(2),
              (std::vector<std::string>{event(kLcmExecEnvAdded, R"(,"Body":{"ExecutionEnvironmentId":""})"),
                                        event(kLcmDeleteFailed, "")}));
}

TEST_F(PackagesInGateway, AProgramRunsWhenReachedThroughAHardOrASymbolicLink) {
    // The status of a package reaching the program by a hard link, and of one reaching it by a
    // symbolic link (beside a program that does not run), as package_get_status answers inside.
    const auto statuses = [] {
        return run_as_worker(*gw_, [](std::string& out) {
            for (const char* files :
                 {"/gone;/usr/local/app/sleep-hard;", "/usr/local/app/idle;/usr/local/app/sleep-soft"}) {
                pkg_info pkg;
                pkg.status = PKG_STATUS_INSTALLED;
                pkg.du.files = files;
                out += std::string(package_get_status(pkg)) + " ";
            }
        });
    };
    EXPECT_EQ(statuses(), "Installed Installed ");
    sandbox::InsideProcess program = gw_->spawn({"/opt/app/bin/sleep", "600"});
    ASSERT_TRUE(program.started()) << program.error();
    EXPECT_EQ(statuses(), "Running Running ");
}

}  // namespace
