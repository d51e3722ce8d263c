// Everything the daemon puts on the bus, in the order clients see it: the Packages object, the
// listener for LCM events, the package-operation object, one object per registered package, and
// the execution-environment object last (a client that sees it knows the daemon is ready). The
// same order holds at start-up and whenever the daemon registers again on a new connection.
#pragma once

#include "daemon/daemon_context.hpp"

namespace pkgd {

// The three objects the daemon cannot serve without: the Packages object, the LCM listener and
// the package-operation object (at d.object and d.pkg_name). kOk, or the status of the first one
// the bus refused; the ones after it are not tried.
int add_service_objects(daemon_context& d);

// On a fresh connection (d.ctx just connected): every object and the listener again, under the
// same names and in the start-up order, the packages oldest first as restore registers them. The
// registry keeps every package; their objects' new ids replace the old. A package whose object
// is refused stays registered without one (id 0). kOk, or the status of the first service object
// that failed (nothing after it is tried). A refused execution-environment object is not a
// failure, as at start-up.
int register_again(daemon_context& d);

}  // namespace pkgd
