// What the daemon's unit tests run against: a daemon context on a scratch record directory, a
// broker of its own (our ubusd as a child process), a system that says what each case needs, and
// a client to call the daemon's objects with while the test's thread serves them.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <functional>
#include <filesystem>
#include <map>
#include <thread>
#include <utility>

#include "broker_process.hpp"
#include "daemon/daemon_context.hpp"
#include "ubus/json.hpp"

namespace daemon_test {

namespace fs = std::filesystem;
using namespace pkgd;

inline constexpr std::string_view kPackages = "Services.Management.LCM.ExecutionEnvironments.System.Packages";

inline std::string object_of(std::string_view id) {
    return std::string(kPackages) + "." + std::string(id);
}

struct FakeSystem final : SystemEnv {
    std::optional<std::string> memory;
    std::optional<fs_figures> disk;
    std::map<std::string, file_id> files;  // the paths that exist
    std::vector<file_id> running;
    std::optional<std::string> meminfo() override { return memory; }
    std::optional<fs_figures> root_fs() override { return disk; }
    std::function<void()> on_file_lookup;  // what happens meanwhile, as a List reads the files
    std::optional<file_id> file_identity(const std::string& path) override {
        if (on_file_lookup) on_file_lookup();
        const auto it = files.find(path);
        return it == files.end() ? std::nullopt : std::optional(it->second);
    }
    std::vector<file_id> running_executables() override { return running; }
    std::time_t now() override { return 0; }
};

inline pkg_info installed_package(std::string id, std::int32_t du) {
    pkg_info pkg;
    pkg.id = std::move(id);
    pkg.url = "http://feed.example/" + pkg.id + ".ipk";
    pkg.du.index = du;
    pkg.du.uuid = "uuid-" + pkg.id;
    pkg.du.name = "app-" + pkg.id;
    pkg.du.version = "1.0";
    pkg.du.enabled = 1;
    pkg.du.time = "2024-03-05T07:08:09+01:00";
    return pkg;
}

// A record in one line: what restore and event intake put into it.
inline std::string describe(const registered_pkg* entry) {
    if (!entry) return "(not registered)";
    const pkg_info& pkg = *entry->pkg;
    std::string text = pkg.id + " status=" + std::to_string(pkg.status) + " v" + pkg.du.version.str() + " eu=";
    for (const eu_info& eu : pkg.eu) text += std::to_string(eu.index) + ":" + eu.name.value_or("-") + ",";
    text += " ee=" + (pkg.ee ? std::to_string(pkg.ee->index) + ":" + pkg.ee->name.value_or("-") : "-");
    return text + " " + pkg.url.str() + " " + pkg.username.str() + ":" + pkg.password.str() +
           " noauto=" + std::to_string(pkg.disable_autostart);
}

class DaemonTest : public ::testing::Test {
protected:
    DaemonTest() {
        for (const char* dir : {"pkg", "du", "eu", "ee"}) fs::create_directories(dir_ / dir);
        d_.object = kPackages;
        EXPECT_EQ(d_.ctx.connect(broker_.socket()), ubus::kOk);
        EXPECT_EQ(client_.connect(broker_.socket()), ubus::kOk);
    }

    // The record files of `pkg`, as a worker writes them.
    void seed(const pkg_info& pkg) {
        d_.files.store_du(pkg);
        d_.files.store_eu(pkg);
        d_.files.store_ee(pkg);
        d_.files.store_pkg(pkg);
    }
    void write(const std::string& pkg_file, std::string_view text) { std::ofstream(dir_ / "pkg" / pkg_file) << text; }

    // `method` of `object` with JSON arguments, the daemon serving meanwhile: status and replies.
    std::pair<int, std::string> call(std::string_view object, std::string_view method, std::string_view json = "{}") {
        std::atomic<bool> done{false};
        std::thread server([&] {
            while (!done) d_.ctx.dispatch(10);
        });
        ubus::BlobBuf args;
        std::uint32_t id = 0;
        std::string reply;
        int status = client_.lookup_id(object, id);
        if (status == ubus::kOk && ubus::json_load(args, json))
            status = client_.invoke(
                id, method, args.members(), [&](ubus::Bytes m) { ubus::json_format_list(reply, m, false); }, 10000);
        done = true;
        server.join();
        return {status, reply};
    }
    bool on_bus(std::string_view object) {
        std::uint32_t id = 0;
        return client_.lookup_id(object, id) == ubus::kOk;
    }

    bus_test::BrokerProcess broker_;
    bus_test::TempDir scratch_;
    fs::path dir_ = scratch_.path();
    FakeSystem sys_;
    daemon_context d_{RecordFiles(dir_.string(), "System", false), ee_identity{}, sys_};
    ubus::Connection client_;
};

}  // namespace daemon_test
