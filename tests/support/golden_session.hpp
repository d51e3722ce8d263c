// Readers for the captured reference traffic in tests/golden/ubus/ (its README explains the formats).
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace golden {

std::string dir();
std::string path(std::string_view file);

std::vector<std::uint8_t> unhex(std::string_view hex);
std::string hex(const std::uint8_t* p, std::size_t n);
template <typename Range>
std::string hex(const Range& r) {
    return hex(std::data(r), std::size(r));
}

// One line of a session capture.
struct Step {
    enum Kind { Connect, Close, ToBroker, FromBroker };
    Kind kind;
    std::string label;                // "cli", "srv", ...
    std::vector<std::uint8_t> bytes;  // the whole message (ToBroker / FromBroker)
    bool fd = false;                  // a descriptor travelled with it
    int line = 0;                     // line number in the file
};
std::vector<Step> read_session(std::string_view file);

// The ids of a capture's "ids in this capture" header, as written ("71ec55d8").
std::vector<std::string> capture_ids(std::string_view file);

// A `case` block of the blobmsg / JSON / CLI files: keyword and rest of line, in order.
struct Case {
    std::string name;
    std::vector<std::pair<std::string, std::string>> lines;
    const std::string& get(std::string_view key) const;  // the first value, or ""
    bool has(std::string_view key) const;
};
std::vector<Case> read_cases(std::string_view file);

// Decodes a JSON string literal as written in the capture files ("a\tb\u0001").
std::string unquote(std::string_view literal);

}  // namespace golden
