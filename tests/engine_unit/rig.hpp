// A scratch gateway root with one recording fake for the system, the commands, the log and the
// peers: every command, event, report, data-model call and log line lands in one journal, in order.
#pragma once

#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "pkgd/engine_parts.hpp"
#include "sandbox/feed/package.hpp"

namespace pkgd::testing {

using strings = std::vector<std::string>;
namespace feed = sandbox::feed;

// One PKI for the whole run: making keys is the slow part of building a package.
inline const feed::Pki& test_pki() {
    static const feed::Pki pki = feed::make_pki();
    return pki;
}
// The package "hello" as the feed tools build it, `edit` changing the defaults.
inline std::string hello_ipk(const std::function<void(feed::PackageSpec&)>& edit = {}) {
    feed::PackageSpec spec;
    spec.control = "Package: hello\nVersion: 1.0\n";
    spec.tree = {feed::file_entry("usr/bin/hello", "#!/bin/sh\n", 0755)};
    if (edit) edit(spec);
    return feed::build_package(spec, test_pki()).bytes;
}

struct Rig final : SystemEnv, CommandRunner, LogSink, EnginePeers {
    std::string root = make_root();
    strings journal;
    std::string meminfo_text = "MemAvailable: 500000 kB\n";
    std::optional<fs_figures> fs = fs_figures{4096, 100000, 90000};
    std::time_t clock = std::time(nullptr);
    strings running;                                       // gateway paths of running executables
    std::map<std::string, int> exit_codes;                 // by command word ("update", "install")
    std::map<std::string, std::function<void()>> effects;  // of a command that succeeds
    int next_instance = 7;
    int refused_instance = 0;  // the data model answers 0 for it
    engine_context ctx{engine_paths::rooted(root, "1"),
                       *this,
                       *this,
                       RecordFiles(root + "/usr/local/package", "System", false),
                       ee_identity{},
                       *this,
                       *this};

    Rig() {
        for (const char* d :
             {"/tmp/opkg-1", "/usr/bin", "/usr/lib/opkg/lists", "/usr/lib/opkg/info", "/etc/opkg",
              "/usr/local/package/pkg", "/usr/local/package/du", "/usr/local/package/eu"})
            std::filesystem::create_directories(root + d);
        ctx.identity.name = "System";
    }
    ~Rig() override { std::filesystem::remove_all(root); }
    static std::string make_root() {
        char dir[] = "/tmp/pkgd-engine-XXXXXX";
        return ::mkdtemp(dir);
    }
    void write(const std::string& path, const std::string& text) const {
        std::ofstream(root + path, std::ios::binary) << text;
    }
    bool exists(const std::string& path) const { return std::filesystem::exists(root + path); }
    strings only(const std::string& prefix) const {
        strings out;
        for (const auto& j : journal)
            if (j.starts_with(prefix)) out.push_back(j);
        return out;
    }
    static operation_info new_operation() {
        operation_info op;
        op.pkg = std::make_shared<pkg_info>();
        return op;
    }

    std::optional<std::string> meminfo() override { return meminfo_text; }
    std::optional<fs_figures> root_fs() override { return fs; }
    std::optional<file_id> file_identity(const std::string& path) override {
        struct stat st {};
        if (::stat((root + path).c_str(), &st) != 0) return std::nullopt;
        return file_id{st.st_dev, st.st_ino};
    }
    std::vector<file_id> running_executables() override {
        std::vector<file_id> ids;
        for (const auto& p : running) ids.push_back(*file_identity(p));
        return ids;
    }
    std::time_t now() override { return clock; }
    int run(const strings& argv) override {
        std::string line = "run";
        for (const auto& a : argv) line += " " + a;
        journal.push_back(line);
        const int code = exit_codes[argv.at(1)];
        if (code == 0 && effects[argv.at(1)]) effects[argv.at(1)]();
        return code;
    }
    void log(const std::string& line) override { journal.push_back("log " + line); }
    void event(const lcm_event& ev, std::string_view key, std::string_view value) override {
        journal.push_back("event " + std::to_string(ev.code) + " " + std::string(key) + "=" +
                          std::string(value));
    }
    void report(const operation_info&, const cwmp_fault& f) override {
        journal.push_back("report " + std::to_string(f.code) + " " + std::string(f.text));
    }
    std::int32_t instance(const std::string& kind) {
        journal.push_back("create " + kind);
        return next_instance == refused_instance ? (++next_instance, 0) : next_instance++;
    }
    std::int32_t create_du_instance() override { return instance("du"); }
    std::int32_t create_eu_instance() override { return instance("eu"); }
    std::int32_t create_ee_instance() override { return instance("ee"); }
    void delete_instances(int kind, const operation_info&) override {
        journal.push_back("delete " + std::to_string(kind));
    }
    void set_eu_autostart(std::int32_t eu, std::string_view v) override {
        journal.push_back("autostart " + std::to_string(eu) + " " + std::string(v));
    }
    int start(const pkg_info&) override { return journal.push_back("start"), 0; }
    int stop(const pkg_info&) override { return journal.push_back("stop"), 0; }
};

}  // namespace pkgd::testing
