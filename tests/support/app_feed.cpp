#include "app_feed.hpp"

#include <stdlib.h>
#include <sys/stat.h>

#include <fstream>
#include <iterator>

#include "sandbox/feed/index.hpp"
#include "sandbox/feed/package.hpp"
#include "sandbox/feed/pki.hpp"

namespace gwtest {

namespace feed = sandbox::feed;

AppFeed::AppFeed(const std::filesystem::path& scratch) {
    std::string pattern = (scratch / "feed-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) return;
    dir_ = pattern;
    ::chmod(dir_.c_str(), 0755);  // the FTP server's user reads it
}

AppFeed::~AppFeed() {
    std::error_code ignored;
    if (!dir_.empty()) std::filesystem::remove_all(dir_, ignored);
}

std::string AppFeed::publish(const sandbox::Gateway& gw, const std::string& version) {
    feed::PackageSpec spec;
    spec.control = "Package: app\nVersion: " + version +
                   "\nArchitecture: all\nMaintainer: ACME\nSection: utils\n"
                   "Description: app for the tests\n";
    // The program is a copy of the host's sleep: a script's process would be its interpreter's,
    // and the package runs only while one of its own files is a live process's program.
    std::ifstream sleep_binary("/bin/sleep", std::ios::binary);
    const std::string program((std::istreambuf_iterator<char>(sleep_binary)), std::istreambuf_iterator<char>());
    spec.tree = {feed::file_entry("usr/bin/app", program, 0755),
                 feed::file_entry("etc/init.d/app",
                                  "#!/bin/sh\ncase \"$1\" in\n"
                                  "start) /usr/bin/app 600 </dev/null >/dev/null 2>&1 & echo $! >/var/run/app.pid ;;\n"
                                  "stop) kill \"$(cat /var/run/app.pid)\" ;;\nesac\nexit 0\n",
                                  0755)};
    const feed::Pki pki = feed::load_pki(gw.feed_pki_dir());
    const feed::Package pkg = feed::build_package(spec, pki);
    const std::string file = "app_" + version + "_all.ipk";
    std::ofstream(dir_ / file, std::ios::binary) << pkg.bytes;
    records_.push_back(feed::index_record(pkg.index_control, file, pkg.bytes, pkg.installed_size));
    feed::write_index(dir_, feed::index_text(records_), pki.signer);
    return gw.feed_url("http") + "/" + file;
}

}  // namespace gwtest
