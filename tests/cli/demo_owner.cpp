// The "demo" object the CLI transcripts were captured against, in a process of its own, serving
// until SIGTERM:
//
//   cli_demo_owner <socket>
#include <cstdio>

#include "demo_object.hpp"
#include "ubus/loop.hpp"

int main(int argc, char** argv) {
    ubus::Loop loop;
    ubus::Connection bus;
    if (argc != 2 || bus.connect(argv[1]) != ubus::kOk) {
        std::fprintf(stderr, "usage: cli_demo_owner <socket of a running broker>\n");
        return 2;
    }
    const bus_test::Demo demo(bus, &loop);
    if (const auto added = bus.add_object("demo", demo.type); added.status != ubus::kOk) {
        std::fprintf(stderr, "cannot register demo: %s\n", ubus::status_text(added.status).c_str());
        return 1;
    }
    bus.on_disconnect([&loop] { loop.stop(); });
    bus.attach(loop);
    loop.run();
    return 0;
}
