// Transfers with libcurl: http, https, ftp, and file:// for a feed on the local disk.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace opkg {

struct FetchOptions {
    std::string user;  // HTTP basic authentication, FTP login; handed to libcurl only
    std::string password;
    std::optional<long> timeout_seconds;  // bound on the whole transfer
    std::string ca_file;                  // trust anchors for https
};

// Empty result: the body went to `sink` (a file descriptor, or appended to `out`); otherwise why
// the transfer failed. An HTTP status of 400 or more is a failure.
std::string fetch_to_fd(const std::string& url, int sink, const FetchOptions& options);
std::string fetch_to_string(const std::string& url, std::string& out, const FetchOptions& options);

// The URL fit for a message: credentials written into it ("user:secret@host") are dropped.
std::string printable_url(std::string_view url);

}  // namespace opkg
