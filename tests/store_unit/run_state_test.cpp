// Deciding whether a package runs: identities of files, executables listed in a proc directory,
// and the matching of the two.
#include "pkgd/run_state.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "temp_dir.hpp"

namespace {

using namespace pkgd;
namespace fs = std::filesystem;

class RunStateTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(dir_.path().empty());
        store_test::write_file(dir_ / "daemon", "#!/bin/sh\n");
        store_test::write_file(dir_ / "tool", "#!/bin/sh\n");
        fs::create_hard_link(dir_ / "daemon", dir_ / "daemon-hard");
        fs::create_symlink(dir_ / "daemon", dir_ / "daemon-soft");
    }
    std::string path(const char* name) const { return (dir_ / name).string(); }
    file_id id_of(const char* name) const { return file_identity(path(name).c_str()).value(); }

    // A proc directory with one process per (pid, executable) pair.
    fs::path fake_proc(std::initializer_list<std::pair<const char*, fs::path>> processes) const {
        const fs::path proc = dir_ / "proc";
        fs::create_directory(proc);
        for (const auto& [pid, exe] : processes) {
            fs::create_directory(proc / pid);
            fs::create_symlink(exe, proc / pid / "exe");
        }
        return proc;
    }

    store_test::TempDir dir_;
};

TEST_F(RunStateTest, LinksLeadToTheSameFileAndVanishedPathsAreSkipped) {
    const std::string list =
        path("daemon-hard") + ";" + path("gone") + ";;" + path("daemon-soft") + ";" + path("tool") + ";";
    const std::vector<file_id> ids = file_list_identities(list);
    ASSERT_EQ(ids.size(), 3u);
    EXPECT_EQ(ids[0], id_of("daemon"));
    EXPECT_EQ(ids[1], id_of("daemon"));
    EXPECT_EQ(ids[2], id_of("tool"));
    EXPECT_NE(id_of("daemon"), id_of("tool"));
    // The last path needs no terminating ";".
    EXPECT_EQ(file_list_identities(path("tool")).size(), 1u);
}

TEST_F(RunStateTest, ExecutablesComeFromNumberedEntriesOnly) {
    const fs::path proc = fake_proc({{"12", dir_ / "daemon"},
                                     {"self", dir_ / "tool"},      // not a process number
                                     {"77", dir_ / "vanished"}});  // the process is gone
    const std::vector<file_id> exes = running_executables(proc.string());
    ASSERT_EQ(exes.size(), 1u);
    EXPECT_EQ(exes[0], id_of("daemon"));
    EXPECT_TRUE(running_executables(path("no-such-proc")).empty());
}

TEST_F(RunStateTest, MatchingNeedsDeviceAndInodeBoth) {
    const file_id a{1, 100}, b{1, 200}, c{2, 100};
    EXPECT_TRUE(any_file_running({b, a}, std::vector<file_id>{c, a}));
    EXPECT_FALSE(any_file_running({a}, std::vector<file_id>{b, c}));
    EXPECT_FALSE(any_file_running({}, std::vector<file_id>{a}));
    EXPECT_FALSE(any_file_running({a}, {}));
}

TEST_F(RunStateTest, PackageRunsWhenOneOfItsFilesIsALiveExecutable) {
    // This test's own executable is certainly running; reach it through a symbolic link.
    fs::create_symlink(fs::read_symlink("/proc/self/exe"), dir_ / "self-exe");
    pkg_info pkg;
    pkg.status = PKG_STATUS_INSTALLED;
    pkg.du.files = path("gone") + ";" + path("tool") + ";" + path("self-exe") + ";";
    EXPECT_EQ(package_ispkgactive(pkg), 0);
    EXPECT_EQ(package_get_status(pkg), "Running");

    pkg.du.files = path("tool") + ";" + path("gone") + ";";
    EXPECT_EQ(package_ispkgactive(pkg), -1);
    EXPECT_EQ(package_get_status(pkg), "Installed");

    pkg.du.files.reset();
    EXPECT_EQ(package_ispkgactive(pkg), -1);
    EXPECT_EQ(package_get_status(pkg), "Installed");

    // Only an installed package is looked at; the other states read as their names.
    pkg.du.files = path("self-exe");
    pkg.status = PKG_STATUS_UPDATING;
    EXPECT_EQ(package_get_status(pkg), "Updating");
    pkg.status = 7;
    EXPECT_EQ(package_get_status(pkg), "New");
}

}  // namespace
