#include "daemon/daemon_context.hpp"

namespace pkgd {

daemon_context& the_daemon() {
    static daemon_context state;
    return state;
}

}  // namespace pkgd
