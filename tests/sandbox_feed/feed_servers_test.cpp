#include <curl/curl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <memory>

#include "gateway_client.hpp"
#include "sandbox/feed/index.hpp"
#include "sandbox/feed/package.hpp"
#include "sandbox/feed/pki.hpp"

namespace {

namespace fs = std::filesystem;
using namespace sandbox;
using gwtest::read_text;

// A fresh feed directory in the build tree, readable by the FTP session's user.
struct ScratchFeed {
    fs::path dir;
    ScratchFeed() {
        std::string pattern = std::string(FEED_SCRATCH_DIR) + "/feed-XXXXXX";
        dir = ::mkdtemp(pattern.data());
        ::chmod(dir.c_str(), 0755);
    }
    ~ScratchFeed() { fs::remove_all(dir); }
};

struct Fetched {
    CURLcode code = CURLE_FAILED_INIT;
    long status = 0;
    std::string body;
};

Fetched fetch(const std::string& url, const std::string& user_password, const fs::path& ca_bundle = {}) {
    Fetched f;
    std::unique_ptr<CURL, void (*)(CURL*)> c(curl_easy_init(), curl_easy_cleanup);
    curl_easy_setopt(c.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(c.get(), CURLOPT_USERPWD, user_password.c_str());
    if (!ca_bundle.empty()) curl_easy_setopt(c.get(), CURLOPT_CAINFO, ca_bundle.c_str());
    curl_easy_setopt(c.get(), CURLOPT_TIMEOUT, 60L);  // a hung server fails the test instead of hanging it
    curl_easy_setopt(c.get(), CURLOPT_WRITEDATA, &f.body);
    curl_easy_setopt(c.get(), CURLOPT_WRITEFUNCTION, +[](char* data, size_t, size_t n, void* body) {
        static_cast<std::string*>(body)->append(data, n);
        return n;
    });
    f.code = curl_easy_perform(c.get());
    curl_easy_getinfo(c.get(), CURLINFO_RESPONSE_CODE, &f.status);
    return f;
}

TEST(FeedServers, ServeTheSignedFeedOverHttpHttpsAndFtpWithTheLogin) {
    ScratchFeed feed;
    GatewayOptions options;
    options.name = "feed-servers";
    options.broker = false;
    options.feed_dir = feed.dir;
    options.feed_user = "pkgd";
    options.feed_password = "s3cret:pass";
    Gateway gw(options);
    ASSERT_TRUE(gw.up()) << gw.error();

    const feed::Pki pki = feed::load_pki(gw.feed_pki_dir());
    feed::PackageSpec spec;
    spec.control = "Package: hello\nVersion: 1\nDescription: hi\n";
    const feed::Package pkg = feed::build_package(spec, pki);
    feed::write_index(feed.dir, feed::index_record(pkg.index_control, "hello.ipk", pkg.bytes, 0), pki.signer);
    const std::string expected = read_text(feed.dir / "Packages.gz");
    ASSERT_FALSE(expected.empty());

    EXPECT_EQ(read_text(gw.path("/etc/opkg/opkg.pem")), pki.ca.cert_pem);
    const fs::path bundle = gw.path("/etc/ssl/certs/ca-certificates.crt");
    const fs::path untrusted = feed.dir / "untrusted.pem";
    std::ofstream(untrusted) << pki.untrusted_ca.cert_pem;

    struct Case {
        std::string scheme, password;
        fs::path bundle;
        CURLcode code;
    };
    const std::string good = options.feed_password;
    for (const Case& c : {Case{"http", good, {}, CURLE_OK}, Case{"http", "wrong", {}, CURLE_OK},
                          Case{"https", good, bundle, CURLE_OK},
                          Case{"https", good, untrusted, CURLE_PEER_FAILED_VERIFICATION},
                          Case{"ftp", good, {}, CURLE_OK}, Case{"ftp", "wrong", {}, CURLE_LOGIN_DENIED}}) {
        SCOPED_TRACE(c.scheme + " with password " + c.password + " and bundle " + c.bundle.string());
        const std::string base = gw.feed_url(c.scheme);
        ASSERT_TRUE(base.starts_with(c.scheme + "://127.0.0.1:")) << base;
        Fetched f = fetch(base + "/Packages.gz", "pkgd:" + c.password, c.bundle);
        EXPECT_EQ(f.code, c.code) << curl_easy_strerror(f.code);
        const bool served = f.code == CURLE_OK && c.password == good;
        if (c.scheme != "ftp" && f.code == CURLE_OK) {
            EXPECT_EQ(f.status, served ? 200 : 401);
        }
        if (served) {
            EXPECT_EQ(f.body, expected);
        }
    }

    // The password stays in files only root reads: never on a command line, never in the URLs file.
    EXPECT_EQ(read_text(gw.path("/var/run/sandbox/feed.json")).find(good), std::string::npos);
    for (pid_t pid : processes_in_namespace("pid", gw.pid_namespace()))
        EXPECT_EQ(read_text("/proc/" + std::to_string(pid) + "/cmdline").find(good), std::string::npos) << pid;
    for (const char* file : {"web-users", "ftp-users", "ftp-users.pdb", "server.pem"}) {
        struct stat st{};
        ASSERT_EQ(::stat(gw.path(std::string("/var/run/sandbox/feed/") + file).c_str(), &st), 0) << file;
        EXPECT_EQ(st.st_mode & 0777, 0600u) << file;
    }
}

}  // namespace
