#include "demo_feed.hpp"

#include <stdlib.h>
#include <sys/stat.h>

#include <exception>
#include <fstream>
#include <sstream>
#include <vector>

#include "sandbox/feed/index.hpp"
#include "sandbox/feed/package.hpp"
#include "sandbox/feed/pki.hpp"

namespace demo {
namespace {

namespace fs = std::filesystem;
namespace feed = sandbox::feed;

// The package's program: a copy of the host's sleep, which runs under any name. A script would
// not do: the process of a script is its interpreter's, and the package's status reads "Running"
// only while one of the package's own files is a live process's program.
constexpr const char* kProgramSource = "/bin/sleep";

// Started in the background with its PID noted, so that "stop" ends exactly that process.
std::string init_script() {
    const std::string program = std::string("/usr/bin/") + kPackageName;
    const std::string pid_file = std::string("/var/run/") + kPackageName + ".pid";
    return "#!/bin/sh\n"
           "case \"$1\" in\n"
           "start)\n"
           "  " + program + " 86400 </dev/null >/dev/null 2>&1 &\n"
           "  echo $! > " + pid_file + "\n"
           "  ;;\n"
           "stop)\n"
           "  [ -f " + pid_file + " ] && kill \"$(cat " + pid_file + ")\"\n"
           "  rm -f " + pid_file + "\n"
           "  ;;\n"
           "esac\n"
           "exit 0\n";
}

std::string read_binary(const char* path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream bytes;
    bytes << in.rdbuf();
    return bytes.str();
}

feed::Package build(const std::string& version, const std::string& program, const feed::Pki& pki) {
    feed::PackageSpec spec;
    spec.control = std::string("Package: ") + kPackageName + "\nVersion: " + version +
                   "\nArchitecture: all\nMaintainer: ACME\nSection: utils\n"
                   "Description: a clock that ticks in the background, for the demonstration\n";
    spec.tree = {feed::file_entry(std::string("usr/bin/") + kPackageName, program, 0755),
                 feed::file_entry(std::string("etc/init.d/") + kPackageName, init_script(), 0755)};
    spec.dot_slash_names = true;
    return feed::build_package(spec, pki);
}

}  // namespace

FeedDir::FeedDir() {
    std::string pattern = (fs::temp_directory_path() / "pkgd-demo-feed-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) return;
    ::chmod(pattern.c_str(), 0755);  // the feed servers read it as users of their own
    path_ = pattern;
}

FeedDir::~FeedDir() {
    std::error_code ignored;
    if (made()) fs::remove_all(path_, ignored);
}

PublishedFeed publish_demo_feed(const fs::path& feed_dir, const fs::path& pki_dir) {
    PublishedFeed out;
    const std::string program = read_binary(kProgramSource);
    if (program.empty()) {
        out.error = std::string("cannot read ") + kProgramSource;
        return out;
    }
    try {
        const feed::Pki pki = feed::load_pki(pki_dir);
        std::vector<std::string> records;
        for (const char* version : {"1.0", "1.1"}) {
            const feed::Package pkg = build(version, program, pki);
            const std::string file = feed::package_file_name(pkg.index_control);
            std::ofstream(feed_dir / file, std::ios::binary) << pkg.bytes;
            records.push_back(feed::index_record(pkg.index_control, file, pkg.bytes, pkg.installed_size));
            (out.first_file.empty() ? out.first_file : out.newer_file) = file;
        }
        feed::write_index(feed_dir, feed::index_text(records), pki.signer);
    } catch (const std::exception& e) {
        out.error = e.what();
    }
    return out;
}

}  // namespace demo
