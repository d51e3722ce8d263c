#include "daemon/event_intake.hpp"

#include "pkgd/lcm_events.hpp"

namespace pkgd {

ubus::AddResult add_lcm_event_handler(ubus::Connection& ctx) {
    return ctx.listen(kLcmEventType, receive_event);
}

void receive_event(std::string_view, ubus::Bytes) {
    // No registry to update yet: nothing has been installed that an event could be about.
}

}  // namespace pkgd
