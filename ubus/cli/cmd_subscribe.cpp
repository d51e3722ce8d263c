// subscribe <path>...: prints the notifications of these objects, until interrupted or for -t
// seconds.
#include <cstdio>

#include "cli.hpp"
#include "output.hpp"
#include "serve.hpp"

namespace ubus_cli {

int cmd_subscribe(Context& cx, Args args) {
    if (args.empty()) {
        std::fputs("You need to specify an object to subscribe to\n", stderr);
        return kReported;
    }
    ubus::Loop loop;
    const ubus::AddResult subscriber = cx.bus.add_subscriber([](ubus::Request& req) {
        print_event(req.method(), req.args());
        return ubus::kOk;
    });
    int status = subscriber.status;
    for (const char* path : args) {
        std::uint32_t target = 0;
        if (status == ubus::kOk) status = cx.bus.lookup_id(path, target);
        if (status == ubus::kOk) status = cx.bus.subscribe(subscriber.id, target);
        if (status != ubus::kOk) {
            // Whichever path failed, the message names the first one, as it always has.
            print_registration_error(args[0], status);
            return kReported;
        }
    }
    return serve_for_duration(cx, loop);
}

}  // namespace ubus_cli
