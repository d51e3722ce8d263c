// Events between library clients through our broker: patterns choose the listeners, the data
// arrives as sent, and a sender never hears its own events.
#include <gtest/gtest.h>

#include <array>

#include "broker_process.hpp"
#include "ubus/client.hpp"
#include "ubus/json.hpp"

namespace bus_test {
namespace {

struct Listener {
    ubus::Connection bus;
    std::vector<std::string> got;  // "<type> <data as JSON>"

    void listen(const std::string& socket, std::string_view pattern) {
        ASSERT_EQ(bus.connect(socket), ubus::kOk);
        const auto added = bus.listen(pattern, [this](std::string_view type, ubus::Bytes data) {
            ubus::json_format_list(got.emplace_back(std::string(type) + " "), data, false);
        });
        ASSERT_EQ(added.status, ubus::kOk) << pattern;
    }
    // Handles every delivery the broker sent before answering a request made now.
    void catch_up() {
        ASSERT_EQ(bus.lookup_all(nullptr), ubus::kOk);
        bus.dispatch(0);
    }
};

TEST(Events, EachListenerGetsWhatItsPatternSelectsWithTheDataAsSent) {
    BrokerProcess broker;
    std::array<Listener, 4> listeners;
    const char* patterns[] = {"demo.*", "de*", "a*b", "*"};
    for (std::size_t i = 0; i < listeners.size(); ++i) listeners[i].listen(broker.socket(), patterns[i]);
    Listener sender;
    sender.listen(broker.socket(), "*");

    for (const char* name : {"demo.x", "demo", "dex", "demo.*", "a*b", "axb"}) {
        ubus::BlobBuf data;
        ASSERT_TRUE(ubus::json_load(data, R"({"name":")" + std::string(name) + R"(","list":[true]})"));
        EXPECT_EQ(sender.bus.send_event(name, data.members()), ubus::kOk);
    }
    for (Listener& l : listeners) l.catch_up();
    sender.catch_up();

    using Events = std::vector<std::string>;
    auto events = [](std::initializer_list<std::string> names) {
        Events out;
        for (const auto& n : names) out.push_back(n + R"( {"name":")" + n + R"(","list":[true]})");
        return out;
    };
    EXPECT_EQ(listeners[0].got, events({"demo.x", "demo.*"}));
    EXPECT_EQ(listeners[1].got, events({"demo.x", "demo", "dex", "demo.*"}));
    EXPECT_EQ(listeners[2].got, events({"a*b"}));
    EXPECT_EQ(listeners[3].got, events({"demo.x", "demo", "dex", "demo.*", "a*b", "axb"}));
    EXPECT_TRUE(sender.got.empty());
}

}  // namespace
}  // namespace bus_test
