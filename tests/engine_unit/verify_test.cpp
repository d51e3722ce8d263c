// Verification of packages made as the feed tools make them, and of hostile ones.
#include <gtest/gtest.h>

#include "rig.hpp"

namespace pkgd::testing {
namespace {

struct Verify : ::testing::Test {
    Rig rig;
    operation_info op = Rig::new_operation();
    Verify() {
        rig.write("/etc/opkg/opkg.pem", test_pki().ca.cert_pem);
        op.pkg->du.name = "hello";
    }
    int verify(const std::string& ipk) {
        rig.write("/tmp/hello.ipk", ipk);
        return verify_package(rig.ctx, rig.root + "/tmp/hello.ipk", op);
    }
};

TEST_F(Verify, OnlyASignedIntactPackageOfTheNamedPackagePasses) {
    using H = feed::Hostile;
    const auto big_control = [](feed::PackageSpec& s) { s.control += std::string(kControlFileMax, 'x'); };
    const std::vector<std::tuple<std::string, std::function<void(feed::PackageSpec&)>, bool>> rows{
        {"good", {}, true},
        {"./ members", [](feed::PackageSpec& s) { s.dot_slash_names = true; }, true},
        {"no signature", [](feed::PackageSpec& s) { s.hostile = H::unsigned_package; }, false},
        {"untrusted signer", [](feed::PackageSpec& s) { s.hostile = H::untrusted_signer; }, false},
        {"expired signer", [](feed::PackageSpec& s) { s.hostile = H::expired_signer; }, false},
        {"digest mismatch", [](feed::PackageSpec& s) { s.hostile = H::bad_digest; }, false},
        {"other name", [](feed::PackageSpec& s) { s.hostile = H::name_mismatch; }, false},
        {"control bomb", big_control, false},
        {"outer bomb", [](feed::PackageSpec& s) { s.hostile = H::gzip_bomb; }, false},
        // Members outside the five expected ones are skipped, never written.
        {"../ member", [](feed::PackageSpec& s) { s.hostile = H::dotdot_member; }, true},
        {"absolute member", [](feed::PackageSpec& s) { s.hostile = H::absolute_member; }, true},
        {"member through a link", [](feed::PackageSpec& s) { s.hostile = H::link_member; }, true},
    };
    // A signature left by an interrupted run must not stand in for a missing one.
    const std::string stale_sig = feed::read_member(hello_ipk(), "checksum.sig");
    for (const auto& [label, edit, passes] : rows) {
        SCOPED_TRACE(label);
        rig.write("/tmp/opkg-1/checksum.sig", stale_sig);
        EXPECT_EQ(verify(hello_ipk(edit)) == 0, passes);
        strings left;
        for (const auto& e : std::filesystem::directory_iterator(rig.root + "/tmp/opkg-1"))
            left.push_back(e.path().filename());
        EXPECT_TRUE(left.empty() || left == strings{"template_PKG_control"});
        EXPECT_FALSE(rig.exists("/tmp/escaped") || rig.exists("/tmp/opkg-1/escaped-link") ||
                     std::filesystem::exists("/escaped") || std::filesystem::exists("/tmp/escaped"));
    }
    EXPECT_EQ(verify("not an archive"), -1);
    rig.clock += 86400 * 365 * 11;  // the signer's certificate has run out
    EXPECT_NE(verify(hello_ipk()), 0);
}

}  // namespace
}  // namespace pkgd::testing
