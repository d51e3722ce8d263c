// The package tool's pure parts: configuration, member paths, the install plan. (Its command
// lines are the ones pkgd writes, run for real by the engine's gateway tests and the tool's own.)
#include <gtest/gtest.h>

#include "config.hpp"
#include "install_plan.hpp"
#include "member_path.hpp"

namespace {

using opkg::ArchiveMember;

TEST(OpkgConfig, ReadsTheLinesPkgdWritesAndOthersUnderstood) {
    const opkg::ConfigResult r = opkg::parse_config(
        "# feed of the device\n"
        "src/gz ipklist http://feed.example/a/b/\n"
        "src plain ftp://feed.example/p\n"
        "arch arm 100\n"
        "option tmp_dir /tmp\n"
        "option proxy_user alice\n"
        "option proxy_passwd \"se cret\"\n"
        "option signature_ca_path /etc/opkg/\n"
        "option signature_ca_file /etc/opkg/opkg.pem\n"
        "option check_signature\n"
        "option lists_dir ext /var/opkg-lists\n"
        "dest root /\n"
        "option unknown thing\n");
    ASSERT_TRUE(r.ok()) << r.error;
    const opkg::Config& c = r.config;
    ASSERT_EQ(c.feeds.size(), 2u);
    EXPECT_EQ(c.feeds[0].name, "ipklist");
    EXPECT_EQ(c.feeds[0].url, "http://feed.example/a/b");  // so URL + "/Packages.gz" has one slash
    EXPECT_TRUE(c.feeds[0].gzipped);
    EXPECT_FALSE(c.feeds[1].gzipped);
    EXPECT_EQ(c.architectures, std::vector<std::string>{"arm"});
    EXPECT_EQ(c.proxy_user, "alice");
    EXPECT_EQ(c.proxy_passwd, "se cret");
    EXPECT_TRUE(c.check_signature);
    EXPECT_EQ(c.signature_ca_file, "/etc/opkg/opkg.pem");
    EXPECT_EQ(c.signature_ca_path, "/etc/opkg/");
    EXPECT_EQ(c.lists_dir, "/var/opkg-lists");
    EXPECT_EQ(opkg::parse_config("option lists_dir /x\n").config.lists_dir, "/x");
    const opkg::Config defaults = opkg::parse_config("").config;
    EXPECT_EQ(defaults.lists_dir, "/usr/lib/opkg/lists");
    EXPECT_EQ(defaults.tmp_dir, "/tmp");
    EXPECT_FALSE(defaults.check_signature);
}

TEST(OpkgConfig, RefusesBadLinesWithoutEchoingTheirValues) {
    const struct {
        const char* text;
        const char* error;
    } cases[] = {
        {"src/gz ipklist\n", "line 1: src/gz needs a name and a URL"},
        {"\nsrc/gz ../SECRET http://u:SECRET@h/f\n", "line 2: a feed name must be a plain file name"},
        {"src/gz .. http://h/f\n", "line 1: a feed name must be a plain file name"},
        {"option proxy_passwd\n", "line 1: option proxy_passwd needs a value"},
        {"option lists_dir ext\n", "line 1: option lists_dir needs a value"},
    };
    for (const auto& c : cases) {
        const opkg::ConfigResult r = opkg::parse_config(c.text);
        EXPECT_EQ(r.error, c.error) << c.text;
        EXPECT_EQ(r.error.find("SECRET"), std::string::npos);
    }
}

TEST(OpkgMemberPath, KeepsMembersBelowTheRoot) {
    const struct {
        const char* name;
        std::optional<std::string> path;
    } cases[] = {
        {"./usr/bin/x", "usr/bin/x"},
        {"usr/bin/x", "usr/bin/x"},
        {"/usr/bin/x", "usr/bin/x"},
        {"usr//bin/./x/", "usr/bin/x"},
        {"./", ""},
        {"usr/..x", "usr/..x"},
        {"../etc/passwd", std::nullopt},
        {"usr/../../etc", std::nullopt},
        {"/../etc/x", std::nullopt},
        {"usr/a\nb", std::nullopt},
    };
    for (const auto& c : cases) EXPECT_EQ(opkg::normalise_member(c.name), c.path) << c.name;

    const struct {
        const char* link;
        const char* target;
        bool inside;
    } links[] = {
        {"usr/lib/a", "b", true},   {"usr/lib/a", "../../etc/passwd", true},
        {"a", "/etc/passwd", true}, {"usr/lib/a", "../../../etc", false},
        {"a", "/../etc", false},    {"a", "..", false},
        {"a", "", false},
    };
    for (const auto& l : links) EXPECT_EQ(opkg::link_target_inside(l.link, l.target), l.inside) << l.target;
}

ArchiveMember file(std::string name, std::string data = "x") {
    return {std::move(name), ArchiveMember::Kind::file, 0755, {}, false, std::move(data)};
}
ArchiveMember link(std::string name, std::string target) {
    return {std::move(name), ArchiveMember::Kind::symlink, 0777, std::move(target), false, {}};
}
ArchiveMember dir(std::string name) {
    return {std::move(name), ArchiveMember::Kind::directory, 0755, {}, false, {}};
}

TEST(OpkgInstallPlan, RefusesWhatCannotBeInstalledSafely) {
    ArchiveMember hard = file("./opt/h");
    hard.hardlink = true;
    ArchiveMember fifo = file("./opt/f");
    fifo.kind = ArchiveMember::Kind::other;
    const std::map<std::string, std::string> owners{{"/opt/shared", "other"}};
    const struct {
        std::vector<ArchiveMember> members;
        const char* error;
    } cases[] = {
        {{file("./opt/../../etc/x")}, "member ./opt/../../etc/x would land outside /"},
        {{link("./opt/l", "../../../etc")}, "symbolic link ./opt/l points outside /"},
        {{link("./opt/l", "/etc"), file("./opt/l/passwd")},
         "member opt/l/passwd lies below the package's symbolic link opt/l"},
        {{file("./opt/shared")}, "/opt/shared belongs to package other"},
        {{file("./opt/a"), file("opt/a")}, "member opt/a appears twice"},
        {{hard}, "member ./opt/h is not a file, directory or symbolic link"},
        {{fifo}, "member ./opt/f is not a file, directory or symbolic link"},
    };
    for (const auto& c : cases) EXPECT_EQ(opkg::plan_install(c.members, owners).error, c.error);
}

TEST(OpkgInstallPlan, ListsFilesAndLinksAndOrdersDirectories) {
    const std::vector<ArchiveMember> members{dir("./"),
                                             dir("./opt/p/sub"),
                                             dir("./opt/p"),
                                             file("./opt/p/a", "abc"),
                                             link("./opt/p/l", "a"),
                                             file("./etc/init.d/p", "#!")};
    const opkg::PlanResult r = opkg::plan_install(members, {{"/opt/p", "other"}});
    ASSERT_TRUE(r.ok()) << r.error;
    EXPECT_EQ(r.plan.list(), (std::vector<std::string>{"/opt/p/a", "/opt/p/l", "/etc/init.d/p"}));
    ASSERT_EQ(r.plan.directories.size(), 2u);
    EXPECT_EQ(r.plan.directories[0].path, "opt/p");
    EXPECT_EQ(r.plan.bytes, 5u);
}

}  // namespace
