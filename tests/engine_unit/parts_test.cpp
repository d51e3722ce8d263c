// The engine's pure parts: feed records, version order, resource arithmetic, the configuration.
#include <gtest/gtest.h>

#include "rig.hpp"

namespace pkgd::testing {
namespace {

TEST(FeedIndex, FindsAndCopiesTheFirstMatchingRecord) {
    const std::string feed =
        "Package: a\nVersion: 1.0\nFilename: x_1.0_arm.ipk\nDescription: x\nSourceDateEpoch: 5\n"
        "Maintainer: ACME\nSourceDateEpoch: 6\nSize: 100\nSection: LXC container\n"
        "Depends: libc\n\n"
        "Package: second\nVersion: 2.0\nFilename: x_1.0_arm.ipk\n\r\n"
        "Package: b\nVersion: 3.0\nFilename: y.ipk\nDescription: first\n continued\nInstalled-Size: 2048\n"
        "Section: lxc\n\n"
        "Package: c\nFilename: last.ipk\nSize: 12abc";
    struct row {
        std::string file, version;
        int result;
        std::string name, description;
        std::uint32_t size, installed;
        std::int32_t pkgtype;
    };
    for (const row& r : std::vector<row>{
             {"x_1.0_arm.ipk", "", 0, "a", "x\nSourceDateEpoch: 5\n", 100, 0, PKGTYPE_EE},
             {"x_1.0_arm.ipk", "2.0", 0, "second", "", 0, 0, PKGTYPE_PACKAGE},
             {"x_1.0_arm.ipk", "9.9", -1, "", "", 0, 0, PKGTYPE_PACKAGE},
             // A continuation line beginning with a space ends the record: Installed-Size is lost.
             {"y.ipk", "", 0, "b", "first\n", 0, 0, PKGTYPE_PACKAGE},
             {"last.ipk", "", 0, "c", "", 12, 0, PKGTYPE_PACKAGE},
             {"X_1.0_arm.ipk", "", -1, "", "", 0, 0, PKGTYPE_PACKAGE},
         }) {
        SCOPED_TRACE(r.file + " " + r.version);
        du_info du;
        ASSERT_EQ(retrieve_package_info(feed, r.file, r.version, du), r.result);
        EXPECT_EQ(du.name.value_or(""), r.name);
        EXPECT_EQ(du.description.value_or(""), r.description);
        EXPECT_EQ(du.size, r.size);
        EXPECT_EQ(du.installedsize, r.installed);
        EXPECT_EQ(du.pkgtype, r.pkgtype);
    }
    du_info du;
    ASSERT_EQ(retrieve_package_info(feed, "x_1.0_arm.ipk", "", du), 0);
    EXPECT_EQ(du.vendor, "ACME");  // the unknown line after a single-line key is dropped
    EXPECT_EQ(du.dependency, "libc");
    ASSERT_EQ(retrieve_package_info("Filename: z\nInstalled-Size: 2048\n", "z", "", du), 0);
    EXPECT_EQ(du.installedsize, 2048u);
    EXPECT_EQ(du.size, 100u);  // already set: Installed-Size fills the size only when it is 0
}

TEST(VersionOrder, SegmentsCompareByLengthThenBytes) {
    struct row {
        const char *a, *b;
        int older;
    };
    for (const row& r : {row{"1.2", "1.10", 1}, {"1.10", "1.9", 0}, {"2.0", "10.0", 1}, {"1.2", "1.2", 0},
                         {"1.2", "1.2.1", 0}, {"1.2.1", "1.2", 0}, {"1.0a", "1.0b", 1}, {"", "1", 1},
                         {"1", "", 0}, {"", "", 0}, {"1.2.", "1.2.5", 0}, {"01", "1", 0}, {"1.0-r1", "1.0-r2", 1}}) {
        EXPECT_EQ(opkg_compare_version(r.a, r.b), r.older) << r.a << " vs " << r.b;
    }
}

TEST(Resources, MemoryAndDiskArithmetic) {
    Rig rig;
    struct mem_row {
        std::string meminfo;
        std::int32_t size;
        int result;
    };
    for (const mem_row& r : std::vector<mem_row>{{"MemAvailable: 2048 kB\n", 0, 0}, {"MemAvailable: 1 kB\n", 0, 1},
                                                 {"MemAvailable: 2 kB\n", 2047, 1}, {"MemAvailable: 3 kB\n", 2047, 0},
                                                 {"MemTotal: 9999999 kB\nMemFree: 9999999 kB\n", 0, 1},
                                                 {"MemAvailable: 1026 kB\n", 1048576, 0},
                                                 {"MemAvailable: 1025 kB\n", 1048576, 1},
                                                 {"MemAvailable: 999999 kB\n", -1, 1}}) {
        rig.meminfo_text = r.meminfo;
        EXPECT_EQ(package_opkg_get_sys_mem(r.size, rig), r.result) << r.meminfo << r.size;
    }
    rig.fs = fs_figures{4096, 1000, 300};
    EXPECT_EQ(package_opkg_check_disk_size(204800, rig), 0);
    EXPECT_EQ(package_opkg_check_disk_size(204801, rig), 1);
    rig.fs = fs_figures{4096, 3, 3};
    EXPECT_EQ(package_opkg_check_disk_size(3 * 4096, rig), 0);
    EXPECT_EQ(package_opkg_check_disk_size(3 * 4096 + 1, rig), 1);
    rig.fs.reset();
    EXPECT_EQ(package_opkg_check_disk_size(0, rig), 1);
}

TEST(OpkgConf, LinesModeAndTheFeedRefresh) {
    Rig rig;
    const std::string conf = rig.root + "/tmp/.ipk.conf";
    pkg_info pkg;
    pkg.url = "https://feed.example/a/b/x_1.0_arm.ipk";
    pkg.username = "u";
    pkg.password = "pw";
    ASSERT_EQ(package_opkg_update(rig.ctx, pkg), 0);
    EXPECT_EQ(read_text_file(conf), "src/gz ipklist https://feed.example/a/b\narch arm 100\noption tmp_dir " +
                                        rig.root + "/tmp\noption proxy_user u\noption proxy_passwd pw\n");
    struct stat st {};
    ASSERT_EQ(::stat(conf.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    EXPECT_EQ(rig.journal, std::vector<std::string>{"run opkg update -f " + conf});

    rig.write("/etc/opkg/opkg.pem", "x");
    pkg.username = "";
    pkg.password = "";
    ASSERT_EQ(package_opkg_update(rig.ctx, pkg), 0);
    EXPECT_EQ(read_text_file(conf)->substr(read_text_file(conf)->find("option tmp_dir")),
              "option tmp_dir " + rig.root + "/tmp\noption signature_ca_path " + rig.root +
                  "/etc/opkg/\noption signature_ca_file " + rig.root + "/etc/opkg/opkg.pem\noption check_signature\n");
    std::filesystem::remove(conf);
    for (const char* url : {"HTTP://feed/x.ipk", "file:///x.ipk", "x.ipk"}) {
        pkg.url = url;
        EXPECT_EQ(package_opkg_update(rig.ctx, pkg), -1) << url;
        EXPECT_FALSE(rig.exists("/tmp/.ipk.conf"));
    }
    rig.exit_codes["update"] = 1;
    pkg.url = "ftp://feed/x.ipk";
    EXPECT_EQ(package_opkg_update(rig.ctx, pkg), -1);
    EXPECT_EQ(url_without_userinfo("https://u:p@w@host:8/a@b"), "https://host:8/a@b");
}

TEST(PackageTexts, ChecksumListAndControlName) {
    using digests = std::array<std::optional<std::string>, 2>;
    EXPECT_EQ(read_checksum_digests("aa data.tar.gz\nbb control.tar.gz\n"), (digests{"aa", "bb"}));
    EXPECT_EQ(read_checksum_digests("aa  data.tar.gz\n"), (digests{"aa ", std::nullopt}));
    EXPECT_EQ(read_checksum_digests(std::string(1030, 'a') + " x\n"), (digests{std::nullopt, std::string(7, 'a')}));
    EXPECT_EQ(check_control_name("Version: 1\nPackage:  \thello\n", "hello"), 0);
    EXPECT_EQ(check_control_name("Package: hello \n", "hello"), -1);
    EXPECT_EQ(check_control_name("Package: hello\nPackage: other\n", "hello"), -1);
    EXPECT_EQ(check_control_name("Version: 1\n", "hello"), 0);
}

}  // namespace
}  // namespace pkgd::testing
