#include "sandbox/feed/service_feed.hpp"

#include <stdlib.h>
#include <sys/stat.h>

#include <fstream>
#include <sstream>

#include "sandbox/feed/index.hpp"
#include "sandbox/feed/package.hpp"
#include "sandbox/feed/pki.hpp"

namespace sandbox::feed {
namespace {

namespace fs = std::filesystem;

constexpr const char* kProgramSource = "/bin/sleep";

std::string init_script(const std::string& name) {
    const std::string program = "/usr/bin/" + name;
    const std::string pid_file = "/var/run/" + name + ".pid";
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
    if (bytes.str().empty()) throw FeedError(std::string("cannot read ") + path);
    return bytes.str();
}

}  // namespace

ScratchDir::ScratchDir(const fs::path& parent, std::string_view prefix) {
    std::string pattern = (parent / (std::string(prefix) + "-XXXXXX")).string();
    if (::mkdtemp(pattern.data()) == nullptr) return;
    ::chmod(pattern.c_str(), 0755);
    path_ = pattern;
}

ScratchDir::~ScratchDir() {
    std::error_code ignored;
    if (made()) fs::remove_all(path_, ignored);
}

ServiceFeed::ServiceFeed(fs::path dir, std::string name, std::string description, bool dot_slash_names)
    : dir_(std::move(dir)), name_(std::move(name)), description_(std::move(description)),
      dot_slash_names_(dot_slash_names) {}

std::string ServiceFeed::publish(const fs::path& pki_dir, const std::string& version,
                                 std::map<std::string, std::string> scripts) {
    PackageSpec spec;
    spec.control = "Package: " + name_ + "\nVersion: " + version +
                   "\nArchitecture: all\nMaintainer: ACME\nSection: utils\nDescription: " + description_ + "\n";
    spec.tree = {file_entry("usr/bin/" + name_, read_binary(kProgramSource), 0755),
                 file_entry("etc/init.d/" + name_, init_script(name_), 0755)};
    spec.scripts = std::move(scripts);
    spec.dot_slash_names = dot_slash_names_;
    const Pki pki = load_pki(pki_dir);
    const Package pkg = build_package(spec, pki);
    const std::string file = package_file_name(pkg.index_control);
    std::ofstream(dir_ / file, std::ios::binary) << pkg.bytes;
    records_.push_back(index_record(pkg.index_control, file, pkg.bytes, pkg.installed_size));
    write_index(dir_, index_text(records_), pki.signer);
    return file;
}

}  // namespace sandbox::feed
