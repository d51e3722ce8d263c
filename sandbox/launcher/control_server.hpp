// The launcher's side of the control socket: accepts connections, reads one request line from
// each, answers it with one line and closes the connection. Never blocks.
#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "sandbox/status.hpp"
#include "ubus/fd.hpp"

namespace sandbox {

class ControlServer {
public:
    using Handler = std::function<std::string(std::string_view request)>;  // the reply, without newline

    Status open(const std::filesystem::path& path, Handler handler);
    // The listening socket and every open connection, to be watched for reading.
    std::vector<int> fds() const;
    void on_readable(int fd);

private:
    struct Connection {
        ubus::UniqueFd fd;
        std::string received;
    };
    void accept_all();
    // False once the connection is done with (answered, closed by the peer or misbehaving).
    bool serve(Connection& connection);

    ubus::UniqueFd listener_;
    std::vector<Connection> connections_;
    Handler handler_;
};

}  // namespace sandbox
