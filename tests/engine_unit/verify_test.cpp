// Verification of packages made as the feed tools make them, and of hostile ones.
#include <gtest/gtest.h>

#include "rig.hpp"
#include "test_package.hpp"

namespace pkgd::testing {
namespace {

struct Verify : ::testing::Test {
    Rig rig;
    signer ca{nullptr}, good{&ca};
    operation_info op = Rig::new_operation();
    Verify() {
        rig.write("/etc/opkg/opkg.pem", ca.pem());
        op.pkg->du.name = "hello";
    }
    int verify(const std::string& ipk) {
        rig.write("/tmp/hello.ipk", ipk);
        return verify_package(rig.ctx, rig.root + "/tmp/hello.ipk", op);
    }
};

TEST_F(Verify, OnlyASignedIntactPackageOfTheNamedPackagePasses) {
    const signer other_ca{nullptr}, stranger{&other_ca}, expired{&ca, -86400 * 30, -86400};
    const std::vector<std::tuple<std::string, const signer*, std::function<void(ipk_options&)>, bool>> rows{
        {"good", &good, {}, true},
        {"./ members", &good, [](ipk_options& o) { o.prefix = "./"; }, true},
        {"no Package line", &good, [](ipk_options& o) { o.control = "Version: 1\n"; }, true},
        {"no signature", &good, [](ipk_options& o) { o.with_signature = false; }, false},
        {"untrusted signer", &stranger, {}, false},
        {"expired signer", &expired, {}, false},
        {"digest mismatch", &good, [](ipk_options& o) { o.bad_digest = true; }, false},
        {"other name", &good, [](ipk_options& o) { o.control = "Package: other\n"; }, false},
        {"control bomb", &good, [](ipk_options& o) { o.control += std::string(kControlFileMax, 'x'); },
         false},
        {"outer bomb", &good,
         [](ipk_options& o) {
             o.extra = {{"data.tar.gz", std::string(4 << 20, '\0')}};
         },
         false},
    };
    for (const auto& [label, by, edit, passes] : rows) {
        SCOPED_TRACE(label);
        std::string sig;
        const std::string ipk = build_ipk(*by, edit, &sig);
        // A signature left by an interrupted run must not stand in for a missing one.
        rig.write("/tmp/opkg-1/checksum.sig", sig);
        EXPECT_EQ(verify(ipk) == 0, passes);
        strings left;
        for (const auto& e : std::filesystem::directory_iterator(rig.root + "/tmp/opkg-1"))
            left.push_back(e.path().filename());
        EXPECT_TRUE(left.empty() || left == strings{"template_PKG_control"});
    }
    rig.clock += 86400 * 400;  // the signer's certificate has run out
    EXPECT_NE(verify(build_ipk(good)), 0);
}

TEST_F(Verify, HostileMembersAreNeverWritten) {
    const std::string outside = rig.root + "/outside";
    const std::vector<member> hostile{
        {"../../escape", "x"},          {outside, "x"},
        {"./../escape2", "x"},          {"debian-binary", "", AE_IFLNK, outside},
        {"checksum.sig", "", AE_IFCHR}, {"stranger", "x"}};
    EXPECT_EQ(verify(build_ipk(good, [&](ipk_options& o) { o.extra = hostile; })), 0);
    EXPECT_FALSE(rig.exists("/escape") || rig.exists("/escape2") || rig.exists("/outside") ||
                 rig.exists("/tmp/escape") || rig.exists("/tmp/opkg-1/stranger"));
    EXPECT_EQ(verify("not an archive"), -1);
}

}  // namespace
}  // namespace pkgd::testing
