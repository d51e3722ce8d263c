// A scratch gateway root with recording fakes: every command, event, report, data-model call and
// log line lands in one journal, in order.
#pragma once

#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "pkgd/engine_parts.hpp"

namespace pkgd::testing {

struct Rig final : SystemEnv, CommandRunner, LogSink, EnginePeers {
    std::string root;
    std::vector<std::string> journal;
    std::string meminfo_text = "MemTotal: 900000 kB\nMemAvailable: 500000 kB\n";
    std::optional<fs_figures> fs = fs_figures{4096, 100000, 90000};
    std::time_t clock = std::time(nullptr);
    std::vector<std::string> running;           // gateway paths of running executables
    std::map<std::string, int> exit_codes;      // by command word ("update", "install", ...)
    std::map<std::string, std::function<void()>> effects;  // run when the command succeeds
    int next_instance = 7;
    std::map<std::string, int> refuse;          // "du"/"eu"/"ee": the instance that answers 0
    engine_context ctx;

    Rig() : root(make_root()), ctx{engine_paths::rooted(root, "1"), *this, *this,
                                   RecordFiles(root + "/usr/local/package", "System", false),
                                   ee_identity{}, *this, *this} {
        for (const char* d : {"/tmp/opkg-1", "/usr/lib/opkg/lists", "/usr/lib/opkg/info", "/etc/opkg",
                              "/usr/local/package/pkg", "/usr/local/package/du", "/usr/local/package/eu",
                              "/usr/local/package/ee"})
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

    std::optional<std::string> meminfo() override { return meminfo_text; }
    std::optional<fs_figures> root_fs() override { return fs; }
    std::optional<file_id> file_identity(const std::string& path) override {
        struct stat st {};  // the package's listed paths are the gateway's, under the root
        if (::stat((root + path).c_str(), &st) != 0) return std::nullopt;
        return file_id{st.st_dev, st.st_ino};
    }
    std::vector<file_id> running_executables() override {
        std::vector<file_id> ids;
        for (const auto& p : running) ids.push_back(*file_identity(p));
        return ids;
    }
    std::time_t now() override { return clock; }

    int run(const std::vector<std::string>& argv) override {
        std::string line = "run";
        for (const auto& a : argv) line += " " + a;
        journal.push_back(line);
        const std::string word = argv.size() > 1 ? argv[1] : "";
        const int code = exit_codes.count(word) ? exit_codes[word] : 0;
        if (code == 0 && effects.count(word)) effects[word]();
        return code;
    }
    void log(const std::string& line) override { journal.push_back("log " + line); }
    void event(const lcm_event& ev, std::string_view key, std::string_view value) override {
        journal.push_back("event " + std::to_string(ev.code) + " " + std::string(key) + "=" + std::string(value));
    }
    void report(const operation_info&, const cwmp_fault& f) override {
        journal.push_back("report " + std::to_string(f.code) + " " + std::string(f.text));
    }
    std::int32_t instance(const std::string& kind) {
        journal.push_back("create " + kind);
        const int n = next_instance++;
        return refuse.count(kind) && refuse[kind] == n ? 0 : n;
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

    static operation_info new_operation() {
        operation_info op;
        op.pkg = std::make_shared<pkg_info>();
        return op;
    }

    // The journal entries that begin with `prefix`.
    std::vector<std::string> only(const std::string& prefix) const {
        std::vector<std::string> out;
        for (const auto& j : journal)
            if (j.rfind(prefix, 0) == 0) out.push_back(j);
        return out;
    }
};

}  // namespace pkgd::testing
