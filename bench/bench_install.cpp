// Install of a 10 MiB package from the loopback HTTP feed through the engine, in a sandbox gateway
// with the simulator, against its floor measured in the same gateway from the same server:
//
//   - install: package_opkg_install_operate as a worker runs it (feed refresh, download,
//     verification, the package tool's install, records and events); each install is followed by
//     an untimed remove;
//   - floor: what no install can avoid: fetching the .ipk with libcurl, the SHA-256 of both inner
//     archives, and unpacking the data archive once into a scratch directory.
//
// Both are timed inside the gateway, so starting the child that runs them is not counted.
#include <archive.h>
#include <archive_entry.h>
#include <curl/curl.h>
#include <openssl/evp.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "pkgd/engine.hpp"
#include "pkgd/identity.hpp"
#include "sandbox/feed/index.hpp"
#include "sandbox/feed/package.hpp"
#include "sandbox/feed/pki.hpp"
#include "sandbox/gateway.hpp"

namespace {

namespace fs = std::filesystem;
namespace feed = sandbox::feed;
using Clock = std::chrono::steady_clock;

constexpr int kRuns = 5;
constexpr std::size_t kPayloadBytes = std::size_t{10} << 20;
constexpr std::string_view kName = "bigpayload";
constexpr std::string_view kUser = "bench";
constexpr std::string_view kPassword = "bench-pass";
constexpr std::string_view kObject = "Services.Management.LCM.ExecutionEnvironments.System.Packages.";
constexpr double kGoal = 1.3;

double ms_since(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

// Bytes gzip cannot shrink, the same every run.
std::string incompressible(std::size_t size) {
    std::mt19937_64 gen(20261123);
    std::string out(size, '\0');
    for (std::size_t i = 0; i + 8 <= size; i += 8) {
        const std::uint64_t word = gen();
        std::memcpy(out.data() + i, &word, 8);
    }
    return out;
}

// The feed's directory, removed with the benchmark whichever way it ends.
struct FeedDir {
    fs::path path;
    FeedDir() {
        std::string pattern = std::string(BENCH_SCRATCH_DIR) + "/install-feed-XXXXXX";
        if (::mkdtemp(pattern.data()) == nullptr) return;
        ::chmod(pattern.c_str(), 0755);  // the servers read it as their own user
        path = pattern;
    }
    ~FeedDir() {
        std::error_code ignored;
        if (!path.empty()) fs::remove_all(path, ignored);
    }
    FeedDir(const FeedDir&) = delete;
    FeedDir& operator=(const FeedDir&) = delete;
};

// Publishes the package in a signed index; its file name in the feed.
std::string publish(const sandbox::Gateway& gw, const fs::path& feed_dir) {
    const feed::Pki pki = feed::load_pki(gw.feed_pki_dir());
    feed::PackageSpec spec;
    spec.control = "Package: " + std::string(kName) +
                   "\nVersion: 1.0\nArchitecture: all\nMaintainer: ACME\nSection: utils\n"
                   "Description: ten MiB of payload\n";
    spec.tree = {feed::file_entry("usr/share/" + std::string(kName) + "/payload.bin", incompressible(kPayloadBytes)),
                 feed::file_entry("etc/init.d/" + std::string(kName), "#!/bin/sh\nexit 0\n", 0755)};
    spec.dot_slash_names = true;
    const feed::Package pkg = feed::build_package(spec, pki);
    const std::string file = feed::package_file_name(pkg.index_control);
    std::ofstream(feed_dir / file, std::ios::binary) << pkg.bytes;
    const std::string record = feed::index_record(pkg.index_control, file, pkg.bytes, pkg.installed_size);
    feed::write_index(feed_dir, feed::index_text({record}), pki.signer);
    return file;
}

// The package tool's progress lines would bury the figures.
void quiet() {
    const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (null < 0) return;
    ::dup2(null, STDOUT_FILENO);
    ::close(null);
}

// The gateway's command runner, timing each package-tool command it runs.
class TimedRunner final : public pkgd::CommandRunner {
public:
    int run(const std::vector<std::string>& argv) override {
        const Clock::time_point start = Clock::now();
        const int rc = pkgd::real_command_runner().run(argv);
        times += (times.empty() ? "" : " ") + (argv.size() > 1 ? argv[1] : argv[0]) + " " +
                 std::to_string(ms_since(start));
        return rc;
    }
    std::string times;
};

struct Operated {
    double ms = 0;
    std::string commands;  // "NAME MS ..." of each command, in order
};

// One operation as a worker runs it, inside the gateway; its duration in ms, none on failure.
std::optional<Operated> operate(const sandbox::Gateway& gw, int type, const std::string& url) {
    const sandbox::CommandResult r = gw.run_inside(
        [&](std::string& out) {
            quiet();
            ::unsetenv("EXECENV_INDEX");
            pkgd::package_init_env();
            ::mkdir("/tmp/opkg-System", 0755);
            pkgd::engine_context base = pkgd::engine_context::gateway();
            TimedRunner timed;
            pkgd::engine_context ctx{base.paths, base.sys, timed, base.records, base.identity, base.log, base.peers};
            pkgd::operation_info op;
            op.type = type;
            op.request_id = 1;
            op.pkg = std::make_shared<pkgd::pkg_info>();
            op.pkg->id = "1";
            op.pkg->object_name = std::string(kObject) + "1";
            if (type != pkgd::OPERATION_INSTALL) ctx.records.load_pkg(*op.pkg);
            if (!url.empty()) op.pkg->url = url;
            op.pkg->username = kUser;
            op.pkg->password = kPassword;
            const Clock::time_point start = Clock::now();
            const int rc = type == pkgd::OPERATION_INSTALL ? pkgd::package_opkg_install_operate(ctx, op)
                                                           : pkgd::package_opkg_remove_operate(ctx, op);
            out = std::to_string(ms_since(start)) + "\n" + timed.times;
            return rc == 0 ? 0 : 1;
        },
        std::chrono::seconds(300));
    if (!r.ok()) {
        std::printf("operation %d failed (exit %d): %s\n", type, r.exit_code, r.err.c_str());
        return std::nullopt;
    }
    Operated done;
    done.ms = std::stod(r.out);
    if (const std::size_t eol = r.out.find('\n'); eol != std::string::npos) done.commands = r.out.substr(eol + 1);
    return done;
}

// ----- the floor -----

struct EasyCleanup {
    void operator()(CURL* h) const { curl_easy_cleanup(h); }
};
struct ReadCleanup {
    void operator()(archive* a) const { archive_read_free(a); }
};
struct WriteCleanup {
    void operator()(archive* a) const { archive_write_free(a); }
};
struct FileCleanup {
    void operator()(std::FILE* f) const { std::fclose(f); }
};
using ReadArchive = std::unique_ptr<archive, ReadCleanup>;

size_t write_to_file(char* data, size_t size, size_t count, void* user) {
    return std::fwrite(data, size, count, static_cast<std::FILE*>(user));
}

bool fetch(const std::string& url, const std::string& path) {
    std::unique_ptr<std::FILE, FileCleanup> file(std::fopen(path.c_str(), "wb"));
    std::unique_ptr<CURL, EasyCleanup> easy(curl_easy_init());
    if (!file || !easy) return false;
    CURL* h = easy.get();
    const std::string user(kUser), password(kPassword);
    curl_easy_setopt(h, CURLOPT_URL, url.c_str());
    curl_easy_setopt(h, CURLOPT_FAILONERROR, 1L);
    curl_easy_setopt(h, CURLOPT_USERNAME, user.c_str());
    curl_easy_setopt(h, CURLOPT_PASSWORD, password.c_str());
    curl_easy_setopt(h, CURLOPT_HTTPAUTH, CURLAUTH_BASIC);
    curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, write_to_file);
    curl_easy_setopt(h, CURLOPT_WRITEDATA, file.get());
    return curl_easy_perform(h) == CURLE_OK;
}

// The outer archive's members `data.tar.gz` and `control.tar.gz`, in memory.
bool inner_archives(const std::string& path, std::string& data, std::string& control) {
    ReadArchive outer(archive_read_new());
    archive_read_support_format_all(outer.get());
    archive_read_support_filter_all(outer.get());
    if (archive_read_open_filename(outer.get(), path.c_str(), 1 << 16) != ARCHIVE_OK) return false;
    archive_entry* entry = nullptr;
    while (archive_read_next_header(outer.get(), &entry) == ARCHIVE_OK) {
        const std::string_view name = archive_entry_pathname(entry);
        std::string* sink = name.ends_with("data.tar.gz") ? &data : name.ends_with("control.tar.gz") ? &control : nullptr;
        if (sink == nullptr) continue;
        sink->resize(static_cast<std::size_t>(archive_entry_size(entry)));
        if (archive_read_data(outer.get(), sink->data(), sink->size()) != static_cast<la_ssize_t>(sink->size()))
            return false;
    }
    return !data.empty() && !control.empty();
}

std::string sha256(const std::string& bytes) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_sha256(), nullptr);
    return std::string(reinterpret_cast<const char*>(digest), length);
}

bool unpack(const std::string& tar_gz, const std::string& dir) {
    ReadArchive in(archive_read_new());
    archive_read_support_format_tar(in.get());
    archive_read_support_filter_gzip(in.get());
    std::unique_ptr<archive, WriteCleanup> out(archive_write_disk_new());
    archive_write_disk_set_options(out.get(), ARCHIVE_EXTRACT_PERM | ARCHIVE_EXTRACT_TIME |
                                                  ARCHIVE_EXTRACT_SECURE_NODOTDOT | ARCHIVE_EXTRACT_SECURE_SYMLINKS);
    if (archive_read_open_memory(in.get(), tar_gz.data(), tar_gz.size()) != ARCHIVE_OK) return false;
    archive_entry* entry = nullptr;
    while (archive_read_next_header(in.get(), &entry) == ARCHIVE_OK) {
        archive_entry_set_pathname(entry, (dir + "/" + archive_entry_pathname(entry)).c_str());
        if (archive_write_header(out.get(), entry) != ARCHIVE_OK) return false;
        const void* block = nullptr;
        size_t size = 0;
        la_int64_t offset = 0;
        while (archive_read_data_block(in.get(), &block, &size, &offset) == ARCHIVE_OK)
            if (archive_write_data_block(out.get(), block, size, offset) != ARCHIVE_OK) return false;
    }
    return archive_write_close(out.get()) == ARCHIVE_OK;
}

std::optional<double> floor_once(const sandbox::Gateway& gw, const std::string& url) {
    const sandbox::CommandResult r = gw.run_inside(
        [&](std::string& out) {
            const std::string file = "/tmp/floor.ipk";
            const std::string dir = "/tmp/floor-unpacked";
            ::mkdir(dir.c_str(), 0755);
            const Clock::time_point start = Clock::now();
            std::string data, control;
            if (!fetch(url, file) || !inner_archives(file, data, control)) return 1;
            const std::string digests = sha256(data) + sha256(control);
            if (digests.size() != 64 || !unpack(data, dir)) return 1;
            out = std::to_string(ms_since(start));
            std::error_code ec;
            fs::remove_all(dir, ec);
            fs::remove(file, ec);
            return 0;
        },
        std::chrono::seconds(120));
    if (!r.ok()) {
        std::printf("floor failed (exit %d): %s\n", r.exit_code, r.err.c_str());
        return std::nullopt;
    }
    return std::stod(r.out);
}

}  // namespace

int main() {
    const FeedDir feed;
    if (feed.path.empty()) return 1;
    const fs::path& feed_dir = feed.path;
    sandbox::GatewayOptions options;
    options.name = "bench-install";
    options.simulator = true;
    options.feed_dir = feed_dir;
    options.feed_user = kUser;
    options.feed_password = kPassword;
    sandbox::Gateway gw(options);
    if (!gw.up()) {
        std::printf("no gateway: %s\n", gw.error().c_str());
        return 1;
    }
    const std::string url = gw.feed_url("http") + "/" + publish(gw, feed_dir);

    std::vector<double> installs, floors, in_process;
    std::map<std::string, std::vector<double>> commands;  // by the package tool's command
    for (int run = 0; run < kRuns; ++run) {
        // Alternated, so that a busy moment of the machine weighs on both alike.
        const std::optional<double> floor_ms = floor_once(gw, url);
        const std::optional<Operated> install = operate(gw, pkgd::OPERATION_INSTALL, url);
        if (!floor_ms || !install || !operate(gw, pkgd::OPERATION_REMOVE, "")) return 1;
        floors.push_back(*floor_ms);
        installs.push_back(install->ms);
        std::istringstream fields(install->commands);
        double outside = 0;
        std::string name;
        for (double ms = 0; fields >> name >> ms; outside += ms) commands[name].push_back(ms);
        in_process.push_back(install->ms - outside);
    }
    const double install = median(installs), floor = median(floors);
    std::printf("%-58s median %10.1f ms   (%d runs)\n", "install of a 10 MiB package over HTTP", install, kRuns);
    for (const auto& [name, ms] : commands)
        std::printf("  %-56s median %10.1f ms\n", ("of which `opkg " + name + "`").c_str(), median(ms));
    std::printf("  %-56s median %10.1f ms\n", "of which in the worker itself", median(in_process));
    std::printf("%-58s median %10.1f ms   (%d runs)\n", "floor: fetch, SHA-256 of both archives, one unpack", floor,
                kRuns);
    std::printf("%-58s %.2f (goal at most %.1f)\n", "ratio install / floor", install / floor, kGoal);
    return 0;
}
