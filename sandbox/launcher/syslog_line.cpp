#include "syslog_line.hpp"

#include <array>

namespace sandbox {
namespace {

constexpr int kDefaultPriority = 1 * 8 + 5;  // user.notice
constexpr int kMaxPriority = 23 * 8 + 7;     // local7.debug

constexpr std::array<std::string_view, 24> kFacilities = {
    "kern",   "user",   "mail",     "daemon", "auth",   "syslog", "lpr",    "news",
    "uucp",   "cron",   "authpriv", "ftp",    "ntp",    "audit",  "alert",  "clock",
    "local0", "local1", "local2",   "local3", "local4", "local5", "local6", "local7",
};
constexpr std::array<std::string_view, 8> kSeverities = {"emerg",   "alert",  "crit", "err",
                                                         "warning", "notice", "info", "debug"};

// The priority in a leading "<N>" (one to three digits, at most kMaxPriority); -1 when absent.
int leading_priority(std::string_view record, std::size_t& text_start) {
    if (record.size() < 3 || record.front() != '<') return -1;
    int value = 0;
    std::size_t i = 1;
    for (; i < record.size() && i <= 3 && record[i] >= '0' && record[i] <= '9'; ++i) {
        value = value * 10 + (record[i] - '0');
    }
    if (i == 1 || i >= record.size() || record[i] != '>' || value > kMaxPriority) return -1;
    text_start = i + 1;
    return value;
}

}  // namespace

std::string syslog_line(std::string_view record) {
    while (!record.empty() && (record.back() == '\n' || record.back() == '\0')) record.remove_suffix(1);
    std::size_t text_start = 0;
    int priority = leading_priority(record, text_start);
    if (priority < 0) priority = kDefaultPriority;
    std::string_view text = record.substr(text_start);

    std::string line;
    line.reserve(text.size() + 16);
    line += kFacilities[static_cast<std::size_t>(priority / 8)];
    line += '.';
    line += kSeverities[static_cast<std::size_t>(priority % 8)];
    line += ' ';
    static constexpr char kHex[] = "0123456789abcdef";
    for (char c : text) {
        auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x20 || c == '\t') {
            line += c;
        } else if (c == '\n') {
            line += "\\n";
        } else {
            line += "\\x";
            line += kHex[byte >> 4];
            line += kHex[byte & 0xf];
        }
    }
    line += '\n';
    return line;
}

}  // namespace sandbox
