// A broker with the demo object on it, and a directory in which the socket is reachable as
// "ubus.sock", the name the transcripts use.
#pragma once

#include <memory>
#include <string>

#include "broker_process.hpp"
#include "cli_process.hpp"
#include "ubus/client.hpp"

namespace cli_test {

struct DemoBus {
    DemoBus();
    ~DemoBus();
    DemoBus(const DemoBus&) = delete;
    DemoBus& operator=(const DemoBus&) = delete;

    ubusd_test::BrokerProcess broker;
    DemoOwner demo{broker.socket()};
    std::string dir;          // the tool runs here
    ubus::Connection client;  // the tests' own connection
};

// The one of this process, started on first use: the tests share it.
DemoBus& demo_bus();

// The directory holding the tool, for PATH.
std::string cli_dir();

}  // namespace cli_test
