#include "package_db.hpp"

#include <algorithm>
#include <filesystem>
#include <system_error>

#include "control.hpp"
#include "files.hpp"

namespace opkg {

std::string PackageDb::file(std::string_view package, std::string_view suffix) const {
    return info_dir + "/" + std::string(package) + "." + std::string(suffix);
}

bool PackageDb::installed(std::string_view package) const {
    std::error_code ec;
    return valid_package_name(package) && std::filesystem::is_regular_file(file(package, "control"), ec);
}

std::vector<std::string> PackageDb::packages() const {
    std::vector<std::string> names;
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator(info_dir, ec)) {
        const std::string leaf = entry.path().filename().string();
        constexpr std::string_view suffix = ".control";
        if (leaf.size() <= suffix.size() ||
            leaf.compare(leaf.size() - suffix.size(), suffix.size(), suffix) != 0)
            continue;
        std::string name = leaf.substr(0, leaf.size() - suffix.size());
        if (valid_package_name(name)) names.push_back(std::move(name));
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::vector<std::string> PackageDb::lines(std::string_view package, std::string_view suffix) const {
    std::vector<std::string> out;
    const std::optional<std::string> text = read_file(file(package, suffix));
    if (!text) return out;
    std::string_view rest = *text;
    while (!rest.empty()) {
        const std::size_t end = rest.find('\n');
        const std::string_view line = rest.substr(0, end);
        if (!line.empty()) out.emplace_back(line);
        rest = end == std::string_view::npos ? std::string_view{} : rest.substr(end + 1);
    }
    return out;
}

std::map<std::string, std::string> PackageDb::owners(std::string_view except) const {
    std::map<std::string, std::string> owner;
    for (const std::string& name : packages()) {
        if (name == except) continue;
        for (std::string& path : lines(name, "list")) owner.emplace(std::move(path), name);
    }
    return owner;
}

std::string join_lines(const std::vector<std::string>& lines) {
    std::string out;
    for (const std::string& line : lines) out += line + "\n";
    return out;
}

}  // namespace opkg
