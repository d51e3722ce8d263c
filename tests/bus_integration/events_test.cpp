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
            std::string line(type);
            line += ' ';
            ubus::json_format_list(line, data, false);
            got.push_back(line);
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
    ubusd_test::BrokerProcess broker;
    std::array<Listener, 4> listeners;
    const char* patterns[] = {"demo.*", "de*", "a*b", "*"};
    for (std::size_t i = 0; i < listeners.size(); ++i) listeners[i].listen(broker.socket(), patterns[i]);
    Listener sender;
    sender.listen(broker.socket(), "*");

    for (const char* name : {"demo.x", "demo", "dex", "demo.*", "a*b", "axb"}) {
        ubus::BlobBuf data;
        data.add_string("name", name);
        const auto nested = data.open_array("list");
        data.add_bool("", true);
        data.close(nested);
        EXPECT_EQ(sender.bus.send_event(name, data.members()), ubus::kOk);
    }
    for (Listener& l : listeners) l.catch_up();
    sender.catch_up();

    auto event = [](std::string name) { return name + R"( {"name":")" + name + R"(","list":[true]})"; };
    using Events = std::vector<std::string>;
    EXPECT_EQ(listeners[0].got, (Events{event("demo.x"), event("demo.*")}));
    EXPECT_EQ(listeners[1].got, (Events{event("demo.x"), event("demo"), event("dex"), event("demo.*")}));
    EXPECT_EQ(listeners[2].got, (Events{event("a*b")}));
    EXPECT_EQ(listeners[3].got, (Events{event("demo.x"), event("demo"), event("dex"), event("demo.*"),
                                        event("a*b"), event("axb")}));
    EXPECT_TRUE(sender.got.empty());
}

}  // namespace
}  // namespace bus_test
