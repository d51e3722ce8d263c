// Writing and reading back 1000 deployment-unit records, each file replaced atomically (flushed
// to storage twice). No catalog traffic. The directory is a scratch directory under TMPDIR, or the
// one given as the first argument (to compare storage kinds).
//
// Then the cost of the file-system seam under every durable write: replace_file against its floor,
// the same system calls made directly, on the same text. On a memory file system (/dev/shm as the
// argument) the flushes cost next to nothing and what the seam adds shows.
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "bench_clock.hpp"
#include "durable_file.hpp"
#include "pkgd/record_files.hpp"
#include "ubus/fd.hpp"
#include "ubus/json.hpp"

namespace {

constexpr int kRecords = 1000;

pkgd::pkg_info sample_package() {
    pkgd::pkg_info pkg;
    pkg.id = "3";
    pkg.url = "http://feed.example:8080/pkgs/demo_1.2.3_arm_cortex-a9.ipk";
    pkgd::du_info& du = pkg.du;
    du.uuid = "0d0e0a0d-0000-5000-8000-000000000001";
    du.version = "1.2.3";
    du.name = "demo";
    du.vendor = "Example Ltd";
    du.resolved = 1;
    du.enabled = 1;
    du.description = "A demonstration package with a description of ordinary length.";
    du.files = "/usr/bin/demo;/usr/lib/libdemo.so.1;/etc/init.d/demo;/etc/config/demo;";
    du.dependency = "libc,libubox,libubus";
    du.section = "utils";
    du.license = "MIT";
    du.architecture = "arm_cortex-a9";
    du.size = 123456;
    du.installedsize = 345678;
    du.time = "2024-03-05T07:08:09+01:00";
    pkg.eu.push_back({4, "EU-4", "demo"});
    return pkg;
}

// One durable replace in direct system calls: what replace_file does, without the seam.
void direct_replace(const std::string& dir, const std::string& path, std::string_view text) {
    const std::string temp = dir + "/.direct";
    ubus::UniqueFd fd(::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666));
    if (!fd || ::write(fd.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size()) ||
        ::fsync(fd.get()) != 0 || ::close(fd.release()) != 0 || ::rename(temp.c_str(), path.c_str()) != 0)
        std::abort();
    const ubus::UniqueFd dir_fd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!dir_fd || ::fsync(dir_fd.get()) != 0) std::abort();
}

// Replaces kRecords files in `dir` with `text` through `replace`, the same names every run.
template <typename Replace>
void replace_all(const std::string& dir, Replace replace) {
    for (int i = 1; i <= kRecords; ++i) replace(dir + "/" + std::to_string(i));
}

}  // namespace

int main(int argc, char** argv) {
    std::string base;
    if (argc > 1) {
        base = std::string(argv[1]) + "/pkgd-bench-XXXXXX";
    } else {
        base = (std::filesystem::temp_directory_path() / "pkgd-bench-XXXXXX").string();
    }
    if (::mkdtemp(base.data()) == nullptr) return 1;
    std::filesystem::create_directory(base + "/du");

    const pkgd::RecordFiles files(base, "System", false);
    pkgd::pkg_info pkg = sample_package();
    std::printf("%d DU records in %s\n", kRecords, base.c_str());
    bench::report("write 1000 DU records", 3, [&] {
        for (int i = 1; i <= kRecords; ++i) {
            pkg.du.index = i;
            files.store_du(pkg);
        }
    });
    bench::report("read back 1000 DU records", 3, [&] {
        for (int i = 1; i <= kRecords; ++i) {
            pkgd::pkg_info back;
            if (files.load_du(back, i) != 0) std::abort();
        }
    });

    ubus::BlobBuf msg;
    pkgd::du_record_message(msg, pkg, "System");
    const std::string text = ubus::json_format(msg);
    const std::string dir = base + "/du";
    const double seam = bench::report("replace 1000 files: replace_file", 5, [&] {
        replace_all(dir, [&](const std::string& path) {
            if (!pkgd::replace_file(path, text)) std::abort();
        });
    });
    const double floor = bench::report("replace 1000 files: direct system calls (floor)", 5, [&] {
        replace_all(dir, [&](const std::string& path) { direct_replace(dir, path, text); });
    });
    std::printf("replace_file / floor: %.3f\n", seam / floor);
    std::error_code ec;
    std::filesystem::remove_all(base, ec);
    return 0;
}
