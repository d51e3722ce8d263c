// Events through object 1: who receives what, how it is numbered, and which requests are refused.
#include <gtest/gtest.h>

#include <set>

#include "broker_process.hpp"
#include "raw_client.hpp"
#include "ubus/json.hpp"

namespace bus_test {
namespace {

using V = std::vector<std::string>;

// An anonymous listener object of `c`, registered for `patterns`.
std::uint32_t listener(RawClient& c, std::initializer_list<const char*> patterns) {
    const std::uint32_t obj = add_object(c, std::nullopt);
    std::uint16_t seq = 2;
    for (const char* p : patterns) EXPECT_EQ(c.status_of(register_msg(seq++, obj, p)), 0) << p;
    return obj;
}

std::string json(ubus::Bytes members) {
    std::string out;
    ubus::json_format_list(out, members, false);
    return out;
}

TEST(Events, EachListenerObjectGetsOneCopyNumberedBrokerWideAndTheSenderNone) {
    BrokerProcess broker;
    RawClient sender(broker.socket()), all(broker.socket()), overlapping(broker.socket());
    listener(sender, {"*"});
    const std::uint32_t all_obj = listener(all, {"*"});
    const std::uint32_t overlapping_obj = listener(overlapping, {"demo.*", "*", "demo.x", "demo.*"});
    ubus::BlobBuf data;
    data.add_string("s", "text");
    const auto t = data.open_table("t");
    data.add_bool("b", true);
    data.close(t);
    EXPECT_EQ(sender.status_of(event_msg(1, "demo.x", data)), 0);
    EXPECT_EQ(sender.status_of(event_msg(2, "other", data)), 0);

    // The sender had its answers only after the deliveries went out, so they are all there now.
    EXPECT_TRUE(sender.sync().empty());
    std::multiset<std::uint16_t> seqs;
    for (auto [c, obj] : {std::pair{&all, all_obj}, std::pair{&overlapping, overlapping_obj}}) {
        V got;
        for (const Received& r : c->sync()) {
            EXPECT_EQ(r.hdr().type, ubus::MsgType::Invoke);
            EXPECT_EQ(r.hdr().peer, 0u);
            EXPECT_EQ(r.attrs().u32(ubus::kAttrObjId), obj);
            EXPECT_FALSE(r.attrs().has(ubus::kAttrUser));
            EXPECT_EQ(json(r.attrs().data()), R"({"s":"text","t":{"b":true}})");
            seqs.insert(r.hdr().seq);
            got.emplace_back(r.method());
        }
        EXPECT_EQ(got, (V{"demo.x", "other"}));
    }
    EXPECT_EQ(seqs, (std::multiset<std::uint16_t>{1, 2, 3, 4}));

    // The broker's own events reach everyone, the object's owner too, before the ADD_OBJECT answer.
    const std::uint32_t watched = add_object(all, "watched", 10);
    ASSERT_EQ(all.other.size(), 1u);
    EXPECT_EQ(all.other[0].method(), "ubus.object.add");
    EXPECT_EQ(json(all.other[0].attrs().data()),
              R"({"id":)" + std::to_string(static_cast<std::int32_t>(watched)) + R"(,"path":"watched"})");
    ASSERT_EQ(sender.sync().size(), 1u);
}

TEST(Events, BadRegistrationsAndSendsAreRefusedWithTheirCodes) {
    BrokerProcess broker;
    RawClient c(broker.socket()), stranger(broker.socket());
    const std::uint32_t mine = add_object(c, std::nullopt), theirs = add_object(stranger, std::nullopt);
    ubus::BlobBuf no_object, data_not_table;
    no_object.add_string("pattern", "x");
    data_not_table.add_string("id", "x");
    data_not_table.add_string("data", "y");
    ubus::MsgBuf no_data(ubus::MsgType::Invoke, 9, ubus::kEventObject);
    no_data.put_u32(ubus::kAttrObjId, ubus::kEventObject);
    no_data.put_string(ubus::kAttrMethod, "send");

    EXPECT_EQ(c.status_of(invoke_msg(1, ubus::kEventObject, "register", no_object)), ubus::kInvalidArgument);
    EXPECT_EQ(c.status_of(register_msg(2, ubus::kMonitorObject, "x")), ubus::kPermissionDenied);
    EXPECT_EQ(c.status_of(register_msg(3, 0x7777777, "x")), ubus::kNotFound);
    EXPECT_EQ(c.status_of(register_msg(4, theirs, "x")), ubus::kPermissionDenied);
    EXPECT_EQ(c.status_of(register_msg(5, mine, "")), ubus::kPermissionDenied);
    EXPECT_EQ(c.status_of(invoke_msg(6, ubus::kEventObject, "send", data_not_table)), ubus::kInvalidArgument);
    EXPECT_EQ(c.status_of(event_msg(7, "ubus.object.add")), ubus::kPermissionDenied);
    EXPECT_EQ(c.status_of(invoke_msg(8, ubus::kEventObject, "listen")), ubus::kInvalidCommand);
    EXPECT_EQ(c.status_of(std::move(no_data)), ubus::kInvalidArgument);
    EXPECT_EQ(c.status_of(register_msg(10, mine, "x")), ubus::kOk);
}

}  // namespace
}  // namespace bus_test
