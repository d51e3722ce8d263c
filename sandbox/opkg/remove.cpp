// `opkg remove NAME`: the package's prerm, then its files, its directories once empty, and its
// info files.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "context.hpp"
#include "files.hpp"
#include "member_path.hpp"
#include "rooted.hpp"
#include "scripts.hpp"

namespace opkg {

int run_remove(const Context& context) {
    if (context.invocation.operands.size() != 1) {
        report("remove takes one package name");
        return exit_usage;
    }
    const std::string& name = context.invocation.operands.front();
    const PackageDb db = context.db();
    if (!db.installed(name)) {
        report("package " + name + " is not installed");
        return exit_failed;
    }
    const RootDir root = open_root(context.invocation.root);
    if (!root.fd) {
        report("cannot open the root: " + errno_text());
        return exit_failed;
    }
    std::printf("Removing package %s from root...\n", name.c_str());
    // A prerm that refuses keeps the package as it is.
    if (std::string error = run_script(db.file(name, "prerm"), "remove", context.invocation.root);
        !error.empty()) {
        report("cannot remove " + name + ": " + error);
        return exit_failed;
    }
    int status = exit_ok;
    auto remove_at = [&](const std::string& path, int flags) {
        const std::optional<std::string> relative = normalise_member(path);
        if (!relative || relative->empty()) return;
        const auto [parent, leaf] = split_parent(*relative);
        const UniqueFd dir = root.open_dir(parent);
        if (!dir || ::unlinkat(dir.get(), leaf.c_str(), flags) == 0 || errno == ENOENT) return;
        if (flags == 0) {
            report("cannot remove " + path + ": " + errno_text());
            status = exit_failed;
        }
    };
    for (const std::string& path : db.lines(name, "list")) remove_at(path, 0);
    if (std::string error = run_script(db.file(name, "postrm"), "remove", context.invocation.root);
        !error.empty())
        report("warning: " + error);
    std::vector<std::string> dirs = db.lines(name, "dirs");
    std::sort(dirs.rbegin(), dirs.rend());
    for (const std::string& dir : dirs) remove_at(dir, AT_REMOVEDIR);  // kept while not empty
    // The control file goes last: until then the package still counts as installed.
    for (std::string_view suffix : info_suffixes)
        if (suffix != std::string_view("control")) ::unlink(db.file(name, suffix).c_str());
    if (::unlink(db.file(name, "control").c_str()) != 0 && errno != ENOENT) {
        report("cannot remove " + db.file(name, "control") + ": " + errno_text());
        status = exit_failed;
    }
    return status;
}

}  // namespace opkg
