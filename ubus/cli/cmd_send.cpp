// send <type> [<message>]: broadcasts one event.
#include "cli.hpp"
#include "ubus/json.hpp"

namespace ubus_cli {

int cmd_send(Context& cx, Args args) {
    if (args.empty() || args.size() > 2) return kUsage;
    ubus::BlobBuf data;
    if (args.size() == 2 && !ubus::json_load(data, args[1])) return ubus::kParseError;
    return cx.bus.send_event(args[0], data.members());
}

}  // namespace ubus_cli
