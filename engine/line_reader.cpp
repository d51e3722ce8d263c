#include <fstream>
#include <sstream>

#include "pkgd/engine_parts.hpp"

namespace pkgd {

std::optional<std::string_view> LineReader::next(std::size_t max) {
    if (text_.empty() || max == 0) return std::nullopt;
    std::size_t n = text_.find('\n');
    n = n == std::string_view::npos ? text_.size() : n + 1;
    if (n > max) n = max;
    const std::string_view piece = text_.substr(0, n);
    text_.remove_prefix(n);
    return piece;
}

std::string_view chomp(std::string_view text) {
    if (!text.empty() && text.back() == '\n') text.remove_suffix(1);
    return text;
}

std::optional<std::string> read_text_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::nullopt;
    std::ostringstream text;
    text << in.rdbuf();
    if (in.bad()) return std::nullopt;
    return std::move(text).str();
}

}  // namespace pkgd
