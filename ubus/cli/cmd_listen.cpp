// listen [<pattern>...]: prints events as they come, until interrupted or for -t seconds.
#include <string_view>
#include <vector>

#include "cli.hpp"
#include "output.hpp"
#include "serve.hpp"

namespace ubus_cli {

int cmd_listen(Context& cx, Args args) {
    std::vector<std::string_view> patterns(args.begin(), args.end());
    if (patterns.empty()) patterns.emplace_back("*");

    ubus::Loop loop;
    const ubus::AddResult listener = cx.bus.add_event_handler(print_event);
    int status = listener.status;
    for (const std::string_view pattern : patterns) {
        if (status == ubus::kOk) status = cx.bus.register_event(listener.id, pattern);
        if (status != ubus::kOk) {
            print_registration_error(pattern, status);
            return kReported;
        }
    }
    return serve_for_duration(cx, loop);
}

}  // namespace ubus_cli
