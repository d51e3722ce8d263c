#include "config.hpp"

#include <cstddef>

namespace opkg {
namespace {

bool is_blank(char c) {
    return c == ' ' || c == '\t' || c == '\r';
}

std::string_view trim(std::string_view s) {
    while (!s.empty() && is_blank(s.front())) s.remove_prefix(1);
    while (!s.empty() && is_blank(s.back())) s.remove_suffix(1);
    return s;
}

// The next blank-separated word of `rest`, which is advanced past it.
std::string_view next_word(std::string_view& rest) {
    rest = trim(rest);
    std::size_t end = 0;
    while (end < rest.size() && !is_blank(rest[end])) ++end;
    std::string_view word = rest.substr(0, end);
    rest.remove_prefix(end);
    rest = trim(rest);
    return word;
}

// Values may be quoted when they hold blanks (a password, say); the quotes are not part of them.
std::string unquote(std::string_view value) {
    if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') && value.back() == value.front())
        value = value.substr(1, value.size() - 2);
    return std::string(value);
}

// A feed's index lands in the lists directory under its name: nothing that could name another
// directory.
bool valid_feed_name(std::string_view name) {
    if (name.empty() || name == "." || name == "..") return false;
    for (char c : name)
        if (c == '/' || static_cast<unsigned char>(c) < 0x20) return false;
    return true;
}

std::string line_error(std::size_t number, std::string_view what) {
    return "line " + std::to_string(number) + ": " + std::string(what);
}

// Applies one "option NAME VALUE" line; an empty result means accepted.
std::string apply_option(Config& config, std::string_view name, std::string_view value, std::size_t number) {
    if (name == "check_signature") {
        config.check_signature = !(value == "0" || value == "false" || value == "no");
        return {};
    }
    auto require = [&](std::string& field) -> std::string {
        if (value.empty()) return line_error(number, "option " + std::string(name) + " needs a value");
        field = unquote(value);
        return {};
    };
    if (name == "tmp_dir") return require(config.tmp_dir);
    if (name == "proxy_user") return require(config.proxy_user);
    if (name == "proxy_passwd") return require(config.proxy_passwd);
    if (name == "signature_ca_file") return require(config.signature_ca_file);
    if (name == "signature_ca_path") return require(config.signature_ca_path);
    if (name == "lists_dir") {
        // Written "lists_dir ext DIR" on gateways; a bare "lists_dir DIR" means the same.
        std::string_view rest = value;
        std::string_view first = next_word(rest);
        if (first == "ext") value = rest;
        return require(config.lists_dir);
    }
    return {};
}

}  // namespace

ConfigResult parse_config(std::string_view text) {
    ConfigResult result;
    Config& config = result.config;
    std::size_t number = 0;
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        std::string_view line = text.substr(0, end);
        text = end == std::string_view::npos ? std::string_view{} : text.substr(end + 1);
        ++number;

        std::string_view rest = trim(line);
        if (rest.empty() || rest.front() == '#') continue;
        const std::string_view keyword = next_word(rest);
        if (keyword == "src/gz" || keyword == "src") {
            const std::string_view name = next_word(rest);
            const std::string_view url = next_word(rest);
            if (url.empty()) {
                result.error = line_error(number, std::string(keyword) + " needs a name and a URL");
                return result;
            }
            if (!valid_feed_name(name)) {
                result.error = line_error(number, "a feed name must be a plain file name");
                return result;
            }
            std::string trimmed(url);
            while (trimmed.size() > 1 && trimmed.back() == '/') trimmed.pop_back();
            config.feeds.push_back({std::string(name), trimmed, keyword == "src/gz"});
        } else if (keyword == "arch") {
            const std::string_view name = next_word(rest);
            if (!name.empty()) config.architectures.emplace_back(name);
        } else if (keyword == "option") {
            const std::string_view name = next_word(rest);
            if (std::string error = apply_option(config, name, rest, number); !error.empty()) {
                result.error = std::move(error);
                return result;
            }
        }
    }
    return result;
}

}  // namespace opkg
