// A record write cut short: the writer is killed at the moment it would put the new file in
// place, as a power cut could stop it.
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstddef>
#include <filesystem>

#include "pkgd/record_files.hpp"
#include "store_gateway.hpp"

namespace {

namespace fs = std::filesystem;
using store_sandbox::read_text;
using store_sandbox::run_as_worker;

// From now on the process is killed by the kernel (SIGSYS) when it tries to rename a file.
bool die_on_rename() {
    sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
#ifdef __NR_rename
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_rename, 3, 0),
#else
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_renameat, 2, 0),
#endif
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_renameat, 2, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_renameat2, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS),
    };
    sock_fprog program{static_cast<unsigned short>(std::size(filter)), filter};
    return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           ::syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, 0, &program) == 0;
}

pkgd::pkg_info package(const char* version) {
    pkgd::pkg_info pkg;
    pkg.id = "3";
    pkg.du.index = 7;
    pkg.du.name = "demo";
    pkg.du.version = version;
    return pkg;
}

TEST(InterruptedWriteInGateway, OldRecordStaysWhole) {
    sandbox::GatewayOptions options;
    options.name = "store-interrupted";
    sandbox::Gateway gw(options);
    ASSERT_TRUE(gw.up()) << gw.error();

    run_as_worker(gw, [](std::string&) { pkgd::package_store_du_info(package("1.0")); });
    const fs::path record = gw.path("/usr/local/package/du/7");
    const std::string old_text = read_text(record);
    ASSERT_NE(old_text.find(R"("version":"1.0")"), std::string::npos) << old_text;

    const sandbox::CommandResult cut = gw.run_inside([](std::string& out) {
        ::unsetenv("EXECENV_INDEX");
        pkgd::package_init_env();
        if (!die_on_rename()) {
            out = "cannot install the filter";
            return 1;
        }
        pkgd::package_store_du_info(package("2.0"));
        out = "the write finished without renaming";
        return 1;
    });
    ASSERT_EQ(cut.exit_code, 128 + SIGSYS) << cut.out << cut.err;

    // The new content got as far as a hidden file beside the record, never into the record.
    EXPECT_EQ(read_text(record), old_text);
    std::vector<std::string> others;
    for (const auto& entry : fs::directory_iterator(record.parent_path()))
        if (entry.path() != record) others.push_back(read_text(entry.path()));
    ASSERT_EQ(others.size(), 1u);
    EXPECT_NE(others[0].find(R"("version":"2.0")"), std::string::npos) << others[0];

    // A later write (by another worker) replaces the record as usual.
    run_as_worker(gw, [](std::string&) { pkgd::package_store_du_info(package("3.0")); });
    EXPECT_NE(read_text(record).find(R"("version":"3.0")"), std::string::npos);
}

}  // namespace
