#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include "sandbox/feed/index.hpp"
#include "sandbox/feed/package.hpp"
#include "sandbox/feed/pki.hpp"
#include "sandbox/feed/signature.hpp"

namespace {

using namespace sandbox::feed;
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

// The honest package and every hostile variant are checked by the gateway's own verifier in the
// engine's tests and installed by the package tool in its sandbox tests; what is left here is what
// no consumer looks at closely: the bomb's size and the names the feed tool takes.
TEST(FeedPackage, TheBombInflatesToItsSizeAndEveryVariantHasAName) {
    PackageSpec bomb = spec(Hostile::gzip_bomb);
    bomb.bomb_bytes = std::uint64_t{8} << 20;
    const Package pkg = build_package(bomb, pki());
    EXPECT_EQ(read_member(pkg.bytes, "data.tar.gz").size(), bomb.bomb_bytes);
    EXPECT_LT(pkg.bytes.size(), bomb.bomb_bytes / 500);
    for (Hostile kind : all_hostile()) EXPECT_EQ(parse_hostile(hostile_name(kind)), kind);
}

// (That the server certificate serves 127.0.0.1 shows in the feed servers' HTTPS fetches.)
TEST(FeedPki, KeysStayPrivateAndComeBackWhole) {
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
    write_index(dir, text, pki().signer);  // its .gz and .sig are read by the package tool's tests
    std::ifstream index(dir / "Packages");
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(index), {}), text);
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
    EXPECT_EQ(control_field(records[0], "SHA256sum"), sha256_hex(a.bytes));
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
