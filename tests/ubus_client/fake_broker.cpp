#include "fake_broker.hpp"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "golden_session.hpp"
#include "ubus/loop.hpp"

namespace fake {

namespace {
constexpr int kPatienceMs = 5000;  // only reached when the client misbehaves

bool readable(int fd, int timeout_ms) {
    pollfd p{fd, POLLIN, 0};
    return ::poll(&p, 1, timeout_ms) > 0;
}

std::string drain(int fd) {
    std::string text;
    char buf[256];
    while (readable(fd, kPatienceMs)) {
        const ssize_t n = ::read(fd, buf, sizeof buf);
        if (n <= 0) break;
        text.append(buf, static_cast<std::size_t>(n));
    }
    return text;
}

// Hex of a message, shortened for error messages.
std::string shown(ubus::Bytes m) {
    std::string h = golden::hex(m.first(std::min<std::size_t>(m.size(), 96)));
    if (m.size() > 96) h += "... (" + std::to_string(m.size()) + " bytes)";
    return h;
}

ubus::UniqueFd pipe_holding(const std::string& text) {
    int p[2];
    if (::pipe(p) != 0) return {};
    ubus::UniqueFd rd(p[0]), wr(p[1]);
    if (::write(wr.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) return {};
    return rd;
}
}  // namespace

std::vector<Step> script_of(std::string_view capture, std::string_view label) {
    std::vector<Step> steps;
    for (golden::Step& s : golden::read_session(capture)) {
        if (s.label != label) continue;
        if (s.kind == golden::Step::FromBroker)
            steps.push_back({Step::Send, std::move(s.bytes), s.fd, s.line});
        if (s.kind == golden::Step::ToBroker)
            steps.push_back({Step::Expect, std::move(s.bytes), s.fd, s.line});
    }
    return steps;
}

std::vector<std::uint8_t> msg(ubus::MsgType type, std::uint16_t seq, std::uint32_t peer,
                              const std::function<void(ubus::MsgBuf&)>& body) {
    ubus::MsgBuf m(type, seq, peer);
    if (body) body(m);
    const ubus::Bytes f = m.frame();
    return {f.begin(), f.end()};
}

Broker::Broker(std::vector<Step> script, std::string fd_text)
    : script_(std::move(script)), fd_text_(std::move(fd_text)) {
    char tmpl[] = "/tmp/ubus-client-test-XXXXXX";
    dir_ = ::mkdtemp(tmpl) ? tmpl : "/tmp";
    path_ = dir_ + "/ubus.sock";
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path_.c_str(), sizeof(addr.sun_path) - 1);
    listener_.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (::bind(listener_.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        ::listen(listener_.get(), 4) != 0)
        errors_.push_back("cannot listen on " + path_);
    thread_ = std::thread([this] { run(); });
}

Broker::~Broker() {
    finish();
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
}

std::vector<std::string> Broker::finish() {
    stop_ = true;
    hold_.release();
    if (thread_.joinable()) thread_.join();
    return errors_;
}

void Broker::run() {
    if (!readable(listener_.get(), kPatienceMs)) {
        errors_.push_back("no client connected");
        done_ = true;
        return;
    }
    ubus::UniqueFd conn(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    ubus::FrameReader reader;
    ubus::Frame frame;
    for (const Step& step : script_) {
        if (step.kind == Step::Hold) {
            hold_.try_acquire_for(std::chrono::milliseconds(kPatienceMs));
        } else if (step.kind == Step::Close) {
            conn.reset();
        } else if (step.kind == Step::Send) {
            ubus::UniqueFd passed = step.fd ? pipe_holding(fd_text_) : ubus::UniqueFd();
            ubus::send_frame_blocking(conn.get(), step.bytes, passed.get());
        } else {
            auto r = reader.next(frame);
            while (r == ubus::FrameReader::Result::NeedMore && readable(conn.get(), kPatienceMs) &&
                   reader.read_from(conn.get()) == ubus::FrameReader::Result::NeedMore)
                r = reader.next(frame);
            const std::string where = "line " + std::to_string(step.line) + ": ";
            if (r != ubus::FrameReader::Result::Frame) {
                errors_.push_back(where + "expected " + shown(step.bytes) + ", got nothing");
                conn.reset();  // the client is stuck or sent garbage: nothing later can match
                break;
            }
            if (golden::hex(frame.bytes) != golden::hex(step.bytes))
                errors_.push_back(where + "expected " + shown(step.bytes) + "\n  got      " +
                                  shown(frame.bytes));
            if (step.fd != static_cast<bool>(frame.fd))
                errors_.push_back(where + (step.fd ? "no descriptor came along" : "unexpected descriptor"));
            if (frame.fd) fd_texts.push_back(drain(frame.fd.get()));
        }
    }
    done_ = true;
    // Keep the connection open until the test is finished with it.
    while (!stop_) hold_.try_acquire_for(std::chrono::milliseconds(50));
}

void pump(ubus::Connection& c, const Broker& b) {
    for (int i = 0; i < 200 && !b.done(); ++i) c.dispatch(25);
}

void pump(ubus::Loop& loop, const Broker& b) {
    run_until(loop, [&] { return b.done(); });
}

void run_until(ubus::Loop& loop, const std::function<bool()>& done) {
    int rounds = 0;
    std::function<void()> check = [&] {
        if (done() || ++rounds > 400) return loop.stop();
        loop.add_timer(std::chrono::milliseconds(25), check);
    };
    loop.add_timer(std::chrono::milliseconds(0), check);
    loop.run();
}

}  // namespace fake
