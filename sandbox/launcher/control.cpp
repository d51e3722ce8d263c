#include "sandbox/control.hpp"

#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <vector>

#include "unix_socket.hpp"

namespace sandbox {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::string_view kStateNames[] = {"absent", "idle", "running", "exited"};

template <typename T>
bool parse_number(std::string_view text, T& out) {
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), out);
    return ec == std::errc() && end == text.data() + text.size();
}

std::vector<std::string_view> split_words(std::string_view text) {
    std::vector<std::string_view> words;
    while (!text.empty()) {
        auto space = text.find(' ');
        if (space != 0) words.push_back(text.substr(0, space));
        if (space == std::string_view::npos) break;
        text.remove_prefix(space + 1);
    }
    return words;
}

// "exit:N" / "signal:N" back to a wait status.
std::optional<int> parse_wait_status(std::string_view text) {
    auto colon = text.find(':');
    if (colon == std::string_view::npos) return std::nullopt;
    int value = 0;
    if (!parse_number(text.substr(colon + 1), value)) return std::nullopt;
    std::string_view kind = text.substr(0, colon);
    if (kind == "exit" && value >= 0 && value <= 255) return value << 8;
    if (kind == "signal" && value > 0 && value < 128) return value;
    return std::nullopt;
}

}  // namespace

bool PkgdStatus::exited_with(int code) const {
    return last_wait_status && WIFEXITED(*last_wait_status) && WEXITSTATUS(*last_wait_status) == code;
}

bool PkgdStatus::killed_by(int signal) const {
    return last_wait_status && WIFSIGNALED(*last_wait_status) && WTERMSIG(*last_wait_status) == signal;
}

std::string format_wait_status(int wait_status) {
    if (WIFSIGNALED(wait_status)) return "signal:" + std::to_string(WTERMSIG(wait_status));
    return "exit:" + std::to_string(WEXITSTATUS(wait_status));
}

std::string format_pkgd_status(const PkgdStatus& status) {
    std::string text(kStateNames[static_cast<int>(status.state)]);
    text += ' ' + std::to_string(status.pid) + ' ' + std::to_string(status.runs) + ' ';
    text += status.last_wait_status ? format_wait_status(*status.last_wait_status) : "-";
    return text;
}

std::optional<PkgdStatus> parse_pkgd_status(std::string_view text) {
    auto words = split_words(text);
    if (words.size() != 4) return std::nullopt;
    PkgdStatus status;
    auto state = std::find(std::begin(kStateNames), std::end(kStateNames), words[0]);
    if (state == std::end(kStateNames)) return std::nullopt;
    status.state = static_cast<PkgdStatus::State>(state - std::begin(kStateNames));
    if (!parse_number(words[1], status.pid) || status.pid < 0) return std::nullopt;
    if (!parse_number(words[2], status.runs)) return std::nullopt;
    if (words[3] != "-") {
        status.last_wait_status = parse_wait_status(words[3]);
        if (!status.last_wait_status) return std::nullopt;
    }
    return status;
}

ControlReply control_request(const std::filesystem::path& socket, std::string_view request,
                             std::chrono::milliseconds timeout) {
    ControlReply reply;
    const auto deadline = Clock::now() + timeout;
    ubus::UniqueFd fd = connect_unix(socket, SOCK_STREAM);
    if (!fd) {
        reply.text = "the launcher does not answer on " + socket.string();
        return reply;
    }
    std::string line(request);
    line += '\n';
    if (::send(fd.get(), line.data(), line.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(line.size())) {
        reply.text = "cannot send the request";
        return reply;
    }
    std::string answer;
    while (answer.find('\n') == std::string::npos) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        pollfd p{fd.get(), POLLIN, 0};
        if (left <= 0 || ::poll(&p, 1, static_cast<int>(std::min<long long>(left, INT_MAX))) == 0) {
            reply.text = "no answer within the time limit";
            return reply;
        }
        char buf[512];
        ssize_t n = ::recv(fd.get(), buf, sizeof buf, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        answer.append(buf, static_cast<std::size_t>(n));
    }
    answer = answer.substr(0, answer.find('\n'));
    if (answer.starts_with("ok")) {
        reply.ok = true;
        reply.text = answer.size() > 3 ? answer.substr(3) : "";
    } else if (answer.starts_with("error ")) {
        reply.text = answer.substr(6);
    } else {
        reply.text = "unexpected answer: " + answer;
    }
    return reply;
}

}  // namespace sandbox
