// The daemon's state, passed to every handler: its one bus connection and the names of its
// objects, the registry of its packages, the record files it reads, the identity of the
// environment it serves and the system it looks at (memory, disk, processes, clock).
//
// Nothing here reaches for the gateway: start-up binds a context to the gateway's paths and the
// real system, tests bind one to a scratch directory, their own broker and a fake system.
// Everything the daemon does after start-up runs on the loop's one thread, so nothing is locked.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "daemon/operation_queue.hpp"
#include "daemon/package_registry.hpp"
#include "daemon/package_x_waits.hpp"
#include "pkgd/identity.hpp"
#include "pkgd/journal.hpp"
#include "pkgd/record_files.hpp"
#include "pkgd/records.hpp"
#include "pkgd/system_env.hpp"
#include "ubus/client.hpp"

namespace pkgd {

struct daemon_context {
    daemon_context(RecordFiles record_files, ee_identity identity, SystemEnv& system)
        : files(std::move(record_files)), ee(std::move(identity)), sys(system) {}
    daemon_context(const daemon_context&) = delete;
    daemon_context& operator=(const daemon_context&) = delete;

    ubus::Connection ctx;
    FixedText<256> object;       // the Packages object; also the prefix of per-package objects
    FixedText<64> pkg_name;      // the package-operation object
    FixedText<256> s_ee_object;  // the execution-environment object
    package_registry s_pkgs;
    // The methods every per-package object shares, described to the broker once per connection;
    // made with the first package.
    std::shared_ptr<const ubus::ObjectType> package_x_type;

    RecordFiles files;  // pkg/, du/, eu/, ee/ under one directory
    ee_identity ee;
    SystemEnv& sys;

    // The accepted installs, updates and uninstalls, oldest first, and how their workers are
    // started: forked from the loop at start-up, a stand-in in tests. Without workers (a context
    // that serves only reads) every operation fails to start.
    operation_queue queue;
    std::unique_ptr<WorkerControl> workers;
    // Where every accepted operation is kept until its result has been sent; start-up binds it
    // to files.journal_dir(). Without it (a context that serves only reads) nothing is kept.
    std::optional<OperationJournal> journal;

    // The IsLatestVersion calls waiting for their query child, and the query the children run.
    // Last, so that pending calls are answered and unhooked while the connection still exists.
    package_waits waits;
};

// The category of the daemon's own log records (the workers' operations log under their own).
inline constexpr int kDaemonLogCategory = 1;

// A handler of one of the daemon's objects, given the context it works on.
using daemon_handler = int (*)(daemon_context& d, ubus::Request& req);

// The bus handler that calls `handler` with `d`.
inline ubus::MethodHandler on_context(daemon_context& d, daemon_handler handler) {
    return [&d, handler](ubus::Request& req) { return handler(d, req); };
}

}  // namespace pkgd
