#include "pkgd/engine_parts.hpp"
#include "pkgd/text.hpp"

namespace pkgd {
namespace {

enum OptionRow : std::size_t {
    ROW_PACKAGE,
    ROW_VERSION,
    ROW_FILENAME,
    ROW_LICENSEFILES,
    ROW_INSTALLED_SIZE,
    ROW_DESCRIPTION,
    ROW_LICENSE,
    ROW_TAGS,
    ROW_SECTION,
    ROW_ARCHITECTURE,
    ROW_PROVIDES,
    ROW_MAINTAINER,
    ROW_SIZE,
    ROW_MD5SUM,
    ROW_DEPENDS,
    ROW_SHA256SUM,
};

using record_values = std::array<OptText, s_opkg_options.size()>;

bool record_matches(const record_values& values, std::string_view file_name, std::string_view version) {
    if (!values[ROW_FILENAME] || *values[ROW_FILENAME] != file_name) return false;
    return version.empty() || (values[ROW_VERSION] && *values[ROW_VERSION] == version);
}

void copy_record(const record_values& values, du_info& du) {
    const auto keep = [&](OptionRow row, OptText& field) {
        if (values[row]) field = values[row];
    };
    keep(ROW_PACKAGE, du.name);
    keep(ROW_LICENSEFILES, du.licensefiles);
    keep(ROW_DESCRIPTION, du.description);
    keep(ROW_LICENSE, du.license);
    keep(ROW_SECTION, du.section);
    keep(ROW_ARCHITECTURE, du.architecture);
    keep(ROW_PROVIDES, du.provides);
    keep(ROW_MAINTAINER, du.vendor);
    keep(ROW_DEPENDS, du.dependency);
    if (values[ROW_VERSION]) du.version = *values[ROW_VERSION];
    if (values[ROW_SIZE]) du.size = static_cast<std::uint32_t>(leading_decimal(*values[ROW_SIZE]));
    if (values[ROW_INSTALLED_SIZE]) {
        const auto installed = static_cast<std::uint32_t>(leading_decimal(*values[ROW_INSTALLED_SIZE]));
        if (du.size == 0) du.size = installed;
        du.installedsize = installed;
    }
    if (values[ROW_SECTION] && (package_opkg_str_starts_with(*values[ROW_SECTION], "Execution Environment") ||
                                package_opkg_str_starts_with(*values[ROW_SECTION], "LXC")))
        du.pkgtype = PKGTYPE_EE;
}

}  // namespace

int retrieve_package_info(std::string_view index_text, std::string_view file_name, std::string_view version,
                          du_info& du) {
    LineReader lines(index_text);
    constexpr std::size_t kNone = s_opkg_options.size();
    std::size_t continuation = kNone;  // the multi-line field that unknown lines extend
    bool at_end = index_text.empty();
    while (!at_end) {
        record_values values;
        for (;;) {
            const std::optional<std::string_view> piece = lines.next(1023);
            if (!piece) {
                at_end = true;
                break;
            }
            std::string_view line = *piece;
            if (line.front() == '\n' || line.front() == '\r' || line.front() == ' ') break;
            std::size_t row = 0;
            while (row < s_opkg_options.size() &&
                   !package_opkg_str_starts_with(line, s_opkg_options[row].key))
                ++row;
            if (row == s_opkg_options.size()) {
                if (continuation != kNone && values[continuation]) values[continuation]->append(line);
                continue;
            }
            if (s_opkg_options[row].single_line) {
                line = chomp(line);
                continuation = kNone;
            } else {
                continuation = row;
            }
            line.remove_prefix(s_opkg_options[row].key.size());
            line.remove_prefix(skip_white_space(line));
            values[row] = std::string(line);
        }
        if (record_matches(values, file_name, version)) {
            copy_record(values, du);
            return 0;
        }
    }
    return -1;
}

int package_opkg_retrieve_package_info(const engine_context& ctx, std::string_view file_name,
                                       std::string_view version, du_info& du) {
    const std::optional<std::string> text = read_text_file(ctx.paths.feed_index);
    if (!text) return -1;
    return retrieve_package_info(*text, file_name, version, du);
}

}  // namespace pkgd
