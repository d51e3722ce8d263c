// Messages at the size limit, and hostile clients that cannot disturb a caller meanwhile.
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <random>
#include <thread>

#include "broker_process.hpp"
#include "golden_session.hpp"
#include "raw_client.hpp"
#include "serving_thread.hpp"

namespace bus_test {
namespace {

constexpr ubus::Policy kSize[] = {{"size", ubus::Type::Int32}};

std::size_t string_attr_len(std::string_view s) {
    return ubus::pad4(4 + s.size() + 1);
}

std::string members_of(const ubus::BlobBuf& b) {
    return {b.members().begin(), b.members().end()};
}

// A broker, an owner serving "reply" (a reply of the size asked for) and "echo" on one object, and
// a caller.
class BusEndToEnd : public ::testing::Test {
protected:
    BrokerProcess broker;
    ServingThread owner{broker.socket()};
    const std::uint32_t big = owner.add(
        "big", {{"reply", kSize,
                 [](ubus::Request& req) {
                     const auto size = static_cast<std::size_t>(ubus::parse(kSize, req.args())[0].as_i32());
                     ubus::BlobBuf out;
                     out.add_string("s", std::string(size, 'x'));
                     return req.reply(out);  // too large to send: the caller hears why
                 }},
                {"echo", {}, [](ubus::Request& req) { return req.reply(req.args()); }}});
    ubus::Connection caller;

    void SetUp() override {
        owner.start();
        ASSERT_EQ(caller.connect(broker.socket()), ubus::kOk);
    }
};

TEST_F(BusEndToEnd, MessagesAtTheSizeLimitArriveIntactAndLargerOnesAreRefusedBeforeTheyOverflow) {
    std::string got;
    const auto call = [&](std::string_view method, const ubus::BlobBuf& args) {
        got.clear();
        return caller.invoke(
            big, method, args.members(), [&](ubus::Bytes data) { got.assign(data.begin(), data.end()); },
            20000);
    };

    // A reply body: root 4, OBJID 8, DATA 4, one STRING "s" (header 4, name 4, the text and NUL).
    constexpr std::size_t kReplyFits = ubus::kMaxBodyLen - 25;
    for (std::size_t size : {kReplyFits, kReplyFits + 4, std::size_t{3}}) {
        ubus::BlobBuf args, expected;
        args.add_i32("size", static_cast<std::int32_t>(size));
        expected.add_string("s", std::string(size, 'x'));
        const bool fits = size <= kReplyFits;
        EXPECT_EQ(call("reply", args), fits ? ubus::kOk : ubus::kInvalidArgument) << size;
        EXPECT_EQ(got, fits ? members_of(expected) : "");
    }

    // The owner's copy of a call carries the caller's user and group names as well. Sized so that
    // this copy is exactly the limit, a call arrives intact; four bytes more and the broker refuses
    // it, as the library refuses to send a call that is itself too large.
    const passwd* pw = ::getpwuid(::getuid());
    const group* gr = ::getgrgid(::getgid());
    const std::size_t fits = ubus::kMaxBodyLen - 4 - 8 - string_attr_len("echo") - 4 - 8 -
                             string_attr_len(pw ? pw->pw_name : std::to_string(::getuid())) -
                             string_attr_len(gr ? gr->gr_name : std::to_string(::getgid()));
    const auto args_of_size = [](std::size_t n) {  // n a multiple of 4: no padding
        ubus::BlobBuf b;
        b.add_value("", ubus::Type::Unspec, std::vector<std::uint8_t>(n, 0x5a));
        return b;
    };
    EXPECT_EQ(call("echo", args_of_size(fits)), ubus::kOk);
    EXPECT_EQ(got, members_of(args_of_size(fits)));
    EXPECT_EQ(call("echo", args_of_size(fits + 4)), ubus::kInvalidArgument);
    EXPECT_EQ(call("echo", args_of_size(ubus::kMaxBodyLen)), ubus::kInvalidArgument);
    EXPECT_EQ(call("echo", args_of_size(4)), ubus::kOk) << "the connection survived";
}

TEST_F(BusEndToEnd, CallsKeepWorkingWhileClientsSendMalformedTruncatedAndMangledFrames) {
    std::vector<std::vector<std::uint8_t>> captured;  // real requests, to be sent with bits flipped
    for (const char* f :
         {"session_ping_and_errors.txt", "session_subscribe_notify.txt", "session_events.txt"})
        for (const golden::Step& s : golden::read_session(f))
            if (s.kind == golden::Step::ToBroker) captured.push_back(s.bytes);

    // One bad connection after the other: lengths the broker must hang up on, messages cut off
    // before the client leaves, noise, and bursts of mangled requests.
    std::atomic<bool> done = false;
    std::atomic<int> not_dropped = 0;
    std::thread hostile([&] {
        std::mt19937 rng(7);
        ubus::MsgBuf call = invoke_msg(1, big, "echo");
        const ubus::Bytes frame = call.frame();
        for (int i = 0; i < 200; ++i) {
            RawClient c(broker.socket(), false);
            std::vector<std::uint8_t> bytes(frame.begin(), frame.end());
            if (i % 5 == 0) ubus::wire::put32(bytes.data() + 8, (1u << 20) + 8);
            if (i % 5 == 1) ubus::wire::put32(bytes.data() + 8, 2);
            if (i % 5 == 2) bytes.resize(rng() % bytes.size());
            if (i % 5 == 3)
                for (auto& b : bytes) b = static_cast<std::uint8_t>(rng());
            for (int m = 0; i % 5 == 4 && m < 10; ++m) {
                std::vector<std::uint8_t> msg = captured[rng() % captured.size()];
                for (int flips = 1 + static_cast<int>(rng() % 4); flips > 0; --flips)
                    msg[rng() % msg.size()] ^= static_cast<std::uint8_t>(1u << (rng() % 8));
                bytes.insert(bytes.end(), msg.begin(), msg.end());
            }
            (void)!::send(c.fd(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (i % 5 < 2 && !c.wait_closed()) ++not_dropped;
        }
        done = true;
    });

    int calls = 0, answered = 0;
    for (; !done || calls < 50; ++calls) {
        ubus::BlobBuf args;
        args.add_i32("i", calls);
        bool echoed = false;
        const int status = caller.invoke(
            big, "echo", args.members(),
            [&](ubus::Bytes data) { echoed = std::ranges::equal(data, args.members()); }, 10000);
        answered += status == ubus::kOk && echoed;
    }
    hostile.join();
    EXPECT_EQ(answered, calls);
    EXPECT_EQ(not_dropped, 0) << "bad lengths must cost the connection";
}

}  // namespace
}  // namespace bus_test
