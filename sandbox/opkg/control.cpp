#include "control.hpp"

#include <strings.h>

#include <cctype>

namespace opkg {

std::optional<std::string> ControlFields::get(std::string_view key) const {
    for (const auto& [name, value] : fields)
        if (name.size() == key.size() && strncasecmp(name.data(), key.data(), key.size()) == 0) return value;
    return std::nullopt;
}

ControlFields parse_control(std::string_view text) {
    ControlFields control;
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        std::string_view line = text.substr(0, end);
        text = end == std::string_view::npos ? std::string_view{} : text.substr(end + 1);
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        if (line.empty()) continue;
        if (line.front() == ' ' || line.front() == '\t') {
            if (!control.fields.empty()) {
                std::string& value = control.fields.back().second;
                value += '\n';
                value += line.substr(1);
            }
            continue;
        }
        const std::size_t colon = line.find(':');
        if (colon == std::string_view::npos || colon == 0) continue;
        std::string_view value = line.substr(colon + 1);
        while (!value.empty() && (value.front() == ' ' || value.front() == '\t')) value.remove_prefix(1);
        while (!value.empty() && (value.back() == ' ' || value.back() == '\t')) value.remove_suffix(1);
        control.fields.emplace_back(std::string(line.substr(0, colon)), std::string(value));
    }
    return control;
}

bool valid_package_name(std::string_view name) {
    if (name.empty() || name.front() == '.' || name.front() == '-') return false;
    for (char c : name) {
        const bool ok =
            std::isalnum(static_cast<unsigned char>(c)) || c == '.' || c == '+' || c == '-' || c == '_';
        if (!ok) return false;
    }
    return true;
}

}  // namespace opkg
