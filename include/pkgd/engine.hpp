// The operation engine: install, update and remove a package with opkg, and ask a feed whether a
// newer version is on offer. A forked worker runs one operation; everything the engine reads or
// changes outside its own memory goes through the context, so tests drive it against a scratch
// directory with recording fakes.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "pkgd/datamodel.hpp"
#include "pkgd/identity.hpp"
#include "pkgd/lcm_events.hpp"
#include "pkgd/platform.hpp"
#include "pkgd/record_files.hpp"
#include "pkgd/records.hpp"
#include "pkgd/system_env.hpp"

namespace pkgd {

// Every path the engine touches. `gateway` gives the board's; `rooted` puts the same layout
// under a directory (tests, sandbox).
struct engine_paths {
    std::string tmp_dir;       // "/tmp": downloads land here
    std::string conf;          // "/tmp/.ipk.conf"
    std::string feed_index;    // "/usr/lib/opkg/lists/ipklist"
    std::string info_dir;      // "/usr/lib/opkg/info"
    std::string trust_anchor;  // "/etc/opkg/opkg.pem"
    std::string ca_dir;        // "/etc/opkg/"
    std::string work_dir;      // "/tmp/opkg-<id>": verification unpacks here
    // The latest-version query's own configuration and lists directory, so a query never
    // replaces an operation's configuration or feed index.
    std::string query_conf;       // "/tmp/.ipk-latest.conf"
    std::string query_lists_dir;  // "/tmp/opkg-latest-lists"

    static engine_paths gateway(std::string_view ee_id) { return rooted("", ee_id); }
    static engine_paths rooted(const std::string& root, std::string_view ee_id);
};

// Where the engine's log lines go; the gateway's sink is log_sys(6, 2, 0, 0, ...).
class LogSink {
public:
    virtual ~LogSink() = default;
    virtual void log(const std::string& line) = 0;
};

// The other services an operation talks to: LCM events, the results report, the data model and
// the service manager. The gateway's peers forward to the store and data-model functions.
class EnginePeers {
public:
    virtual ~EnginePeers() = default;
    virtual void event(const lcm_event& ev, std::string_view key, std::string_view value) = 0;
    virtual void report(const operation_info& op, const cwmp_fault& fault) = 0;
    virtual std::int32_t create_du_instance() = 0;
    virtual std::int32_t create_eu_instance() = 0;
    virtual std::int32_t create_ee_instance() = 0;
    virtual void delete_instances(int kind, const operation_info& op) = 0;
    virtual void set_eu_autostart(std::int32_t eu_index, std::string_view value) = 0;
    virtual int start(const pkg_info& pkg) = 0;
    virtual int stop(const pkg_info& pkg) = 0;
};

struct engine_context {
    engine_paths paths;
    SystemEnv& sys;
    CommandRunner& commands;
    RecordFiles records;
    ee_identity identity;
    LogSink& log;
    EnginePeers& peers;

    // The board: real paths, system, commands, record files, identity (package_init_env must
    // have run), syslog and bus peers.
    static engine_context gateway();
};

// The operations a worker runs. Install and remove return 0 on success and -1 otherwise; the
// update's status is not looked at by its caller.
int package_opkg_install_operate(engine_context& ctx, operation_info& op);
int package_opkg_update_operate(engine_context& ctx, operation_info& op);
int package_opkg_remove_operate(engine_context& ctx, operation_info& op);

// The recovery of an operation whose worker died before it reported (op.recover_fault set, its
// breadcrumbs in op.opkg_reached and op.pkg->du.index): brings the package back to a state the
// record files, the data model and opkg agree on, and reports the failure once with
// op.recover_fault (9001 after a cancel, 9002 otherwise). An install is undone as its failure
// path undoes; an update keeps the version opkg has (recording it when opkg installed the new
// one) and starts the units again; a remove that opkg completed is finished, else the package
// stays. 0 when the package ended consistent, -1 without a package.
int package_opkg_recover_operate(engine_context& ctx, operation_info& op);

// 1 when the package's feed offers a version newer than the installed one, 0 otherwise
// (including every failure).
int package_opkg_islatestversion(engine_context& ctx, const pkg_info& pkg);

}  // namespace pkgd
