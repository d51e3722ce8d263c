// A bus client that speaks frames directly, for driving the broker byte by byte, and the requests
// it sends, built the way the gateway's client library builds them.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "ubus/blob.hpp"
#include "ubus/wire.hpp"

namespace bus_test {

using namespace std::chrono_literals;

// A connected Unix stream socket, or an empty descriptor.
ubus::UniqueFd connect_unix(const std::string& path);

// A frame as received: owns its bytes and the descriptor that came with it.
struct Received {
    std::vector<std::uint8_t> bytes;
    ubus::UniqueFd fd;
    ubus::MsgHeader hdr() const { return ubus::decode_header(bytes.data()); }
    ubus::MsgAttrs attrs() const { return ubus::MsgAttrs(ubus::Bytes(bytes).subspan(ubus::kHeaderLen + 4)); }
    std::string_view method() const { return attrs().str(ubus::kAttrMethod); }
};

// The answer to a request: its DATA messages and the STATUS value (-1 when none came).
struct Reply {
    std::vector<Received> data;
    int status = -1;
};

class RawClient {
public:
    // Connects; with `expect_hello`, reads the HELLO and keeps the id it carries.
    explicit RawClient(const std::string& socket, bool expect_hello = true);

    std::uint32_t id() const { return id_; }
    int fd() const { return sock_.get(); }

    // Writes all bytes, in pieces of `chunk` bytes (0: one write), `pass_fd` with the first.
    void send(ubus::Bytes bytes, int pass_fd = -1, std::size_t chunk = 0);
    void send(ubus::MsgBuf& msg, int pass_fd = -1) { send(msg.frame(), pass_fd); }

    // The next frame; nullopt when none arrives in time or the broker closed the connection.
    std::optional<Received> read(std::chrono::milliseconds timeout = 5s);
    // True when the broker closes the connection (anything still arriving is skipped).
    bool wait_closed();
    // A round trip through the broker: every frame that arrived before the answer to a PING, that
    // is, whatever was pending. Fails the test when the answer does not come.
    std::vector<Received> sync();
    void close() { sock_.reset(); }

    // Sends a request and collects its DATA messages and STATUS, matched by seq and peer. Frames
    // that belong to nothing else are kept in `other`.
    Reply request(ubus::MsgBuf& msg, int pass_fd = -1);
    int status_of(ubus::MsgBuf msg) { return request(msg).status; }
    std::vector<Received> other;

private:
    ubus::UniqueFd sock_;
    ubus::FrameReader reader_;
    std::uint32_t id_ = 0;
};

ubus::MsgBuf lookup_msg(std::uint16_t seq, std::optional<std::string> path = std::nullopt);
// An object with methods "m1" (no arguments) and "m2" ({"a": STRING}); anonymous without a path.
ubus::MsgBuf add_object_msg(std::uint16_t seq, std::optional<std::string> path);
ubus::MsgBuf invoke_msg(std::uint16_t seq, std::uint32_t obj, std::string_view method,
                        const ubus::BlobBuf& data = ubus::BlobBuf());
ubus::MsgBuf status_msg(std::uint16_t seq, std::uint32_t peer, std::uint32_t obj, int status);
ubus::MsgBuf register_msg(std::uint16_t seq, std::uint32_t listener, std::string_view pattern);
ubus::MsgBuf event_msg(std::uint16_t seq, std::string_view name, const ubus::BlobBuf& data = ubus::BlobBuf());

// ADD_OBJECT that must succeed: the new object's id.
std::uint32_t add_object(RawClient& c, std::optional<std::string> path, std::uint16_t seq = 1);

}  // namespace bus_test
