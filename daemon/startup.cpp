#include "daemon/startup.hpp"

#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "daemon/daemon_context.hpp"
#include "daemon/daemon_objects.hpp"
#include "daemon/ee_object.hpp"
#include "daemon/journal_worker.hpp"
#include "daemon/operation_queue.hpp"
#include "daemon/operation_results.hpp"
#include "daemon/package_operation_object.hpp"
#include "daemon/packages_object.hpp"
#include "daemon/reconnect.hpp"
#include "daemon/restore.hpp"
#include "pkgd/engine.hpp"
#include "pkgd/identity.hpp"
#include "pkgd/record_files.hpp"
#include "pkgd/system_env.hpp"
#include "ubus/loop.hpp"
#include "ubus/wire.hpp"

namespace pkgd {
namespace {

// Registers the objects in their fixed order, restores the registry and serves. Clients see the
// execution-environment object last, once every restored package has its object.
int register_and_serve(daemon_context& d, ubus::Loop& loop) {
    d.pkg_name = package_operation_object_name(d.ee.id.view());
    d.s_ee_object = ee_object_name(d.ee.id.view());
    if (add_service_objects(d) != ubus::kOk) return kExitNoBus;
    restore_registered_packages(d);
    resume_journal(d);
    // Without this object the packages are still served; its absence only hides the figures.
    add_ee_object(d);
    send_pending_results(d);

    // A broker that goes away comes back with the daemon's objects registered again.
    bus_reconnect reconnect(d, loop, ubus::kDefaultSocket);
    loop.run();
    return reconnect.refused ? kExitNoBus : 0;
}

// Failures here do not stop start-up: a failed detach serves from the foreground, a failed change
// of root serves the tree as it is. In the foreground the working directory is "/" all the same,
// as for a detached daemon. After a change of root it is the new "/": a working directory left
// outside the root would be a way out of it for every relative path.
void detach_and_change_root(const start_options& options) {
    int ignored = options.foreground ? ::chdir("/") : ::daemon(0, 1);
    if (!options.root.empty() && ::chroot(options.root.c_str()) == 0) ignored = ::chdir("/");
    (void)ignored;
}

// The body of a worker process: the whole operation, reported through its own events and result,
// its journal entry kept up to date on the way.
// The daemon's descriptors are closed first: a worker that outlives a killed daemon would
// otherwise hold its bus connection open, and the broker would keep the daemon's objects
// registered, refusing them to the daemon started next. The log reopens on its next line.
int run_worker(const OperationJournal* journal, const operation_info& queued) {
    ::closelog();
    ::close_range(3, ~0U, 0);
    return run_journaled_operation(engine_context::gateway(), journal, queued);
}

}  // namespace

int run_daemon(const start_options& options) {
    detach_and_change_root(options);
    package_init_env();
    // The only place bound to the gateway: its record directory, the identity just learnt and
    // the machine itself.
    daemon_context d(RecordFiles(std::string(kPackageDir), package_get_ee_name(), true),
                     package_ee_identity(), real_system_env());
    // An existing directory is fine and a missing parent is not made: whatever happens, start-up
    // goes on, and an operation that needs the directory reports its own failure. The record
    // directories are made durably; the verification's scratch directory under /tmp does not
    // outlive a power cut anyway.
    d.files.make_directories();
    d.files.remove_stale_temporaries();
    (void)::mkdir(FixedText<256>(std::string("/tmp/opkg-").append(d.ee.id.view())).c_str(), 0755);

    d.object = packages_object_name(d.ee.id.view());
    if (d.ctx.connect() != ubus::kOk) return kExitNoBus;

    int status = 0;
    {
        ubus::Loop loop;
        d.ctx.attach(loop);
        d.journal.emplace(d.files.journal_dir());
        d.journal->prepare();
        const OperationJournal* journal = &*d.journal;
        // A worker lets go of the daemon's bus connection at once: were it kept, a killed daemon's
        // objects would stay on the bus while the worker runs, and the daemon started again would
        // find its names taken.
        d.workers = std::make_unique<ForkedWorkers>(loop, [journal, &d](const operation_info& op) {
            d.ctx.close();
            return run_worker(journal, op);
        });
        d.queue.settle = [&d](operation_info& op, int wait_status) { return settle_operation(d, op, wait_status); };
        status = register_and_serve(d, loop);
        d.ctx.detach();
        d.workers.reset();  // it forks from this loop
    }
    d.ctx.close();
    return status;
}

}  // namespace pkgd
