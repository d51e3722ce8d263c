// call <path> <method> [<message>]: one method call, printing every reply.
#include <unistd.h>

#include <cstdio>
#include <string>

#include "cli.hpp"
#include "output.hpp"
#include "ubus/json.hpp"

namespace ubus_cli {

namespace {
// "ubus call demo hello {...} " as typed, for error lines.
std::string command_line(Args args) {
    std::string line = "ubus call ";
    for (const char* a : args) {
        line += a;
        line += ' ';
    }
    return line;
}
}  // namespace

int cmd_call(Context& cx, Args args) {
    if (args.size() < 2 || args.size() > 3) return kUsage;
    ubus::BlobBuf message;
    int status = ubus::kOk;
    if (args.size() == 3 && !ubus::json_load(message, args[2])) {
        status = ubus::kParseError;
    } else {
        std::uint32_t id = 0;
        // A path that cannot be found is reported like any other failed command.
        if (const int found = cx.bus.lookup_id(args[0], id); found != ubus::kOk) return found;
        const bool compact = cx.opt.simple;
        status = cx.bus.invoke(
            id, args[1], message.members(), [&](ubus::Bytes reply) { print_reply(reply, compact); },
            cx.opt.timeout_s * 1000);
    }
    if (status == ubus::kOk) return ubus::kOk;

    // Scripts get the bare status as exit code; a person at a terminal gets the plain text.
    // Anyone else (a log, a pipe) gets the whole command line with the reason, and an exit code
    // that is the status negated.
    if (cx.opt.simple || ::isatty(STDERR_FILENO)) return status;
    std::fprintf(stderr, "Command failed: %s(%s)\n", command_line(args).c_str(),
                 ubus::status_text(status).c_str());
    // Negated without overflow, whatever an owner returned.
    return static_cast<int>(0u - static_cast<unsigned>(status));
}

}  // namespace ubus_cli
