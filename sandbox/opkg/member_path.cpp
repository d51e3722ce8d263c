#include "member_path.hpp"

#include <vector>

namespace opkg {
namespace {

// Calls `each` with every component of a "/"-separated path, skipping empty ones.
template <typename Each>
void for_each_component(std::string_view path, Each&& each) {
    while (!path.empty()) {
        const std::size_t slash = path.find('/');
        const std::string_view part = path.substr(0, slash);
        if (!part.empty()) each(part);
        path = slash == std::string_view::npos ? std::string_view{} : path.substr(slash + 1);
    }
}

}  // namespace

std::optional<std::string> normalise_member(std::string_view name) {
    for (char c : name)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) return std::nullopt;
    std::string out;
    bool escapes = false;
    for_each_component(name, [&](std::string_view part) {
        if (part == ".") return;
        if (part == "..") escapes = true;
        if (!out.empty()) out += '/';
        out += part;
    });
    if (escapes) return std::nullopt;
    return out;
}

bool link_target_inside(std::string_view link, std::string_view target) {
    if (target.empty()) return false;
    std::vector<std::string_view> stack;
    if (target.front() != '/') {
        for_each_component(link, [&](std::string_view part) { stack.push_back(part); });
        if (!stack.empty()) stack.pop_back();  // the link itself: count from its directory
    }
    bool inside = true;
    for_each_component(target, [&](std::string_view part) {
        if (part == ".") return;
        if (part != "..") {
            stack.push_back(part);
        } else if (stack.empty()) {
            inside = false;
        } else {
            stack.pop_back();
        }
    });
    return inside;
}

}  // namespace opkg
