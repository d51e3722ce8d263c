#include "install_plan.hpp"

#include <algorithm>
#include <set>

#include "member_path.hpp"

namespace opkg {

std::vector<std::string> InstallPlan::list() const {
    std::vector<std::string> out;
    for (const PlannedEntry& entry : files) out.push_back("/" + entry.path);
    return out;
}

PlanResult plan_install(const std::vector<ArchiveMember>& data,
                        const std::map<std::string, std::string>& owners) {
    PlanResult result;
    InstallPlan& plan = result.plan;
    std::set<std::string> seen;
    std::set<std::string> links;
    for (const ArchiveMember& member : data) {
        const std::optional<std::string> path = normalise_member(member.name);
        if (!path) {
            result.error = "member " + member.name + " would land outside /";
            return result;
        }
        if (path->empty() && member.kind == ArchiveMember::Kind::directory) continue;  // "./"
        if (member.hardlink || member.kind == ArchiveMember::Kind::other || path->empty()) {
            result.error = "member " + member.name + " is not a file, directory or symbolic link";
            return result;
        }
        if (!seen.insert(*path).second) {
            result.error = "member " + member.name + " appears twice";
            return result;
        }
        PlannedEntry entry{*path, member.kind, member.mode & 07777, member.link, nullptr};
        switch (member.kind) {
            case ArchiveMember::Kind::directory:
                plan.directories.push_back(entry);
                break;
            case ArchiveMember::Kind::symlink:
                if (!link_target_inside(*path, member.link)) {
                    result.error = "symbolic link " + member.name + " points outside /";
                    return result;
                }
                links.insert(*path);
                plan.files.push_back(entry);
                break;
            default:
                entry.data = &member.data;
                plan.bytes += member.data.size();
                plan.files.push_back(entry);
                break;
        }
    }
    // A link of the package's own must not redirect where its other members go.
    for (const std::string& path : seen) {
        for (std::size_t slash = path.find('/'); slash != std::string::npos;
             slash = path.find('/', slash + 1)) {
            if (links.count(path.substr(0, slash))) {
                result.error =
                    "member " + path + " lies below the package's symbolic link " + path.substr(0, slash);
                return result;
            }
        }
    }
    for (const PlannedEntry& entry : plan.files) {
        const auto owner = owners.find("/" + entry.path);
        if (owner != owners.end()) {
            result.error = "/" + entry.path + " belongs to package " + owner->second;
            return result;
        }
    }
    std::sort(plan.directories.begin(), plan.directories.end(),
              [](const PlannedEntry& a, const PlannedEntry& b) { return a.path < b.path; });
    return result;
}

}  // namespace opkg
