// What a process inside may touch: its root, writable; the host's libraries and data, read-only;
// nothing else. And the root's syslog.
#include <unistd.h>

#include "fakes.hpp"

namespace sandbox::testing {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

TEST(Isolation, HostFilesSeenInsideCannotBeWritten) {
    Gateway gw(fake_gateway());
    ASSERT_TRUE(gw.up()) << gw.error();
    const std::string name = "sandbox-write-probe-" + std::to_string(::getpid());
    for (const std::string dir :
         {"/usr/lib/x86_64-linux-gnu", "/usr/lib", "/usr/lib64", "/usr/share/zoneinfo"}) {
        if (!fs::is_directory(dir)) continue;
        CommandResult touch = gw.run({"touch", dir + "/" + name});
        EXPECT_NE(touch.exit_code, 0) << dir;
        EXPECT_NE(touch.err.find("Read-only file system"), std::string::npos) << dir << ": " << touch.err;
        EXPECT_FALSE(fs::exists(dir + "/" + name)) << dir;
    }
    CommandResult overwrite = gw.sh("echo garbage > /etc/ld.so.cache");
    EXPECT_NE(overwrite.exit_code, 0);
    // Seen through, not copied: the root's view of a host library is the host's file.
    CommandResult libc = gw.run({"ls", "/usr/lib/x86_64-linux-gnu/libc.so.6"});
    EXPECT_TRUE(libc.ok()) << libc.err;
}

TEST(Isolation, WritesInsideLandInTheRoot) {
    Gateway gw(fake_gateway());
    ASSERT_TRUE(gw.up()) << gw.error();
    const std::string name = "sandbox-probe-" + std::to_string(::getpid());
    CommandResult write = gw.sh("echo opkg > /usr/lib/opkg/info/" + name + ".control && echo tmp > /tmp/" +
                                name + " && echo record > /usr/local/package/pkg/" + name);
    ASSERT_TRUE(write.ok()) << write.err;
    // /usr/lib/opkg stays the root's own, writable, although /usr/lib as a whole shows the host's.
    EXPECT_EQ(read_file(gw.path("/usr/lib/opkg/info/" + name + ".control")), "opkg\n");
    EXPECT_EQ(read_file(gw.path("/tmp/" + name)), "tmp\n");
    EXPECT_EQ(read_file(gw.path("/usr/local/package/pkg/" + name)), "record\n");
    EXPECT_FALSE(fs::exists("/tmp/" + name));
    EXPECT_FALSE(fs::exists("/usr/lib/opkg/info/" + name + ".control"));
}

TEST(Syslog, RecordsSentInsideBecomeOneLineEachWithTheirPriority) {
    Gateway gw(fake_gateway());
    ASSERT_TRUE(gw.up()) << gw.error();
    CommandResult sent = gw.sh(
        "logger -t probe -p daemon.warning 'first record' && logger -t probe -p local7.debug 'second "
        "record'");
    ASSERT_TRUE(sent.ok()) << sent.err;

    auto second = gw.wait_syslog("second record");
    ASSERT_TRUE(second) << "messages:\n" << read_file(gw.path("/var/log/messages"));
    EXPECT_TRUE(second->starts_with("local7.debug ")) << *second;
    auto lines = gw.syslog_lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_TRUE(lines[0].starts_with("daemon.warning ")) << lines[0];
    EXPECT_NE(lines[0].find("probe: first record"), std::string::npos) << lines[0];
}

}  // namespace
}  // namespace sandbox::testing
