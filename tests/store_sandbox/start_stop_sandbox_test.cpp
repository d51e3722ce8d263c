// Packages at run time inside a gateway: the run state of a program that really runs, found
// through the package's own paths to it. (Starting and stopping through the service manager is
// driven through pkgd's own objects in the requests and waits tests.)
#include <cstdint>
#include <filesystem>

#include "pkgd/run_state.hpp"
#include "poll.hpp"
#include "worker.hpp"

namespace {

namespace fs = std::filesystem;
using namespace pkgd;
using store_sandbox::run_as_worker;

sandbox::GatewayOptions gateway_with_packages() {
    auto options = gwtest::named_gateway();
    options.simulator = true;
    options.prepare = [](const fs::path& root) {
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

using PackagesInGateway = gwtest::SharedGateway<gateway_with_packages>;

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
    // Started means forked: the sandbox's helper becomes the program a moment later.
    std::string seen;
    EXPECT_TRUE(testsupport::poll_until(std::chrono::seconds(10), [&] { return (seen = statuses()) == "Running Running "; }))
        << seen;
}

}  // namespace
