// Run state of a package whose program really runs inside the gateway, found through the
// package's own paths to it.
#include <filesystem>

#include "pkgd/run_state.hpp"
#include "store_gateway.hpp"

namespace {

namespace fs = std::filesystem;
using store_sandbox::run_as_worker;

// The package's program: a copy of the root's busybox that runs as "sleep" by its name, so no other
// process of the gateway shares its file.
void install_program(const fs::path& root) {
    fs::create_directories(root / "opt/app/bin");
    fs::create_directories(root / "usr/local/app");
    fs::copy_file(root / "bin/busybox", root / "opt/app/bin/sleep");
    fs::create_hard_link(root / "opt/app/bin/sleep", root / "usr/local/app/sleep-hard");
    fs::create_symlink("/opt/app/bin/sleep", root / "usr/local/app/sleep-soft");
    fs::copy_file(root / "bin/busybox", root / "usr/local/app/idle");
}

// "name=answer " for each file list, as package_ispkgactive answers inside the gateway.
std::string answers(const sandbox::Gateway& gw) {
    return run_as_worker(gw, [](std::string& out) {
        const std::pair<const char*, const char*> lists[] = {
            {"hard", "/usr/local/package/gone;/usr/local/app/sleep-hard;"},
            {"soft", "/usr/local/app/idle;/no/such/file;/usr/local/app/sleep-soft"},
            {"other", "/usr/local/app/idle;/etc/init.d/;"},
        };
        for (const auto& [name, files] : lists) {
            pkgd::pkg_info pkg;
            pkg.status = pkgd::PKG_STATUS_INSTALLED;
            pkg.du.files = files;
            out += std::string(name) + "=" + std::string(pkgd::package_get_status(pkg)) + " ";
        }
    });
}

TEST(RunStateInGateway, ProgramReachedThroughHardAndSymbolicLinks) {
    sandbox::GatewayOptions options;
    options.name = "store-run-state";
    options.prepare = install_program;
    sandbox::Gateway gw(options);
    ASSERT_TRUE(gw.up()) << gw.error();

    EXPECT_EQ(answers(gw), "hard=Installed soft=Installed other=Installed ");

    sandbox::InsideProcess program = gw.spawn({"/opt/app/bin/sleep", "600"});
    ASSERT_TRUE(program.started()) << program.error();
    EXPECT_EQ(answers(gw), "hard=Running soft=Running other=Installed ");

    program.stop();
    EXPECT_EQ(answers(gw), "hard=Installed soft=Installed other=Installed ");
}

}  // namespace
