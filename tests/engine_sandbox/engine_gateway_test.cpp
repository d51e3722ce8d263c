// The engine on a gateway: the package tool, a signed feed served by real HTTP, HTTPS and FTP
// servers, and the simulator's catalog, data model and service manager. Each operation runs as a
// worker runs it, inside the gateway, and is judged by what a management client sees: the LCM
// events and the one result, the record files, the catalog, the data model and the syslog.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <random>

#include "gateway_client.hpp"
#include "pkgd/engine.hpp"
#include "pkgd/identity.hpp"
#include "sandbox/feed/index.hpp"
#include "sandbox/feed/package.hpp"
#include "sandbox/feed/pki.hpp"

namespace {

namespace fs = std::filesystem;
namespace feed = sandbox::feed;
using namespace pkgd;

constexpr std::string_view kObject = "Services.Management.LCM.ExecutionEnvironments.System.Packages.";
constexpr std::string_view kUser = "feeder";
constexpr std::string_view kPassword = "pa$$ 'w0rd";  // a shell would choke on it; nothing may

fs::path scratch_feed() {
    std::string pattern = std::string(ENGINE_FEED_SCRATCH_DIR) + "/feed-XXXXXX";
    fs::path dir = ::mkdtemp(pattern.data());
    ::chmod(dir.c_str(), 0755);  // the FTP session's user reads it
    return dir;
}

fs::path g_feed_dir;  // this test process's feed

sandbox::GatewayOptions feed_gateway() {
    sandbox::GatewayOptions options = gwtest::named_gateway();
    options.simulator = true;
    options.feed_dir = g_feed_dir = scratch_feed();
    options.feed_user = kUser;
    options.feed_password = kPassword;
    return options;
}

// The suite's fixture over the gateway it runs on.
template <sandbox::GatewayOptions (*Options)()>
class EngineGateway : public gwtest::SharedGateway<Options> {
protected:
    using gwtest::SharedGateway<Options>::gw_;

    static void TearDownTestSuite() {
        gwtest::SharedGateway<Options>::TearDownTestSuite();
        fs::remove_all(g_feed_dir);
    }

    static inline std::vector<std::string> records_;  // the feed index so far

    // Builds a package and lists it in the signed index; its file name in the feed.
    static std::string publish(const std::string& name, const std::string& version,
                               feed::Hostile hostile = feed::Hostile::none, std::string section = "utils",
                               feed::Tree extra = {}) {
        const feed::Pki pki = feed::load_pki(gw_->feed_pki_dir());
        feed::PackageSpec spec;
        spec.control = "Package: " + name + "\nVersion: " + version + "\nArchitecture: all\nMaintainer: ACME\n" +
                       "Section: " + section + "\nDescription: " + name + " for the tests\n";
        spec.tree = {feed::file_entry("usr/bin/" + name, "#!/bin/sh\nexec sleep 600\n", 0755),
                     feed::file_entry("etc/init.d/" + name, "#!/bin/sh\nexit 0\n", 0755)};
        spec.tree.insert(spec.tree.end(), extra.begin(), extra.end());
        spec.hostile = hostile;
        spec.dot_slash_names = true;  // as stock package tools name the members
        const feed::Package pkg = feed::build_package(spec, pki);
        const std::string file = name + "_" + version + "_all.ipk";
        std::ofstream(g_feed_dir / file, std::ios::binary) << pkg.bytes;
        records_.push_back(feed::index_record(pkg.index_control, file, pkg.bytes, pkg.installed_size));
        feed::write_index(g_feed_dir, feed::index_text(records_), pki.signer);
        return file;
    }

    static std::string url(std::string_view scheme, const std::string& file) {
        return gw_->feed_url(scheme) + "/" + file;
    }

    // One operation of `type` on package `id`, run inside the gateway as a worker runs it.
    static int operate(int type, const std::string& id, const std::string& url_text,
                       std::int32_t operate_duid = 0) {
        std::string out;
        const sandbox::CommandResult r = gw_->run_inside([&](std::string& result) {
            ::unsetenv("EXECENV_INDEX");
            package_init_env();
            ::mkdir("/tmp/opkg-System", 0755);
            engine_context ctx = engine_context::gateway();
            operation_info op;
            op.type = type;
            op.request_id = 7;
            op.operate_duid = operate_duid;
            op.pkg = std::make_shared<pkg_info>();
            op.pkg->id = id;
            op.pkg->object_name = std::string(kObject) + id;
            if (type != OPERATION_INSTALL) ctx.records.load_pkg(*op.pkg);
            if (!url_text.empty()) op.pkg->url = url_text;
            op.pkg->username = kUser;
            op.pkg->password = kPassword;
            int rc = 0;
            switch (type) {
                case OPERATION_INSTALL: rc = package_opkg_install_operate(ctx, op); break;
                case OPERATION_UPDATE: rc = package_opkg_update_operate(ctx, op); break;
                case OPERATION_REMOVE: rc = package_opkg_remove_operate(ctx, op); break;
                default: rc = package_opkg_islatestversion(ctx, *op.pkg); break;
            }
            result = std::to_string(rc);
            return 0;
        }, std::chrono::seconds(120));
        EXPECT_TRUE(r.ok()) << r.err;
        return r.ok() ? std::stoi(r.out) : -99;
    }

    static gwtest::Client listener() {
        gwtest::Client bus(*gw_);
        EXPECT_TRUE(bus.listen("Services.Management.LCM"));
        EXPECT_TRUE(bus.listen("SOFTWAREMODULES.PACKAGE.OPERATIONSRESULT"));
        return bus;
    }
};

using V = std::vector<std::string>;
using EngineInGateway = EngineGateway<feed_gateway>;

std::size_t files_in(const fs::path& dir) {
    return static_cast<std::size_t>(std::distance(fs::directory_iterator(dir), fs::directory_iterator()));
}

TEST_F(EngineInGateway, InstallOverEachTransportThenRemoveLeavesNothingBehind) {
    const std::string file = publish("hello", "1.0");
    int n = 0;
    for (const char* scheme : {"http", "https", "ftp"}) {
        SCOPED_TRACE(scheme);
        const std::string id = std::to_string(++n);
        gwtest::Client bus = listener();
        ASSERT_EQ(operate(OPERATION_INSTALL, id, url(scheme, file)), 0);
        EXPECT_EQ(bus.story(5), (V{"20", "6", "21", "result 0", "8"}));
        EXPECT_TRUE(fs::exists(gw_->path("/usr/bin/hello")));
        EXPECT_TRUE(fs::exists(gw_->path("/usr/local/package/pkg/" + id)));
        struct stat st {};
        ASSERT_EQ(::stat(gw_->path("/usr/local/package/pkg/" + id).c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 0777, 0600u) << "the package record holds the feed password";
        EXPECT_NE(gwtest::sim_state(*gw_, "catalog").find("\"ExecutionUnit\""), std::string::npos);
        EXPECT_NE(gwtest::sim_state(*gw_, "datamodel").find("ExecutionUnit."), std::string::npos);

        gwtest::Client after = listener();
        ASSERT_EQ(operate(OPERATION_REMOVE, id, ""), 0);
        EXPECT_EQ(after.story(3), (V{"22", "13", "result 0"}));
        EXPECT_FALSE(fs::exists(gw_->path("/usr/bin/hello")));
        EXPECT_FALSE(fs::exists(gw_->path("/usr/local/package/pkg/" + id)));
        EXPECT_EQ(gwtest::sim_state(*gw_, "catalog").find("\"ExecutionUnit\":{\""), std::string::npos);
    }
    const std::string syslog = gwtest::read_text(gw_->path("/var/log/messages"));
    EXPECT_NE(syslog.find("Install package "), std::string::npos);
    EXPECT_EQ(syslog.find(std::string(kPassword)), std::string::npos);
    EXPECT_FALSE(fs::exists(gw_->path("/tmp/.ipk.conf"))) << "the install removes its configuration";
}

// Each failure the real tools and peers can produce: the fault the management side is told, the
// events, and no record, instance or file of the package left behind. (The kinds of bad package are
// told apart by the engine's unit tests; here one stands for them, against the gateway's own trust
// anchor.)
TEST_F(EngineInGateway, FailedInstallsReportTheirFaultAndUndo) {
    const std::string long_name(42, 'n');  // its unit list's path does not fit: discovery fails
    ASSERT_EQ(operate(OPERATION_INSTALL, "90", url("http", publish("owner", "1.0"))), 0);
    struct Case {
        std::string name;
        std::function<std::string()> prepare;  // publishes what the case needs; the URL to install
        V story;
    };
    const Case cases[] = {
        {"untrusted",
         [] { return url("http", publish("untrusted", "1.0", feed::Hostile::untrusted_signer)); },
         {"20", "result 9018", "9"}},
        {"nofeed", [] { return gw_->feed_url("http") + "/nowhere/nofeed_1.0_all.ipk"; }, {"20", "result 9017", "7"}},
        {"vanished",
         [] {
             const std::string file = publish("vanished", "1.0");
             fs::remove(g_feed_dir / file);
             return url("http", file);
         },
         {"20", "result 9017", "7"}},
        {"owner", [] { return url("http", "owner_1.0_all.ipk"); }, {"20", "result 9026", "7"}},
        {"clash",
         [] {
             return url("http", publish("clash", "1.0", feed::Hostile::none, "utils",
                                        {feed::file_entry("usr/bin/owner", "mine\n", 0755)}));
         },
         {"20", "6", "21", "result 9001", "9"}},
        {long_name, [&] { return url("http", publish(long_name, "1.0")); }, {"20", "6", "21", "result 9001", "9"}},
        {"nomodel",
         [] {
             EXPECT_TRUE(gw_->set_fault("datamodel", "absent"));
             return url("http", publish("nomodel", "1.0"));
         },
         {"20", "result 9027", "9"}},
    };
    int id = 100;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string package_url = c.prepare();
        const std::size_t du_files = files_in(gw_->path("/usr/local/package/du"));
        gwtest::Client bus = listener();
        EXPECT_EQ(operate(OPERATION_INSTALL, std::to_string(++id), package_url), -1);
        EXPECT_EQ(bus.story(c.story.size()), c.story);
        EXPECT_TRUE(gw_->set_fault("datamodel", "normal"));
        if (c.name != "owner") {
            EXPECT_FALSE(fs::exists(gw_->path("/usr/bin/" + c.name)));
        }
        EXPECT_FALSE(fs::exists(gw_->path("/usr/local/package/pkg/" + std::to_string(id))));
        EXPECT_EQ(files_in(gw_->path("/usr/local/package/du")), du_files);
    }
    EXPECT_EQ(gwtest::read_text(gw_->path("/usr/bin/owner")), "#!/bin/sh\nexec sleep 600\n")
        << "a refused package changed another's file";
}

sandbox::GatewayOptions small_disk_gateway() {
    sandbox::GatewayOptions options = feed_gateway();
    options.root_size_mib = 20;
    return options;
}
using EngineOnASmallDisk = EngineGateway<small_disk_gateway>;

// The disk check looks at the gateway's real file system: a package that would fill it beyond
// three quarters is refused before anything is downloaded.
TEST_F(EngineOnASmallDisk, APackageTooLargeForTheDiskIsRefused) {
    // Incompressible, so that the package itself is as large as its payload.
    std::string payload(16u << 20, '\0');
    std::mt19937 random(7);
    for (char& c : payload) c = static_cast<char>(random());
    const std::string file =
        publish("big", "1.0", feed::Hostile::none, "utils", {feed::file_entry("usr/share/big.bin", payload)});
    gwtest::Client bus = listener();
    EXPECT_EQ(operate(OPERATION_INSTALL, "1", url("http", file)), -1);
    EXPECT_EQ(bus.story(3), (V{"20", "result 9027", "7"}));
    EXPECT_FALSE(fs::exists(gw_->path("/tmp/" + file)));
}

TEST_F(EngineInGateway, UpdateTakesTheFeedsNewVersionAndFailuresKeepWhatIsInstalled) {
    const std::string v1 = publish("tool", "1.0");
    ASSERT_EQ(operate(OPERATION_INSTALL, "200", url("http", v1)), 0);
    const std::string v2 = publish("tool", "1.10");
    EXPECT_EQ(operate(-1, "200", url("http", v2)), 1) << "1.10 orders after 1.0";

    gwtest::Client bus = listener();
    ASSERT_EQ(operate(OPERATION_UPDATE, "200", url("http", v2)), 0);
    // The units are stopped through the service manager before the new version goes in.
    EXPECT_EQ(bus.story(4), (V{"23", "11", "result 0", "25"}));
    EXPECT_NE(gwtest::read_text(gw_->path("/usr/lib/opkg/info/tool.control")).find("Version: 1.10"),
              std::string::npos);
    EXPECT_EQ(operate(-1, "200", url("http", v2)), 0);

    // A failed update keeps the installed version and starts its units again.
    const std::string v3 = publish("tool", "1.11");
    fs::remove(g_feed_dir / v3);
    gwtest::Client failed = listener();
    operate(OPERATION_UPDATE, "200", url("http", v3));
    EXPECT_EQ(failed.story(4), (V{"23", "result 9017", "24", "10"}));
    EXPECT_NE(gwtest::read_text(gw_->path("/usr/lib/opkg/info/tool.control")).find("Version: 1.10"),
              std::string::npos);

    // A removal the package tool refuses deletes nothing.
    ASSERT_TRUE(gw_->run({"opkg", "remove", "tool"}).ok());
    gwtest::Client refused = listener();
    EXPECT_EQ(operate(OPERATION_REMOVE, "200", ""), -1);
    EXPECT_EQ(refused.story(3), (V{"22", "result 9001", "14"}));
    EXPECT_TRUE(fs::exists(gw_->path("/usr/local/package/pkg/200")));
}

TEST_F(EngineInGateway, AnEnvironmentPackageIsAnnouncedAddedAndDeleted) {
    const std::string file = publish("lxc-box", "1.0", feed::Hostile::none, "LXC container");
    gwtest::Client bus = listener();
    ASSERT_EQ(operate(OPERATION_INSTALL, "300", url("http", file)), 0);
    EXPECT_EQ(bus.story(6), (V{"20", "6", "21", "result 0", "8", "1"}));
    gwtest::Client after = listener();
    ASSERT_EQ(operate(OPERATION_REMOVE, "300", ""), 0);
    EXPECT_EQ(after.story(4), (V{"22", "5", "13", "result 0"}));
}

// Request data never reaches a shell: texts a shell would run are plain, failing names.
TEST_F(EngineInGateway, ShellTextInTheUrlRunsNothing) {
    for (const std::string file : {"x;touch /tmp/canary;.ipk", "$(touch /tmp/canary).ipk", "`touch /tmp/canary`.ipk"}) {
        EXPECT_EQ(operate(OPERATION_INSTALL, "400", url("http", file)), -1) << file;
    }
    EXPECT_FALSE(fs::exists(gw_->path("/tmp/canary")));
}

}  // namespace
