// Arbitrary bytes as a package file, taken apart and planned for installation as `opkg install`
// does. Whatever the archive holds, what the plan would write stays below the root: every path
// is a clean relative path without "..", every symbolic link points inside, and nothing is
// planned below one of the package's own links.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <set>
#include <string>

#include "install_plan.hpp"
#include "member_path.hpp"
#include "package_file.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    std::string error;
    const std::optional<opkg::PackageFile> package = opkg::read_package(bytes, error);
    if (!package) return 0;
    if (!opkg::valid_package_name(package->name)) std::abort();
    const opkg::PlanResult result = opkg::plan_install(package->data, {});
    if (!result.ok()) return 0;
    std::set<std::string> links;
    for (const opkg::PlannedEntry& entry : result.plan.files)
        if (entry.kind == opkg::ArchiveMember::Kind::symlink) links.insert(entry.path);
    for (const auto* entries : {&result.plan.directories, &result.plan.files}) {
        for (const opkg::PlannedEntry& entry : *entries) {
            if (entry.path.empty() || opkg::normalise_member(entry.path) != entry.path) std::abort();
            if (entry.kind == opkg::ArchiveMember::Kind::symlink &&
                !opkg::link_target_inside(entry.path, entry.link))
                std::abort();
            for (std::size_t slash = entry.path.find('/'); slash != std::string::npos;
                 slash = entry.path.find('/', slash + 1))
                if (links.count(entry.path.substr(0, slash))) std::abort();
        }
    }
    return 0;
}
