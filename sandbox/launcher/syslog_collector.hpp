// The root's syslog daemon: a datagram socket on ROOT/dev/log whose records are appended, one line
// each, to ROOT/var/log/messages.
#pragma once

#include <filesystem>
#include <string>

#include "sandbox/status.hpp"
#include "ubus/fd.hpp"

namespace sandbox {

class SyslogCollector {
public:
    Status open(const std::filesystem::path& socket_path, const std::filesystem::path& log_path);
    int fd() const { return socket_.get(); }
    // Writes every record waiting on the socket; never blocks.
    void drain();

private:
    ubus::UniqueFd socket_;
    ubus::UniqueFd log_;
    std::string buffer_;
};

}  // namespace sandbox
