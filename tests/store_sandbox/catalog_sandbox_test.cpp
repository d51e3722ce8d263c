// Record files on the gateway's paths: the LCM catalog kept in step with them (read back from the
// simulator's state), and a write cut short.
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstddef>

#include "pkgd/catalog.hpp"
#include "pkgd/record_files.hpp"
#include "sample_records.hpp"
#include "ubus/json.hpp"
#include "worker.hpp"

namespace {

namespace fs = std::filesystem;
using namespace pkgd;
using gwtest::read_text;
using gwtest::sim_requests;
using store_sandbox::run_as_worker;
using store_test::environment_package;
using store_test::json_of;
using store_test::ordinary_package;

std::string update(const char* type, std::int32_t index, const std::string& record) {
    return std::string(R"(catalog.update {"Type":")") + type + R"(","index":)" + std::to_string(index) +
           R"(,"extra":)" + record + "}";
}
std::string removal(const char* type, std::int32_t index) {
    return std::string(R"(catalog.delete {"Type":")") + type + R"(","Index":)" + std::to_string(index) + "}";
}

sandbox::GatewayOptions sim_gateway() {
    auto options = gwtest::named_gateway();
    options.simulator = true;
    return options;
}

class CatalogInGateway : public gwtest::SharedGateway<sim_gateway> {
protected:
    void SetUp() override {
        ASSERT_NO_FATAL_FAILURE(SharedGateway::SetUp());
        ASSERT_TRUE(gw_->set_fault("catalog", "normal"));
        ASSERT_TRUE(gw_->sim_reset());
    }
};

TEST_F(CatalogInGateway, EveryUnitWriteAndDeleteIsMirrored) {
    run_as_worker(*gw_, [](std::string&) {
        package_store_du_info(ordinary_package());
        package_store_pkg_info(ordinary_package());  // local only
        package_store_eu_info(ordinary_package());
        package_store_ee_info(ordinary_package());  // no environment: nothing
        package_store_ee_info(environment_package());
    });
    // The catalog is sent exactly what the files hold.
    const pkg_info pkg = ordinary_package();
    const pkg_info env = environment_package();
    const std::string du = json_of([&](auto& m) { du_record_message(m, pkg, "System"); });
    const std::string eu4 = json_of([&](auto& m) { eu_record_message(m, pkg, pkg.eu[0], "System"); });
    const std::string eu6 = json_of([&](auto& m) { eu_record_message(m, pkg, pkg.eu[1], "System"); });
    const std::string ee = json_of([&](auto& m) { ee_record_message(m, env, *env.ee, "System"); });
    EXPECT_EQ(read_text(gw_->path("/usr/local/package/du/7")), du);
    EXPECT_EQ(
        sim_requests(*gw_, "catalog"),
        (std::vector<std::string>{update("DeploymentUnit", 7, du), update("ExecutionUnit", 4, eu4),
                                  update("ExecutionUnit", 6, eu6), update("ExecutionEnvironment", 2, ee)}));

    ASSERT_TRUE(gw_->sim_reset());
    EXPECT_EQ(
        run_as_worker(*gw_,
                      [](std::string& out) {
                          const pkg_info stored = ordinary_package();
                          package_delete_du_info(stored);
                          package_delete_eu_info(stored);
                          package_delete_ee_info(environment_package());
                          out += std::to_string(package_delete_pkg_info(stored));
                          out += std::to_string(package_delete_pkg_info(stored));
                          package_delete_du_info(stored);  // the file is gone; the catalog is still told
                      }),
        "0-1");
    EXPECT_EQ(sim_requests(*gw_, "catalog"),
              (std::vector<std::string>{removal("DeploymentUnit", 7), removal("ExecutionUnit", 4),
                                        removal("ExecutionUnit", 6), removal("ExecutionEnvironment", 2),
                                        removal("DeploymentUnit", 7)}));
    for (const char* file : {"du/7", "eu/4", "ee/2", "pkg/3"})
        EXPECT_FALSE(fs::exists(gw_->path("/usr/local/package/" + std::string(file)))) << file;
}

TEST_F(CatalogInGateway, RecordsAreWrittenWithoutACatalog) {
    ASSERT_TRUE(gw_->set_fault("catalog", "absent"));
    ASSERT_TRUE(gw_->sim_reset());
    // Written, then read back inside as the daemon would.
    EXPECT_EQ(run_as_worker(*gw_,
                            [](std::string& out) {
                                package_store_du_info(ordinary_package());
                                pkg_info pkg;
                                out = std::to_string(package_get_du_info(pkg, 7));
                                out += " " + pkg.du.name.value_or("?");
                            }),
              "0 demo");
    EXPECT_TRUE(sim_requests(*gw_, "catalog").empty());
}

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

pkg_info version(const char* text) {
    pkg_info pkg = ordinary_package();
    pkg.du.version = text;
    return pkg;
}

TEST(InterruptedWriteInGateway, OldRecordStaysWhole) {
    sandbox::Gateway gw(gwtest::named_gateway());
    ASSERT_TRUE(gw.up()) << gw.error();
    run_as_worker(gw, [](std::string&) { package_store_du_info(version("1.0")); });
    const fs::path record = gw.path("/usr/local/package/du/7");
    const std::string old_text = read_text(record);
    ASSERT_NE(old_text.find(R"("version":"1.0")"), std::string::npos) << old_text;

    const sandbox::CommandResult cut = gw.run_inside([](std::string& out) {
        ::unsetenv("EXECENV_INDEX");
        package_init_env();
        if (!die_on_rename()) {
            out = "cannot install the filter";
            return 1;
        }
        package_store_du_info(version("2.0"));
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
    run_as_worker(gw, [](std::string&) { package_store_du_info(version("3.0")); });
    EXPECT_NE(read_text(record).find(R"("version":"3.0")"), std::string::npos);
}

}  // namespace
