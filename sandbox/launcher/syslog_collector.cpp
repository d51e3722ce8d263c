#include "syslog_collector.hpp"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "syslog_line.hpp"
#include "unix_socket.hpp"

namespace sandbox {

Status SyslogCollector::open(const std::filesystem::path& socket_path,
                             const std::filesystem::path& log_path) {
    log_.reset(::open(log_path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
    if (!log_) return Status::failure(system_error("open " + log_path.string(), errno));
    std::string error;
    socket_ = listen_unix(socket_path, SOCK_DGRAM, 0666, error);
    if (!socket_) return Status::failure(error);
    buffer_.resize(64 * 1024);  // the largest record a datagram socket hands over
    return {};
}

void SyslogCollector::drain() {
    while (true) {
        ssize_t n = ::recv(socket_.get(), buffer_.data(), buffer_.size(), MSG_DONTWAIT);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return;
        std::string line = syslog_line(std::string_view(buffer_.data(), static_cast<std::size_t>(n)));
        // One write per record: with O_APPEND a reader never sees half a line followed by another.
        if (::write(log_.get(), line.data(), line.size()) < 0) return;
    }
}

}  // namespace sandbox
