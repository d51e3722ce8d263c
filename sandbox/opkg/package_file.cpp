#include "package_file.hpp"

#include "package_db.hpp"

namespace opkg {

std::optional<PackageFile> read_package(std::string_view bytes, std::string& error) {
    std::optional<std::vector<ArchiveMember>> outer = read_archive(bytes, error);
    if (!outer) return std::nullopt;
    const ArchiveMember* control_archive = find_member(*outer, "control.tar.gz");
    const ArchiveMember* data_archive = find_member(*outer, "data.tar.gz");
    if (!control_archive || !data_archive) {
        error = "not a package: control.tar.gz or data.tar.gz missing";
        return std::nullopt;
    }
    std::optional<std::vector<ArchiveMember>> control_members = read_archive(control_archive->data, error);
    if (!control_members) {
        error = "control.tar.gz: " + error;
        return std::nullopt;
    }
    std::optional<std::vector<ArchiveMember>> data = read_archive(data_archive->data, error);
    if (!data) {
        error = "data.tar.gz: " + error;
        return std::nullopt;
    }
    const ArchiveMember* control = find_member(*control_members, "control");
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
        const ArchiveMember* member = find_member(*control_members, suffix);
        if (member && member->kind == ArchiveMember::Kind::file) package.extras.emplace(suffix, member->data);
    }
    package.data = std::move(*data);
    return package;
}

}  // namespace opkg
