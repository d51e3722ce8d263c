// `opkg install FILE`: installs a package file, or upgrades the installed package of that name.
// Everything is checked before the first change, and every change is undone on failure.
#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <set>

#include "context.hpp"
#include "files.hpp"
#include "install_plan.hpp"
#include "member_path.hpp"
#include "package_file.hpp"
#include "scripts.hpp"
#include "transaction.hpp"

namespace opkg {
namespace {

// Free space for the new files, counting each by the blocks it takes.
std::string check_space(const std::string& root, const InstallPlan& plan) {
    struct statvfs fs {};
    if (::statvfs(root.empty() ? "/" : root.c_str(), &fs) != 0)
        return "cannot tell the free space: " + errno_text();
    const std::uint64_t block = fs.f_frsize ? fs.f_frsize : 4096;
    std::uint64_t needed = 0;
    for (const PlannedEntry& entry : plan.files)
        needed += ((entry.data ? entry.data->size() : 0) + block - 1) / block * block + block;
    const std::uint64_t available = static_cast<std::uint64_t>(fs.f_bavail) * block;
    if (needed > available)
        return "not enough space: " + std::to_string(needed) + " bytes needed, " + std::to_string(available) +
               " free";
    return {};
}

// The info files of the new version; those of the old version that it lacks are removed.
std::map<std::string, std::optional<std::string>> info_files(const PackageDb& db, const PackageFile& package,
                                                             const InstallPlan& plan,
                                                             const std::vector<std::string>& dirs) {
    std::map<std::string, std::optional<std::string>> files;
    for (std::string_view suffix : info_suffixes) files[db.file(package.name, suffix)] = std::nullopt;
    files[db.file(package.name, "control")] = package.control_text;
    files[db.file(package.name, "list")] = join_lines(plan.list());
    if (!dirs.empty()) files[db.file(package.name, "dirs")] = join_lines(dirs);
    for (const auto& [suffix, content] : package.extras) files[db.file(package.name, suffix)] = content;
    return files;
}

// Directories the old version created that the new one has no use for, deepest first, so that
// each is removed once it is empty.
void remove_unused_directories(const RootDir& root, const InstallPlan& plan, std::vector<std::string> dirs) {
    std::set<std::string> used;
    for (const PlannedEntry& entry : plan.directories) used.insert("/" + entry.path);
    for (const PlannedEntry& entry : plan.files)
        for (std::size_t slash = entry.path.find('/'); slash != std::string::npos;
             slash = entry.path.find('/', slash + 1))
            used.insert("/" + entry.path.substr(0, slash));
    std::sort(dirs.rbegin(), dirs.rend());
    for (const std::string& dir : dirs) {
        const std::optional<std::string> relative = normalise_member(dir);
        if (used.count(dir) || !relative || relative->empty()) continue;
        const auto [parent, leaf] = split_parent(*relative);
        const UniqueFd fd = root.open_dir(parent);
        if (fd) ::unlinkat(fd.get(), leaf.c_str(), AT_REMOVEDIR);
    }
}

}  // namespace

int run_install(const Context& context) {
    if (context.invocation.operands.size() != 1) {
        report("install takes one package file");
        return exit_usage;
    }
    const std::string& file = context.invocation.operands.front();
    std::string error;
    const std::optional<MappedFile> mapped = MappedFile::open(file, error);
    if (!mapped) {
        report("cannot read the package: " + error);
        return exit_failed;
    }
    std::optional<PackageFile> package = read_package(mapped->bytes(), error);
    if (!package) {
        report(file + ": " + error);
        return exit_failed;
    }
    const PackageDb db = context.db();
    const bool upgrade = db.installed(package->name);
    const PlanResult planned = plan_install(package->data, db.owners(package->name));
    if (!planned.ok()) {
        report("cannot install " + package->name + ": " + planned.error);
        return exit_failed;
    }
    const InstallPlan& plan = planned.plan;
    if (std::string space = check_space(context.invocation.root, plan); !space.empty()) {
        report("cannot install " + package->name + ": " + space);
        return exit_failed;
    }
    const RootDir root = open_root(context.invocation.root);
    if (!root.fd) {
        report("cannot open the root: " + errno_text());
        return exit_failed;
    }
    std::printf("%s %s (%s) on root.\n", upgrade ? "Upgrading" : "Installing", package->name.c_str(),
                package->version.c_str());

    const std::vector<std::string> old_list = db.lines(package->name, "list");
    const std::vector<std::string> old_dirs = db.lines(package->name, "dirs");
    const std::vector<std::string> new_list = plan.list();
    const std::set<std::string> keep(new_list.begin(), new_list.end());
    std::vector<std::string> dropped;
    for (const std::string& path : old_list)
        if (!keep.count(path)) dropped.push_back(path);

    Transaction transaction(root);
    auto fail = [&](const std::string& why) {
        report("cannot install " + package->name + ": " + why);
        transaction.rollback();
        return exit_failed;
    };
    if (std::string e = transaction.create_directories(plan); !e.empty()) return fail(e);
    if (std::string e = transaction.stage_files(plan); !e.empty()) return fail(e);
    if (upgrade) {
        if (std::string e = run_script(db.file(package->name, "prerm"), "upgrade", context.invocation.root);
            !e.empty())
            return fail(e);
    }
    if (std::string e = transaction.commit_files(); !e.empty()) return fail(e);
    if (std::string e = transaction.set_aside(dropped); !e.empty()) return fail(e);

    // The directories to remove with the package: those its installs created, old and new.
    std::vector<std::string> dirs = old_dirs;
    for (const std::string& created : transaction.created_directories()) dirs.push_back("/" + created);
    std::sort(dirs.begin(), dirs.end());
    dirs.erase(std::unique(dirs.begin(), dirs.end()), dirs.end());
    if (std::string e = transaction.replace_info(info_files(db, *package, plan, dirs)); !e.empty())
        return fail(e);
    if (std::string e = run_script(db.file(package->name, "postinst"), "configure", context.invocation.root);
        !e.empty())
        return fail(e);
    transaction.finish();

    // Directories emptied by the upgrade; any still in use stay, and stay listed.
    remove_unused_directories(root, plan, old_dirs);
    std::printf("Configuring %s.\n", package->name.c_str());
    return exit_ok;
}

}  // namespace opkg
