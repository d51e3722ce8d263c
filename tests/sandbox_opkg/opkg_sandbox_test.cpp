// The package tool inside a sandbox gateway, run as pkgd runs it: feeds and packages as file://
// URLs and files in the root.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <memory>

#include "gateway_client.hpp"
#include "sandbox/feed/index.hpp"
#include "sandbox/feed/package.hpp"
#include "sandbox/feed/signature.hpp"

namespace {

namespace fs = std::filesystem;
namespace feed = sandbox::feed;
using feed::file_entry;

class OpkgSandbox : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        sandbox::GatewayOptions options;
        options.name = "opkg";
        options.broker = false;
        options.tools = {{OPKG_PATH, "/bin/opkg"}};
        gw_ = std::make_unique<sandbox::Gateway>(options);
        pki_ = feed::make_pki();
    }
    static void TearDownTestSuite() { gw_.reset(); }
    void SetUp() override { ASSERT_TRUE(gw_->up()) << gw_->error(); }

    static sandbox::CommandResult opkg(std::vector<std::string> args) {
        args.insert(args.begin(), "/bin/opkg");
        return gw_->run(args);
    }
    static void put(const std::string& inside, const std::string& content) {
        const fs::path host = gw_->path(inside);
        fs::create_directories(host.parent_path());
        std::ofstream(host, std::ios::binary) << content;
    }
    static std::string read(const std::string& inside) { return gwtest::read_text(gw_->path(inside)); }
    static bool exists(const std::string& inside) {
        return fs::exists(fs::symlink_status(gw_->path(inside)));
    }
    // Every path below these directories with its contents or link target: the state an install
    // that fails must leave as it found it.
    static std::map<std::string, std::string> snapshot() {
        std::map<std::string, std::string> state;
        for (const char* top : {"/opt", "/etc", "/usr/lib/opkg/info"})
            for (const auto& e : fs::recursive_directory_iterator(gw_->path(top))) {
                const std::string inside = "/" + e.path().lexically_relative(gw_->root()).string();
                state[inside] = e.is_symlink()        ? "-> " + fs::read_symlink(e.path()).string()
                                : e.is_regular_file() ? read(inside)
                                                      : "dir";
            }
        return state;
    }
    static std::string script(const std::string& name, const std::string& body) {
        return "#!/bin/sh\necho \"$1\" >> /tmp/" + name + ".log\n" + body;
    }
    // A package whose data members are named "./PATH", as stock package tools name them.
    static std::string ipk(const std::string& control, const feed::Tree& data,
                           const std::map<std::string, std::string>& scripts = {}) {
        feed::PackageSpec spec;
        spec.control = control;
        spec.tree = data;
        spec.scripts = scripts;
        spec.dot_slash_names = true;
        return feed::build_package(spec, pki_).bytes;
    }
    static std::string control(const std::string& name, const std::string& version) {
        return "Package: " + name + "\nVersion: " + version +
               "\nArchitecture: arm\nDescription: test\n more\n";
    }
    static inline std::unique_ptr<sandbox::Gateway> gw_;
    static inline feed::Pki pki_;
};

TEST_F(OpkgSandbox, UpdateReplacesTheIndexOnlyWhenItsSignatureHolds) {
    put("/etc/opkg/ca.pem", pki_.ca.cert_pem);
    const std::string index = "Package: a\nVersion: 2\nFilename: a_2.ipk\nSize: 10\n\n";
    const struct {
        const char* name;
        bool check;
        std::optional<std::string> signature;  // none: the index's own; empty: none published
        bool updated;
    } cases[] = {
        {"good", true, std::nullopt, true},
        {"unsigned", false, "", true},
        {"missing", true, "", false},
        {"stranger", true, feed::sign_detached(index, pki_.untrusted_signer), false},
        {"expired", true, feed::sign_detached(index, pki_.expired_signer), false},
        {"tampered", true, feed::sign_detached(index + "Package: evil\n", pki_.signer), false},
        {"garbage", true, "not a signature", false},
    };
    for (const auto& c : cases) {
        const std::string dir = std::string("/srv/") + c.name;
        fs::create_directories(gw_->path(dir));
        feed::write_index(gw_->path(dir), index, pki_.signer);
        if (c.signature) fs::remove(gw_->path(dir + "/Packages.sig"));
        if (c.signature && !c.signature->empty()) put(dir + "/Packages.sig", *c.signature);
        const std::string lists = std::string("/var/lists-") + c.name;
        put(lists + "/ipklist", "old index\n");
        put("/tmp/update.conf",
            "src/gz ipklist file://" + dir + "\narch arm 100\noption proxy_passwd S3cr3t\n" +
                "option lists_dir ext " + lists + "\n" +
                (c.check ? "option signature_ca_path /etc/opkg/\noption signature_ca_file /etc/opkg/ca.pem\n"
                           "option check_signature\n"
                         : ""));
        const sandbox::CommandResult r = opkg({"update", "-f", "/tmp/update.conf"});
        EXPECT_EQ(r.ok(), c.updated) << c.name << ": " << r.err;
        EXPECT_EQ(read(lists + "/ipklist"), c.updated ? index : "old index\n") << c.name;
        EXPECT_EQ(std::distance(fs::directory_iterator(gw_->path(lists)), {}), 1) << c.name;  // no leftovers
        EXPECT_EQ((r.out + r.err).find("S3cr3t"), std::string::npos) << c.name;
    }
}

TEST_F(OpkgSandbox, DownloadLeavesTheWholeFileOrNothing) {
    put("/srv/pkgs/p_1_arm.ipk", "package bytes");
    put("/tmp/dl.conf", "option tmp_dir /var/dl\n");
    fs::create_directories(gw_->path("/var/dl"));
    EXPECT_TRUE(opkg({"download", "file:///srv/pkgs/p_1_arm.ipk", "-f", "/tmp/dl.conf", "-e", "3600"}).ok());
    EXPECT_EQ(read("/var/dl/p_1_arm.ipk"), "package bytes");
    fs::remove(gw_->path("/var/dl/p_1_arm.ipk"));
    const sandbox::CommandResult missing =
        opkg({"-f", "/tmp/dl.conf", "download", "file:///srv/pkgs/none.ipk"});
    EXPECT_NE(missing.exit_code, 0);
    EXPECT_FALSE(missing.err.empty());
    EXPECT_TRUE(fs::is_empty(gw_->path("/var/dl")));
}

TEST_F(OpkgSandbox, InstallUpgradeAndRemoveKeepFilesAndRecordsInStep) {
    const std::map<std::string, std::string> scripts{{"postinst", script("tool-postinst", "")},
                                                     {"prerm", script("tool-prerm", "")}};
    put("/tmp/tool_1.ipk", ipk(control("tool", "1.0"),
                               {feed::directory_entry("opt/tool/"), file_entry("opt/tool/bin", "v1", 0755),
                                file_entry("opt/tool/old.conf", "old"), file_entry("opt/tool/lib/x", "x"),
                                file_entry("etc/init.d/tool", "#!/bin/sh\n", 0755)},
                               scripts));
    ASSERT_TRUE(opkg({"install", "/tmp/tool_1.ipk"}).ok());
    EXPECT_EQ(read("/opt/tool/bin"), "v1");
    EXPECT_EQ(fs::status(gw_->path("/opt/tool/bin")).permissions() & fs::perms::owner_exec,
              fs::perms::owner_exec);
    EXPECT_EQ(read("/usr/lib/opkg/info/tool.control"), control("tool", "1.0"));
    EXPECT_EQ(read("/usr/lib/opkg/info/tool.list"),
              "/opt/tool/bin\n/opt/tool/old.conf\n/opt/tool/lib/x\n/etc/init.d/tool\n");
    EXPECT_EQ(read("/tmp/tool-postinst.log"), "configure\n");

    put("/tmp/tool_2.ipk", ipk(control("tool", "2.0"),
                               {file_entry("opt/tool/bin", "v2", 0755), feed::symlink_entry("opt/tool/ln", "bin"),
                                file_entry("etc/init.d/tool", "#!/bin/sh\n", 0755)},
                               scripts));
    ASSERT_TRUE(opkg({"install", "/tmp/tool_2.ipk"}).ok());
    EXPECT_EQ(read("/opt/tool/bin"), "v2");
    EXPECT_EQ(fs::read_symlink(gw_->path("/opt/tool/ln")), "bin");
    EXPECT_FALSE(exists("/opt/tool/old.conf"));
    EXPECT_FALSE(exists("/opt/tool/lib"));  // emptied, and created by the old version
    EXPECT_EQ(read("/usr/lib/opkg/info/tool.list"), "/opt/tool/bin\n/opt/tool/ln\n/etc/init.d/tool\n");
    EXPECT_EQ(read("/tmp/tool-prerm.log"), "upgrade\n");
    EXPECT_EQ(read("/tmp/tool-postinst.log"), "configure\nconfigure\n");

    ASSERT_TRUE(opkg({"remove", "tool"}).ok());
    EXPECT_EQ(read("/tmp/tool-prerm.log"), "upgrade\nremove\n");
    for (const char* gone : {"/opt/tool", "/etc/init.d/tool", "/usr/lib/opkg/info/tool.control",
                             "/usr/lib/opkg/info/tool.list", "/usr/lib/opkg/info/tool.prerm"})
        EXPECT_FALSE(exists(gone)) << gone;
    EXPECT_TRUE(exists("/etc/init.d"));  // the gateway's, not the package's
    EXPECT_EQ(opkg({"remove", "tool"}).exit_code, 1);
}

TEST_F(OpkgSandbox, RefusedInstallChangesNothing) {
    put("/tmp/owner.ipk", ipk(control("owner", "1"), {file_entry("opt/shared/file", "owner's")}));
    ASSERT_TRUE(opkg({"install", "/tmp/owner.ipk"}).ok());
    put("/tmp/app_1.ipk", ipk(control("app", "1"), {file_entry("opt/app/a", "a1"), file_entry("opt/app/b", "b1")}));
    ASSERT_TRUE(opkg({"install", "/tmp/app_1.ipk"}).ok());
    const std::map<std::string, std::string> fails{{"postinst", script("fails", "exit 3\n")}};
    const struct {
        const char* name;
        std::string package;
    } cases[] = {
        {"conflict", ipk(control("intruder", "1"), {file_entry("opt/intruder/x", "x"), file_entry("opt/shared/file", "mine")})},
        {"bad-name", ipk(control("../evil", "1"), {file_entry("opt/evil", "x")})},
        {"postinst-fresh", ipk(control("fresh", "1"), {file_entry("opt/fresh/x", "x")}, fails)},
        {"postinst-upgrade", ipk(control("app", "2"), {file_entry("opt/app/a", "a2"), file_entry("opt/app/c", "c2")}, fails)},
        {"not-a-package", "plain text"},
    };
    for (const auto& c : cases) {
        put("/tmp/refused.ipk", c.package);
        const auto before = snapshot();
        const sandbox::CommandResult r = opkg({"install", "/tmp/refused.ipk"});
        EXPECT_EQ(r.exit_code, 1) << c.name;
        EXPECT_FALSE(r.err.empty()) << c.name;
        EXPECT_EQ(snapshot(), before) << c.name;
    }
    EXPECT_EQ(read("/tmp/fails.log"), "configure\nconfigure\n");  // the scripts did run, and failed
}

}  // namespace
