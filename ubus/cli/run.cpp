// The tool's frame: options (GNU style, so they may follow the command), the usage text, the
// connection, and turning a command's result into output and an exit status.
#include <getopt.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "cli.hpp"

namespace ubus_cli {

namespace {

void print_usage(const char* prog) {
    std::fprintf(stderr,
                 "Usage: %s [<options>] <command> [arguments...]\n"
                 "Options:\n"
                 " -s <socket>:\t\tSet the unix domain socket to connect to\n"
                 " -t <timeout>:\t\tSet the timeout (in seconds) for a command to complete\n"
                 " -S:\t\t\tUse simplified output (for scripts)\n"
                 " -v:\t\t\tMore verbose output\n"
                 " -m <type>:\t\t(for monitor): include a specific message type\n"
                 "\t\t\t(can be used more than once)\n"
                 " -M <r|t>\t\t(for monitor): only capture received or transmitted traffic\n"
                 "\n"
                 "Commands:\n"
                 " - list [<path>]\t\t\tList objects\n"
                 " - call <path> <method> [<message>]\tCall an object method\n"
                 " - subscribe <path> [<path>...]\tSubscribe to object(s) notifications\n"
                 " - listen [<path>...]\t\t\tListen for events\n"
                 " - send <type> [<message>]\t\tSend an event\n"
                 " - wait_for <object> [<object>...]\tWait for multiple objects to appear on ubus\n"
                 " - monitor\t\t\t\tMonitor ubus traffic\n"
                 "\n",
                 prog);
}

// Seconds, as atoi would read them, kept within what a millisecond count can hold.
int parse_seconds(const char* text) {
    const long v = std::strtol(text, nullptr, 10);
    return static_cast<int>(std::clamp(v, 0L, static_cast<long>(INT_MAX / 1000)));
}

// False on an unknown option or a missing or bad option argument (getopt has said which).
bool parse_options(int argc, char** argv, Options& opt) {
    for (int c; (c = ::getopt(argc, argv, "s:t:SvM:m:")) != -1;) {
        switch (c) {
            case 's':
                opt.socket = optarg;
                break;
            case 't':
                opt.timeout_s = parse_seconds(optarg);
                opt.timeout_given = true;
                break;
            case 'S':
                opt.simple = true;
                break;
            case 'v':
                opt.verbose = true;
                break;
            case 'm':
                opt.monitor_types.emplace_back(optarg);
                break;
            case 'M':
                if ((optarg[0] != 'r' && optarg[0] != 't') || optarg[1] != '\0') return false;
                opt.monitor_direction = optarg[0];
                break;
            default:
                return false;
        }
    }
    return true;
}

struct Command {
    std::string_view name;
    int (*run)(Context&, Args);
};

constexpr Command kCommands[] = {
    {"list", cmd_list}, {"call", cmd_call},         {"subscribe", cmd_subscribe}, {"listen", cmd_listen},
    {"send", cmd_send}, {"wait_for", cmd_wait_for}, {"monitor", cmd_monitor},
};

}  // namespace

int run(int argc, char** argv) {
    const char* prog = argc > 0 ? argv[0] : "ubus";
    Options opt;
    if (!parse_options(argc, argv, opt)) {
        print_usage(prog);
        return 1;
    }

    // Connecting comes first: without a broker every command fails the same way.
    ubus::Connection bus;
    if (bus.connect(opt.socket) != ubus::kOk) {
        if (!opt.simple) std::fputs("Failed to connect to ubus\n", stderr);
        return 255;
    }
    if (optind >= argc) {
        print_usage(prog);
        return 1;
    }

    const std::string_view name = argv[optind];
    const Args args(argv + optind + 1, static_cast<std::size_t>(argc - optind - 1));
    const auto* cmd = std::ranges::find(kCommands, name, &Command::name);
    Context cx{bus, opt};
    const int result = cmd == std::end(kCommands) ? kUsage : cmd->run(cx, args);

    std::fflush(stdout);
    if (result > 0 && !opt.simple)
        std::fprintf(stderr, "Command failed: %s\n", ubus::status_text(result).c_str());
    else if (result == kUsage)
        print_usage(prog);
    return result & 0xff;
}

}  // namespace ubus_cli
