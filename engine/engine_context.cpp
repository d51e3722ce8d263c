// The engine bound to the board: its paths, the system log and the bus peers.
#include <sys/stat.h>

#include "pkgd/engine.hpp"
#include "pkgd/run_state.hpp"

namespace pkgd {
namespace {

class SyslogSink final : public LogSink {
public:
    void log(const std::string& line) override { log_sys(6, 2, 0, 0, "%s", line.c_str()); }
};

class GatewayPeers final : public EnginePeers {
public:
    void event(const lcm_event& ev, std::string_view key, std::string_view value) override {
        package_event(ev, key, value);
    }
    void report(const operation_info& op, const cwmp_fault& fault) override {
        package_response2lcm(op, fault);
    }
    std::int32_t create_du_instance() override { return package_xml_create_du_instance(); }
    std::int32_t create_eu_instance() override { return package_xml_create_eu_instance(); }
    std::int32_t create_ee_instance() override { return package_xml_create_ee_instance(); }
    void delete_instances(int kind, const operation_info& op) override { package_xml_del_instance(kind, op); }
    void set_eu_autostart(std::int32_t eu_index, std::string_view value) override {
        package_xml_set_eu_autostart(eu_index, value);
    }
    int start(const pkg_info& pkg) override { return package_start(pkg); }
    int stop(const pkg_info& pkg) override { return package_stop(pkg); }
};

}  // namespace

engine_paths engine_paths::rooted(const std::string& root, std::string_view ee_id) {
    engine_paths p;
    p.tmp_dir = root + "/tmp";
    p.conf = root + "/tmp/.ipk.conf";
    p.feed_index = root + "/usr/lib/opkg/lists/ipklist";
    p.info_dir = root + "/usr/lib/opkg/info";
    p.trust_anchor = root + "/etc/opkg/opkg.pem";
    p.ca_dir = root + "/etc/opkg/";
    p.work_dir = root + "/tmp/opkg-" + std::string(ee_id);
    if (p.work_dir.size() > 255) p.work_dir.resize(255);
    p.query_conf = root + "/tmp/.ipk-latest.conf";
    p.query_lists_dir = root + "/tmp/opkg-latest-lists";
    return p;
}

engine_context engine_context::gateway() {
    static SyslogSink sink;
    static GatewayPeers peers;
    const ee_identity& identity = package_ee_identity();
    return engine_context{engine_paths::gateway(identity.id.view()),
                          real_system_env(),
                          real_command_runner(),
                          RecordFiles::gateway(),
                          identity,
                          sink,
                          peers};
}

}  // namespace pkgd
