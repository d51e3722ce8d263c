#include "daemon/reconnect.hpp"

#include <syslog.h>

#include "daemon/daemon_objects.hpp"
#include "daemon/operation_results.hpp"
#include "pkgd/platform.hpp"
#include "ubus/wire.hpp"

namespace pkgd {
namespace {

void attempt(bus_reconnect& r);

void schedule(bus_reconnect& r) {
    r.timer = r.loop.add_timer(kReconnectInterval, [&r] {
        r.timer = 0;
        attempt(r);
    });
}

void on_lost(bus_reconnect& r) {
    if (!r.down) log_sys(LOG_WARNING, kDaemonLogCategory, 0, 0, "lost the bus; reconnecting");
    r.down = true;
    if (r.timer == 0) schedule(r);
}

void attempt(bus_reconnect& r) {
    // A broker not back yet refuses at once: nothing is logged, the next try is due later.
    if (r.d.ctx.connect(r.socket) != ubus::kOk) return schedule(r);
    const int status = register_again(r.d);
    if (status == ubus::kOk) {
        r.down = false;
        on_bus_restored(r.d);
        return;
    }
    // Gone again while registering: its disconnect notice starts the next round.
    if (!r.d.ctx.connected()) return;
    log_sys(LOG_ERR, kDaemonLogCategory, 0, 0, "the bus refused the daemon's objects (status %d)", status);
    r.refused = true;
    r.loop.stop();
}

}  // namespace

bus_reconnect::bus_reconnect(daemon_context& context, ubus::Loop& serving_loop, std::string socket_path)
    : d(context), loop(serving_loop), socket(std::move(socket_path)) {
    d.ctx.on_disconnect([this] { on_lost(*this); });
}

bus_reconnect::~bus_reconnect() {
    d.ctx.on_disconnect({});
    if (timer != 0) loop.cancel_timer(timer);
}

void on_bus_restored(daemon_context& d) {
    log_sys(LOG_NOTICE, kDaemonLogCategory, 0, 0, "back on the bus as %s", d.object.c_str());
    send_pending_results(d);
}

}  // namespace pkgd
