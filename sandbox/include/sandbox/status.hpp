// Success or a readable reason for failure, for operations whose only result is "did it work".
#pragma once

#include <string>
#include <utility>

namespace sandbox {

class [[nodiscard]] Status {
public:
    Status() = default;
    static Status failure(std::string message) { return Status(std::move(message)); }

    bool ok() const { return error_.empty(); }
    explicit operator bool() const { return ok(); }
    const std::string& error() const { return error_; }

private:
    explicit Status(std::string message) : error_(std::move(message)) {
        if (error_.empty()) error_ = "failed";
    }
    std::string error_;
};

// "what: strerror(err)", the usual shape of a failed system call's message.
std::string system_error(const std::string& what, int err);

}  // namespace sandbox
