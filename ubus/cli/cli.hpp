// The `ubus` command-line tool: options, the commands, and what they share.
//
// A command returns a result that the tool turns into its output and exit status (run.cpp):
// 0 is success; a positive value is a bus status, reported as "Command failed: <text>" (unless
// the output is simplified); kUsage asks for the usage text; any other negative value means the
// command has already reported the failure itself. The exit status is the low 8 bits.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "ubus/client.hpp"

namespace ubus_cli {

constexpr int kUsage = -2;
constexpr int kReported = -1;

struct Options {
    std::string socket = ubus::kDefaultSocket;
    int timeout_s = 30;
    bool timeout_given = false;
    bool simple = false;                     // -S: for scripts, compact JSON, no error messages
    bool verbose = false;                    // -v
    std::vector<std::string> monitor_types;  // -m, repeatable
    char monitor_direction = 0;              // -M: 'r', 't' or 0 for both
};

struct Context {
    ubus::Connection& bus;
    const Options& opt;
};

using Args = std::span<char* const>;

int cmd_list(Context& cx, Args args);
int cmd_call(Context& cx, Args args);
int cmd_send(Context& cx, Args args);
int cmd_listen(Context& cx, Args args);
int cmd_subscribe(Context& cx, Args args);
int cmd_wait_for(Context& cx, Args args);
int cmd_monitor(Context& cx, Args args);

// Parses the options, connects and runs the command: the whole tool. Returns the exit status.
int run(int argc, char** argv);

}  // namespace ubus_cli
