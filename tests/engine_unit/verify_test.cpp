// Verification of packages made like the feed tools make them, and of hostile ones.
#include <archive_entry.h>
#include <gtest/gtest.h>

#include "rig.hpp"
#include "test_package.hpp"

namespace pkgd::testing {
namespace {

struct VerifyFixture : ::testing::Test {
    Rig rig;
    signer ca = make_signer(nullptr);
    signer good = make_signer(&ca);
    operation_info op = Rig::new_operation();
    VerifyFixture() {
        rig.write("/etc/opkg/opkg.pem", ca.pem());
        op.pkg->du.name = "hello";
    }
    int verify(const std::string& ipk) {
        rig.write("/tmp/hello.ipk", ipk);
        return verify_package(rig.ctx, rig.root + "/tmp/hello.ipk", op);
    }
};

TEST_F(VerifyFixture, AcceptsOnlyASignedIntactPackageOfTheNamedPackage) {
    const signer other_ca = make_signer(nullptr);
    const signer stranger = make_signer(&other_ca);
    const signer expired = make_signer(&ca, -86400 * 30, -86400);
    struct row {
        std::string label;
        const signer* by;
        std::function<void(ipk_options&)> edit;
        bool passes;
    };
    std::vector<row> rows{
        {"good", &good, {}, true},
        {"./ members", &good, [](ipk_options& o) { o.prefix = "./"; }, true},
        {"no Package line", &good, [](ipk_options& o) { o.control = "Version: 1\n"; }, true},
        {"no signature", &good, [](ipk_options& o) { o.with_signature = false; }, false},
        {"untrusted signer", &stranger, {}, false},
        {"expired signer", &expired, {}, false},
        {"digest mismatch", &good, [](ipk_options& o) { o.bad_digest = true; }, false},
        {"control name mismatch", &good, [](ipk_options& o) { o.control = "Package: other\n"; }, false},
        {"blank after name", &good, [](ipk_options& o) { o.control = "Package: hello \n"; }, false},
    };
    for (const row& r : rows) {
        SCOPED_TRACE(r.label);
        std::string sig;
        const std::string ipk = build_ipk(*r.by, r.edit, &sig);
        // A signature left by an interrupted run must not stand in for a missing one.
        rig.write("/tmp/opkg-1/checksum.sig", sig);
        EXPECT_EQ(verify(ipk) == 0, r.passes);
        // Only the emptied control directory stays behind.
        std::vector<std::string> left;
        for (const auto& e : std::filesystem::directory_iterator(rig.root + "/tmp/opkg-1"))
            left.push_back(e.path().filename());
        EXPECT_TRUE(left.empty() || left == std::vector<std::string>{"template_PKG_control"});
    }
    rig.clock += 86400 * 400;  // the signer's certificate has run out
    EXPECT_NE(verify(build_ipk(good)), 0);
}

TEST_F(VerifyFixture, HostileMembersAreNeverWritten) {
    const std::string outside = rig.root + "/outside";
    const std::vector<member> hostile{{"../../escape", "x"}, {outside, "x"}, {"./../escape2", "x"},
                                      {"debian-binary", "", AE_IFLNK, outside},
                                      {"checksum.sig", "", AE_IFCHR}, {"stranger", "x"}};
    EXPECT_EQ(verify(build_ipk(good, [&](ipk_options& o) { o.extra = hostile; })), 0);
    EXPECT_FALSE(rig.exists("/escape") || rig.exists("/escape2") || rig.exists("/outside") ||
                 rig.exists("/tmp/escape") || rig.exists("/tmp/opkg-1/stranger"));
    EXPECT_EQ(verify("not an archive"), -1);
}

TEST_F(VerifyFixture, RefusesABombAndAnUnreadableControlArchive) {
    EXPECT_NE(verify(build_ipk(good, [](ipk_options& o) { o.extra = {{"data.tar.gz", std::string(4 << 20, '\0')}}; })), 0);
    EXPECT_LT(build_ipk(good).size(), outer_extract_limit(0));
    // A control file above its bound.
    EXPECT_NE(verify(build_ipk(good, [](ipk_options& o) { o.control = "Package: hello\n" + std::string(kControlFileMax, 'x'); })), 0);
}

}  // namespace
}  // namespace pkgd::testing
