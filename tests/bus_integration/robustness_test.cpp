// Messages at the size limit, and a hostile client that cannot disturb anyone else.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <random>
#include <thread>

#include "broker_process.hpp"
#include "serving_thread.hpp"

namespace bus_test {
namespace {

constexpr ubus::Policy kSize[] = {{"size", ubus::Type::Int32}};

// A reply body holds OBJID (8 bytes) and DATA (4 + its members) after the body header (4); its one
// member, a STRING named "s", adds 4 bytes of header, 4 of name and the text with its NUL.
constexpr std::size_t kReplyOverhead = 4 + 8 + 4 + 4 + 4 + 1;
constexpr std::size_t kNearLimit = ubus::kMaxBodyLen - 64 - kReplyOverhead;
constexpr std::size_t kJustOver = ubus::kMaxBodyLen + 4 - kReplyOverhead;
static_assert((kNearLimit + 1) % 4 == 0 && (kJustOver + 1) % 4 == 0, "no padding: exact sizes");

std::string text_of_size(std::size_t n) {
    std::string s(n, ' ');
    for (std::size_t i = 0; i < n; ++i) s[i] = static_cast<char>('a' + i % 26);
    return s;
}

TEST(Limits, AReplyNearTheSizeLimitArrivesIntactAndLargerMessagesAreRefused) {
    ubusd_test::BrokerProcess broker;
    ServingThread owner(broker.socket());
    const std::uint32_t big =
        owner.add("big", {{"reply", kSize, [](ubus::Request& req) {
                               ubus::BlobBuf out;
                               const auto size = ubus::parse(kSize, req.args())[0].as_i32();
                               out.add_string("s", text_of_size(static_cast<std::size_t>(size)));
                               // Too large to send: the caller hears why.
                               return req.reply(out);
                           }}});
    owner.start();
    ubus::Connection caller;
    ASSERT_EQ(caller.connect(broker.socket()), ubus::kOk);

    auto ask = [&](std::size_t size, std::string& got) {
        ubus::BlobBuf args;
        args.add_i32("size", static_cast<std::int32_t>(size));
        got.clear();
        return caller.invoke(
            big, "reply", args.members(),
            [&](ubus::Bytes data) {
                for (ubus::Attr a : ubus::AttrList(data)) got = a.as_string();
            },
            20000);
    };
    std::string got;
    EXPECT_EQ(ask(kNearLimit, got), ubus::kOk);
    EXPECT_TRUE(got == text_of_size(kNearLimit)) << "got " << got.size() << " bytes";
    EXPECT_EQ(ask(kJustOver, got), ubus::kInvalidArgument);
    EXPECT_TRUE(got.empty());

    // The same holds for the caller's own arguments, and nothing breaks for the next call.
    ubus::BlobBuf too_big;
    too_big.add_string("s", text_of_size(ubus::kMaxBodyLen));
    EXPECT_EQ(caller.invoke(big, "reply", too_big.members(), nullptr, 20000), ubus::kInvalidArgument);
    EXPECT_EQ(ask(3, got), ubus::kOk);
    EXPECT_EQ(got, "abc");
}

ubus::UniqueFd raw_connect(const std::string& path) {
    ubus::UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
    if (::connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) fd.reset();
    return fd;
}

// Reads until the broker hangs up (true) or nothing has come for a while (false).
bool hung_up(int fd) {
    char buf[256];
    for (;;) {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, 5000) <= 0) return false;
        const ssize_t n = ::recv(fd, buf, sizeof buf, 0);
        if (n == 0 || (n < 0 && errno != EINTR)) return true;
    }
}

TEST(Robustness, CallsKeepWorkingWhileAClientSendsMalformedAndTruncatedFrames) {
    ubusd_test::BrokerProcess broker;
    ServingThread owner(broker.socket());
    const std::uint32_t echo = owner.add("echo", {{"echo", {}, [](ubus::Request& req) {
                                                       req.reply(req.args());
                                                       return ubus::kOk;
                                                   }}});
    owner.start();

    // One bad connection after the other: lengths the broker must hang up on, messages cut off
    // before the hostile client leaves, and noise.
    constexpr int kHostileConnections = 200;
    std::atomic<bool> done = false;
    std::atomic<int> not_dropped = 0;
    std::thread hostile([&] {
        std::mt19937 rng(7);
        ubus::MsgBuf call(ubus::MsgType::Invoke, 1, echo);
        call.put_u32(ubus::kAttrObjId, echo);
        call.put_string(ubus::kAttrMethod, "echo");
        call.put_raw(ubus::kAttrData, {});
        const ubus::Bytes frame = call.frame();
        for (int i = 0; i < kHostileConnections; ++i) {
            const ubus::UniqueFd fd = raw_connect(broker.socket());
            std::vector<std::uint8_t> bytes(frame.begin(), frame.end());
            bool must_drop = true;
            switch (i % 4) {
                case 0:
                    ubus::wire::put32(bytes.data() + 8, 0x00ffffff);
                    break;
                case 1:
                    ubus::wire::put32(bytes.data() + 8, 2);
                    break;
                case 2:
                    bytes.resize(rng() % bytes.size());
                    must_drop = false;
                    break;
                default:
                    for (auto& b : bytes) b = static_cast<std::uint8_t>(rng());
                    must_drop = false;
            }
            (void)!::send(fd.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (must_drop && !hung_up(fd.get())) ++not_dropped;
        }
        done = true;
    });

    ubus::Connection caller;
    ASSERT_EQ(caller.connect(broker.socket()), ubus::kOk);
    int calls = 0, answered = 0;
    for (; !done || calls < 50; ++calls) {
        ubus::BlobBuf args;
        args.add_i32("i", calls);
        bool echoed = false;
        const int status = caller.invoke(
            echo, "echo", args.members(),
            [&](ubus::Bytes data) { echoed = std::ranges::equal(data, args.members()); }, 10000);
        answered += status == ubus::kOk && echoed;
    }
    hostile.join();
    EXPECT_EQ(answered, calls);
    EXPECT_EQ(not_dropped, 0) << "bad lengths must cost the connection";
}

}  // namespace
}  // namespace bus_test
