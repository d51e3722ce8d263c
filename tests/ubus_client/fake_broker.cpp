#include "fake_broker.hpp"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <chrono>
#include <cstring>

#include "golden_session.hpp"
#include "pipe_text.hpp"
#include "poll.hpp"
#include "ubus/loop.hpp"

namespace fake {

namespace {
constexpr int kPatienceMs = 5000;  // only reached when the client misbehaves

bool readable(int fd) {
    pollfd p{fd, POLLIN, 0};
    return ::poll(&p, 1, kPatienceMs) > 0;
}

// Hex of a message, shortened for error messages.
std::string shown(ubus::Bytes m) {
    return golden::hex(m.first(std::min<std::size_t>(m.size(), 96))) +
           (m.size() > 96 ? "... (" + std::to_string(m.size()) + " bytes)" : "");
}
}  // namespace

Steps operator+(Steps a, const Steps& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

Steps script_of(std::string_view capture, std::string_view label) {
    Steps steps;
    for (golden::Step& s : golden::read_session(capture))
        if (s.label == label && (s.kind == golden::Step::FromBroker || s.kind == golden::Step::ToBroker))
            steps.push_back({s.kind == golden::Step::FromBroker ? Step::Send : Step::Expect,
                             std::move(s.bytes), s.fd, s.line});
    return steps;
}

std::vector<std::uint8_t> msg(ubus::MsgType type, std::uint16_t seq, std::uint32_t peer,
                              const std::function<void(ubus::MsgBuf&)>& body) {
    ubus::MsgBuf m(type, seq, peer);
    if (body) body(m);
    const ubus::Bytes f = m.frame();
    return {f.begin(), f.end()};
}

Broker::Broker(Steps script, std::string fd_text) : script_(std::move(script)), fd_text_(std::move(fd_text)) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path_.c_str(), sizeof(addr.sun_path) - 1);
    listener_.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (::bind(listener_.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        ::listen(listener_.get(), 4) != 0)
        errors_.push_back("cannot listen on " + path_);
    thread_ = std::thread([this] { run(); });
}

std::vector<std::string> Broker::finish() {
    stop_ = true;
    hold_.release();
    if (thread_.joinable()) thread_.join();
    return errors_;
}

void Broker::run() {
    ubus::UniqueFd conn(readable(listener_.get()) ? ::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC)
                                                  : -1);
    if (!conn) errors_.push_back("no client connected");
    ubus::FrameReader reader;
    ubus::Frame frame;
    for (const Step& step : conn ? script_ : Steps{}) {
        if (step.kind == Step::Hold) {
            hold_.try_acquire_for(std::chrono::milliseconds(kPatienceMs));
        } else if (step.kind == Step::Close) {
            conn.reset();
        } else if (step.kind == Step::Send) {
            const ubus::UniqueFd passed = step.fd ? bus_test::pipe_holding(fd_text_) : ubus::UniqueFd();
            ubus::send_frame_blocking(conn.get(), step.bytes, passed.get());
        } else {
            auto r = reader.next(frame);
            while (r == ubus::FrameReader::Result::NeedMore && readable(conn.get()) &&
                   reader.read_from(conn.get()) == ubus::FrameReader::Result::NeedMore)
                r = reader.next(frame);
            const std::string where = "line " + std::to_string(step.line) + ": ";
            if (r != ubus::FrameReader::Result::Frame) {
                errors_.push_back(where + "expected " + shown(step.bytes) + ", got nothing");
                conn.reset();
                break;  // the client is stuck or sent garbage: nothing later can match
            }
            if (golden::hex(frame.bytes) != golden::hex(step.bytes))
                errors_.push_back(where + "expected " + shown(step.bytes) + "\n  got      " +
                                  shown(frame.bytes));
            if (step.fd != static_cast<bool>(frame.fd))
                errors_.push_back(where + (step.fd ? "no descriptor came along" : "unexpected descriptor"));
            if (frame.fd) fd_texts.push_back(bus_test::read_all(frame.fd.get()));
        }
    }
    done_ = true;
    // Keep the connection open until the test is finished with it.
    while (!stop_) hold_.try_acquire_for(std::chrono::milliseconds(50));
}

Session::Session(Steps script, std::string fd_text) : broker(std::move(script), std::move(fd_text)) {
    EXPECT_EQ(bus.connect(broker.path()), ubus::kOk);
}

void pump(ubus::Connection& c, const Broker& b) {
    testsupport::poll_until(std::chrono::milliseconds(kPatienceMs), [&] { return c.dispatch(25), b.done(); },
                            std::chrono::milliseconds(0));
}

void run_until(ubus::Loop& loop, const std::function<bool()>& done) {
    testsupport::poll_until(
        std::chrono::milliseconds(2 * kPatienceMs),
        [&] {
            if (done()) return true;
            loop.add_timer(std::chrono::milliseconds(25), [&loop] { loop.stop(); });
            loop.run();
            return done();
        },
        std::chrono::milliseconds(0));
}

}  // namespace fake
