#include "serve.hpp"

#include <chrono>

namespace ubus_cli {

int serve(ubus::Connection& bus, ubus::Loop& loop, int timeout_ms) {
    int result = ubus::kOk;
    bus.on_disconnect([&] {
        result = ubus::kConnectionFailed;
        loop.stop();
    });
    ubus::Loop::Id timer = 0;
    if (timeout_ms > 0) {
        timer = loop.add_timer(std::chrono::milliseconds(timeout_ms), [&] {
            timer = 0;
            result = ubus::kTimeout;
            loop.stop();
        });
    }
    bus.attach(loop);
    loop.run();
    bus.detach();
    if (timer) loop.cancel_timer(timer);
    bus.on_disconnect({});
    return result;
}

int serve_for_duration(Context& cx, ubus::Loop& loop) {
    const int served = serve(cx.bus, loop, cx.opt.timeout_given ? cx.opt.timeout_s * 1000 : 0);
    return served == ubus::kTimeout ? ubus::kOk : served;
}

}  // namespace ubus_cli
