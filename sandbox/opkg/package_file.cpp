#include "package_file.hpp"

#include "package_db.hpp"

namespace opkg {

std::optional<PackageFile> read_package(std::string_view bytes, std::string& error) {
    static constexpr std::string_view kInner[] = {"control.tar.gz", "data.tar.gz"};
    NestedArchives inner;
    if (!read_archive(bytes, error, kInner, &inner)) return std::nullopt;
    const auto control_archive = inner.find(kInner[0]);
    const auto data_archive = inner.find(kInner[1]);
    if (control_archive == inner.end() || data_archive == inner.end()) {
        error = "not a package: control.tar.gz or data.tar.gz missing";
        return std::nullopt;
    }
    const std::vector<ArchiveMember>& control_members = control_archive->second;
    const ArchiveMember* control = find_member(control_members, "control");
    if (!control || control->kind != ArchiveMember::Kind::file) {
        error = "control.tar.gz holds no control file";
        return std::nullopt;
    }
    PackageFile package;
    package.control_text = control->data;
    package.control = parse_control(control->data);
    package.name = package.control.get("Package").value_or("");
    package.version = package.control.get("Version").value_or("");
    if (!valid_package_name(package.name)) {
        error = "the control file names no valid package (Package:)";
        return std::nullopt;
    }
    for (std::string_view suffix : info_suffixes) {
        if (suffix == "control" || suffix == "list" || suffix == "dirs") continue;
        const ArchiveMember* member = find_member(control_members, suffix);
        if (member && member->kind == ArchiveMember::Kind::file) package.extras.emplace(suffix, member->data);
    }
    package.data = std::move(data_archive->second);
    return package;
}

}  // namespace opkg
