#include <gtest/gtest.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "feed_verify.hpp"
#include "sandbox/feed/index.hpp"
#include "sandbox/feed/package.hpp"
#include "sandbox/feed/pki.hpp"

namespace {

using namespace sandbox::feed;
using feedcheck::member;
using feedcheck::sha256;
using feedcheck::verify;
namespace fs = std::filesystem;

const Pki& pki() {
    static const Pki made = make_pki();
    return made;
}

constexpr const char* kControl =
    "Package: hello\nVersion: 1.2\nArchitecture: arm\nSection: utils\nDescription: says hello\n"
    " at length\n";

PackageSpec spec(Hostile hostile = Hostile::none, bool dot_slash = false) {
    PackageSpec s;
    s.control = kControl;
    s.tree = {directory_entry("usr"), directory_entry("usr/bin"), file_entry("usr/bin/hello", "#!/bin/sh\n", 0755),
              symlink_entry("usr/bin/hi", "hello")};
    s.scripts = {{"postinst", "#!/bin/sh\nexit 0\n"}};
    s.hostile = hostile;
    s.dot_slash_names = dot_slash;
    s.bomb_bytes = std::uint64_t{1} << 30;
    return s;
}

std::string read(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

TEST(FeedPackage, HonestPackageHasTheLayoutTheGatewayChecks) {
    for (bool dot : {false, true}) {
        SCOPED_TRACE(dot ? "./ names" : "plain names");
        const std::string p = dot ? "./" : "";
        Package pkg = build_package(spec(Hostile::none, dot), pki());
        std::vector<std::string> names;
        for (const auto& m : feedcheck::members(pkg.bytes)) names.push_back(m.name);
        EXPECT_EQ(names, (std::vector<std::string>{p + "debian-binary", p + "control.tar.gz", p + "data.tar.gz",
                                                   p + "checksum.sha256", p + "checksum.sig"}));
        const std::string data = *member(pkg.bytes, p + "data.tar.gz");
        const std::string control = *member(pkg.bytes, p + "control.tar.gz");
        const std::string sums = *member(pkg.bytes, p + "checksum.sha256");
        EXPECT_EQ(sums, sha256(data) + " data.tar.gz\n" + sha256(control) + " control.tar.gz\n");
        EXPECT_TRUE(verify(*member(pkg.bytes, p + "checksum.sig"), sums, pki().ca.cert_pem));
        EXPECT_FALSE(verify(*member(pkg.bytes, p + "checksum.sig"), sums + " ", pki().ca.cert_pem));
        EXPECT_EQ(member(control, p + "control"), kControl);
        bool saw_script = false, saw_file = false, saw_link = false;
        for (const auto& m : feedcheck::members(control))
            if (m.name == p + "postinst") saw_script = m.mode == 0755;
        for (const auto& m : feedcheck::members(data)) {
            if (m.name == p + "usr/bin/hello") saw_file = m.content == "#!/bin/sh\n" && m.mode == 0755;
            if (m.name == p + "usr/bin/hi") saw_link = m.symlink && m.content == "hello";
        }
        EXPECT_TRUE(saw_script && saw_file && saw_link);
        EXPECT_EQ(pkg.installed_size, 10u);
    }
}

TEST(FeedPackage, EachHostileVariantBreaksOnePromise) {
    const time_t ten_days_ago = ::time(nullptr) - 10 * 24 * 3600;
    for (Hostile kind : all_hostile()) {
        SCOPED_TRACE(std::string(hostile_name(kind)));
        EXPECT_EQ(parse_hostile(hostile_name(kind)), kind);
        Package pkg = build_package(spec(kind), pki());
        EXPECT_EQ(pkg.index_control, kControl);
        if (kind == Hostile::gzip_bomb) {
            auto m = feedcheck::members(pkg.bytes, true);
            ASSERT_EQ(m.size(), 1u);
            EXPECT_GE(m[0].size, 1ll << 30);
            EXPECT_LT(pkg.bytes.size(), (std::size_t{1} << 30) / 500);
            continue;
        }
        const std::string sums = *member(pkg.bytes, "checksum.sha256");
        const auto sig = member(pkg.bytes, "checksum.sig");
        const std::string data = *member(pkg.bytes, "data.tar.gz");
        const std::string control = *member(member(pkg.bytes, "control.tar.gz").value(), "control");
        const bool signed_ok = sig && verify(*sig, sums, pki().ca.cert_pem);
        EXPECT_EQ(signed_ok, kind != Hostile::unsigned_package && kind != Hostile::untrusted_signer &&
                                 kind != Hostile::expired_signer);
        EXPECT_EQ(sums.starts_with(sha256(data) + " "), kind != Hostile::bad_digest);
        EXPECT_EQ(control_field(control, "Package"), kind == Hostile::name_mismatch ? "hello-impostor" : "hello");
        // Each wrong signer still signs properly: only the trust or the time fails.
        if (kind == Hostile::untrusted_signer) {
            EXPECT_TRUE(verify(*sig, sums, pki().untrusted_ca.cert_pem));
        }
        if (kind == Hostile::expired_signer) {
            EXPECT_TRUE(verify(*sig, sums, pki().ca.cert_pem, ten_days_ago));
        }
        const auto all = feedcheck::members(pkg.bytes);
        auto has = [&](const std::string& name, bool link) {
            for (const auto& m : all)
                if (m.name == name && m.symlink == link) return true;
            return false;
        };
        EXPECT_EQ(has("../escaped", false), kind == Hostile::dotdot_member);
        EXPECT_EQ(has("/escaped", false), kind == Hostile::absolute_member);
        EXPECT_EQ(has("escaped-link", true) && has("escaped-link/escaped", false), kind == Hostile::link_member);
    }
}

TEST(FeedPki, ServerCertificateServesLoopbackAndKeysStayPrivate) {
    auto bio = std::unique_ptr<BIO, int (*)(BIO*)>(
        BIO_new_mem_buf(pki().server.cert_pem.data(), static_cast<int>(pki().server.cert_pem.size())), BIO_free);
    auto cert = std::unique_ptr<X509, void (*)(X509*)>(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr), X509_free);
    ASSERT_TRUE(cert);
    EXPECT_EQ(X509_check_ip_asc(cert.get(), "127.0.0.1", 0), 1);
    EXPECT_EQ(X509_check_host(cert.get(), "localhost", 0, 0, nullptr), 1);
    EXPECT_EQ(X509_check_purpose(cert.get(), X509_PURPOSE_SSL_SERVER, 0), 1);

    fs::path dir = fs::path(FEED_SCRATCH_DIR) / ("feed-pki-" + std::to_string(::getpid()));
    save_pki(pki(), dir);
    struct stat st{};
    ASSERT_EQ(::stat((dir / "signer.key").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    Pki loaded = load_pki(dir);
    EXPECT_EQ(loaded.signer.key_pem, pki().signer.key_pem);
    EXPECT_EQ(loaded.untrusted_ca.cert_pem, pki().untrusted_ca.cert_pem);
    fs::remove_all(dir);
    EXPECT_THROW(load_pki(dir), FeedError);
}

TEST(FeedIndex, RecordsParseBackAndTheIndexIsSigned) {
    Package a = build_package(spec(), pki());
    PackageSpec other = spec();
    other.control = "Package: other\nVersion: 2\nDepends: hello\nInstalled-Size: 77\nSize: 1\nDescription: x\n";
    Package b = build_package(other, pki());
    const std::string text = index_text({index_record(a.index_control, "hello.ipk", a.bytes, a.installed_size),
                                         index_record(b.index_control, "other.ipk", b.bytes, b.installed_size)});
    fs::path dir = fs::path(FEED_SCRATCH_DIR) / ("feed-index-" + std::to_string(::getpid()));
    fs::create_directories(dir);
    write_index(dir, text, pki().signer);
    EXPECT_EQ(read(dir / "Packages"), text);
    EXPECT_EQ(feedcheck::gunzip(read(dir / "Packages.gz")), text);
    EXPECT_TRUE(verify(read(dir / "Packages.sig"), text, pki().ca.cert_pem));
    fs::remove_all(dir);

    // Split as the gateway does: a line starting with a newline or a space ends a record, so
    // everything it looks up must come before the description's continuation.
    std::vector<std::string> records(1);
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.empty() || line[0] == ' ') {
            if (!records.back().empty()) records.emplace_back();
            continue;
        }
        records.back() += line + "\n";
    }
    if (records.back().empty()) records.pop_back();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(control_field(records[0], "Filename"), "hello.ipk");
    EXPECT_EQ(control_field(records[0], "SHA256sum"), sha256(a.bytes));
    EXPECT_EQ(control_field(records[0], "Size"), std::to_string(a.bytes.size()));
    EXPECT_EQ(control_field(records[0], "Installed-Size"), "10");
    EXPECT_EQ(control_field(records[0], "Section"), "utils");
    EXPECT_EQ(control_field(records[1], "Package"), "other");
    EXPECT_EQ(control_field(records[1], "Depends"), "hello");
    EXPECT_EQ(control_field(records[1], "Installed-Size"), "77");
    EXPECT_EQ(control_field(records[1], "Size"), std::to_string(b.bytes.size()));
    EXPECT_EQ(read_package_control(b.bytes), other.control);
    EXPECT_EQ(read_installed_size(a.bytes), 10u);
}

}  // namespace
