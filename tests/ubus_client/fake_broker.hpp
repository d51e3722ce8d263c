// A scripted stand-in for the broker: it accepts one client on a temporary socket and plays a
// script on that connection, in its own thread. Send steps are written as given; Expect steps read
// one message from the client and compare it byte for byte. A script can come from a capture (the
// broker's lines are sent, the client's lines expected) or be built with msg().
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <semaphore>
#include <string>
#include <thread>
#include <vector>

#include "child_process.hpp"
#include "ubus/client.hpp"

namespace fake {

struct Step {
    enum Kind { Send, Expect, Hold, Close };
    Step(Kind k, std::vector<std::uint8_t> b = {}, bool with_fd = false, int at_line = 0)
        : kind(k), bytes(std::move(b)), fd(with_fd), line(at_line) {}
    Kind kind;
    std::vector<std::uint8_t> bytes;
    bool fd = false;  // Send: attach a pipe holding the broker's fd text; Expect: one must come along
    int line = 0;     // capture line, for messages
};
using Steps = std::vector<Step>;
Steps operator+(Steps a, const Steps& b);

// The steps of one connection (`label`) of a capture.
Steps script_of(std::string_view capture, std::string_view label);

// A whole message built in place.
std::vector<std::uint8_t> msg(ubus::MsgType type, std::uint16_t seq, std::uint32_t peer,
                              const std::function<void(ubus::MsgBuf&)>& body = {});

class Broker {
public:
    explicit Broker(Steps script, std::string fd_text = "from-owner");
    ~Broker() { finish(); }
    Broker(const Broker&) = delete;
    Broker& operator=(const Broker&) = delete;

    const std::string& path() const { return path_; }
    void release() { hold_.release(); }  // lets one Hold step go on
    bool done() const { return done_; }
    // Waits for the script to end; returns what went wrong (empty when the client did as
    // expected). The text read from each descriptor the client passed is kept in fd_texts.
    std::vector<std::string> finish();
    std::vector<std::string> fd_texts;

private:
    void run();
    Steps script_;
    std::string fd_text_;
    bus_test::TempDir dir_;
    std::string path_ = dir_.path() + "/ubus.sock";
    ubus::UniqueFd listener_;
    std::vector<std::string> errors_;
    std::counting_semaphore<16> hold_{0};
    std::atomic<bool> done_{false}, stop_{false};
    std::thread thread_;
};

// A fake broker and a client connected to it.
struct Session {
    explicit Session(Steps script, std::string fd_text = "from-owner");
    Broker broker;
    ubus::Connection bus;
};

// Drives a connection by hand until the broker's script has ended (bounded).
void pump(ubus::Connection& c, const Broker& b);
// Runs the loop until `done()` holds (bounded).
void run_until(ubus::Loop& loop, const std::function<bool()>& done);

}  // namespace fake
