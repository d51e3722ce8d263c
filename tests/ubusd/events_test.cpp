// Events through object 1: who receives what, how often, and which requests are refused.
#include <gtest/gtest.h>

#include <map>
#include <set>

#include "broker_process.hpp"
#include "raw_client.hpp"

namespace ubusd_test {
namespace {

using ubus::MsgType;

constexpr ubus::Policy kObjectEvent[] = {{"id", ubus::Type::Int32}, {"path", ubus::Type::String}};

// A client with one anonymous listener object registered for `patterns`.
struct Listener {
    RawClient client;
    std::uint32_t obj;
    Listener(const std::string& socket, std::initializer_list<const char*> patterns)
        : client(socket), obj(add_object(client, std::nullopt).obj) {
        std::uint16_t seq = 2;
        for (const char* p : patterns) {
            ubus::MsgBuf reg = register_msg(seq++, obj, p);
            EXPECT_EQ(client.request(reg).status, 0) << p;
        }
    }
    // Event names delivered so far (and nothing else may have arrived).
    std::vector<std::string> events(std::set<std::uint16_t>* seqs = nullptr) {
        std::vector<std::string> names;
        for (const Received& r : client.sync()) {
            EXPECT_EQ(r.hdr().type, MsgType::Invoke);
            EXPECT_EQ(r.hdr().peer, 0u);
            EXPECT_EQ(r.attrs().u32(ubus::kAttrObjId), obj);
            names.emplace_back(r.attrs().str(ubus::kAttrMethod));
            if (seqs) {
                EXPECT_TRUE(seqs->insert(r.hdr().seq).second) << "delivery seq reused";
            }
        }
        return names;
    }
};

int send_event(RawClient& c, std::string_view name, std::uint16_t seq = 1) {
    ubus::BlobBuf data;
    data.add_string("name", name);
    ubus::MsgBuf msg = event_msg(seq, name, data);
    return c.request(msg).status;
}

TEST(Events, EachListenerObjectGetsOneCopyOfEveryMatchingEvent) {
    BrokerProcess broker;
    Listener demo_dot(broker.socket(), {"demo.*"});
    Listener de(broker.socket(), {"de*"});
    Listener literal(broker.socket(), {"a*b"});
    Listener all(broker.socket(), {"*"});
    Listener overlapping(broker.socket(), {"demo.*", "*", "demo.x", "demo.*"});
    RawClient sender(broker.socket());

    std::uint16_t seq = 1;
    for (const char* name : {"demo.x", "demo", "dex", "demo.*", "a*b", "axb"})
        EXPECT_EQ(send_event(sender, name, seq++), 0);

    // The sender had its answer only after the deliveries went out, so they are all there now.
    std::set<std::uint16_t> seqs;
    using V = std::vector<std::string>;
    EXPECT_EQ(demo_dot.events(&seqs), (V{"demo.x", "demo.*"}));
    EXPECT_EQ(de.events(&seqs), (V{"demo.x", "demo", "dex", "demo.*"}));
    EXPECT_EQ(literal.events(&seqs), (V{"a*b"}));
    EXPECT_EQ(all.events(&seqs), (V{"demo.x", "demo", "dex", "demo.*", "a*b", "axb"}));
    EXPECT_EQ(overlapping.events(&seqs), (V{"demo.x", "demo", "dex", "demo.*", "a*b", "axb"}));
    // One broker-wide counter numbers every delivery.
    EXPECT_EQ(seqs.size(), 19u);
    EXPECT_EQ(*seqs.begin(), 1);
    EXPECT_EQ(*seqs.rbegin(), 19);
}

TEST(Events, DeliveryCarriesTheDataMembersAndNeverReturnsToTheSender) {
    BrokerProcess broker;
    Listener self(broker.socket(), {"*"});
    Listener other(broker.socket(), {"*"});
    ubus::BlobBuf data;
    data.add_string("s", "text");
    const auto t = data.open_table("t");
    data.add_bool("b", true);
    data.close(t);
    ubus::MsgBuf msg = event_msg(9, "x.changed", data);
    EXPECT_EQ(self.client.request(msg).status, 0);

    EXPECT_TRUE(self.events().empty());
    auto got = other.client.read();
    ASSERT_TRUE(got);
    EXPECT_EQ(got->attrs().str(ubus::kAttrMethod), "x.changed");
    EXPECT_TRUE(std::ranges::equal(got->attrs().data(), data.members()));
    EXPECT_FALSE(got->attrs().has(ubus::kAttrUser));

    // The broker's own events reach everyone, the object's owner included, before the
    // ADD_OBJECT answer.
    const Registered obj = add_object(self.client, "watched", 10);
    ASSERT_EQ(self.client.other.size(), 1u);
    EXPECT_EQ(self.client.other[0].attrs().str(ubus::kAttrMethod), "ubus.object.add");
    const auto args = ubus::parse(kObjectEvent, self.client.other[0].attrs().data());
    EXPECT_EQ(args[0].as_u32(), obj.obj);
    EXPECT_EQ(args[1].as_string(), "watched");
    EXPECT_EQ(other.events(), std::vector<std::string>{"ubus.object.add"});
}

TEST(Events, BadRegistrationsAndSendsAreRefusedWithTheirCodes) {
    BrokerProcess broker;
    RawClient c(broker.socket());
    RawClient stranger(broker.socket());
    const std::uint32_t mine = add_object(c, std::nullopt).obj;
    const std::uint32_t theirs = add_object(stranger, std::nullopt).obj;
    auto status = [&](ubus::MsgBuf msg) { return c.request(msg).status; };
    ubus::BlobBuf no_object;
    no_object.add_string("pattern", "x");
    ubus::BlobBuf data_not_table;
    data_not_table.add_string("id", "x");
    data_not_table.add_string("data", "y");

    EXPECT_EQ(status(invoke_msg(1, ubus::kEventObject, "register", no_object)), ubus::kInvalidArgument);
    EXPECT_EQ(status(register_msg(2, 3, "x")), ubus::kPermissionDenied);
    EXPECT_EQ(status(register_msg(3, 0x7777777, "x")), ubus::kNotFound);
    EXPECT_EQ(status(register_msg(4, theirs, "x")), ubus::kPermissionDenied);
    EXPECT_EQ(status(register_msg(5, mine, "")), ubus::kPermissionDenied);
    EXPECT_EQ(status(invoke_msg(6, ubus::kEventObject, "send", data_not_table)), ubus::kInvalidArgument);
    EXPECT_EQ(status(event_msg(7, "ubus.object.add")), ubus::kPermissionDenied);
    EXPECT_EQ(status(invoke_msg(8, ubus::kEventObject, "listen")), ubus::kInvalidCommand);
    ubus::MsgBuf no_data(MsgType::Invoke, 9, ubus::kEventObject);
    no_data.put_u32(ubus::kAttrObjId, ubus::kEventObject);
    no_data.put_string(ubus::kAttrMethod, "send");
    EXPECT_EQ(status(no_data), ubus::kInvalidArgument);
    EXPECT_EQ(status(register_msg(10, mine, "x")), ubus::kOk);
}

}  // namespace
}  // namespace ubusd_test
