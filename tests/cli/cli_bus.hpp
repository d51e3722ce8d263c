// The bus the CLI tests run the tool against: our broker with the demo object on it, and a
// directory in which the broker's socket is reachable as "ubus.sock", the name the transcripts use.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "broker_process.hpp"
#include "child_process.hpp"
#include "ubus/client.hpp"

namespace cli_test {

struct DemoBus {
    DemoBus();  // returns once the demo object is on the bus
    bus_test::BrokerProcess broker;
    bus_test::Child demo_owner{DEMO_OWNER_PATH, {"cli_demo_owner", broker.socket()}};
    bus_test::TempDir dir;    // the tool runs here
    ubus::Connection client;  // the tests' own connection
};
// The one of this process, started on first use: the tests share it.
DemoBus& demo_bus();

// The tool, started with `argv` (argv[0] included) in the bus's directory, its output captured.
struct CliProcess : bus_test::Child {
    explicit CliProcess(const std::vector<std::string>& argv)
        : Child(UBUS_CLI_PATH, argv, demo_bus().dir.path(), true) {}
};

struct Output {
    std::string out, err;
    int exit = -1;  // exit status, or 128 + signal
    bool operator==(const Output&) const = default;
};
std::ostream& operator<<(std::ostream& os, const Output& o);
Output finish(bus_test::Child& cli);

// Runs `sh -c <command>` on a pseudo-terminal in the bus's directory, the tool first in PATH, and
// returns what appeared on the terminal with "\r\n" turned back into "\n".
std::string run_in_terminal(const std::string& command);

}  // namespace cli_test
