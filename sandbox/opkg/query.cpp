// `opkg list-installed` and `opkg info NAME`, for people looking around the root.
#include <cstdio>

#include "context.hpp"
#include "control.hpp"
#include "files.hpp"

namespace opkg {

int run_list_installed(const Context& context) {
    const PackageDb db = context.db();
    for (const std::string& name : db.packages()) {
        const std::optional<std::string> text = read_file(db.file(name, "control"));
        const std::string version = text ? parse_control(*text).get("Version").value_or("") : "";
        std::printf("%s - %s\n", name.c_str(), version.c_str());
    }
    return exit_ok;
}

int run_info(const Context& context) {
    if (context.invocation.operands.size() != 1) {
        report("info takes one package name");
        return exit_usage;
    }
    const std::string& name = context.invocation.operands.front();
    const PackageDb db = context.db();
    std::string error;
    const std::optional<std::string> text =
        db.installed(name) ? read_file(db.file(name, "control"), &error) : std::nullopt;
    if (!text) {
        report("package " + name + " is not installed");
        return exit_failed;
    }
    std::fputs(text->c_str(), stdout);
    if (!text->empty() && text->back() != '\n') std::fputc('\n', stdout);
    std::printf("Status: install ok installed\n");
    for (const std::string& path : db.lines(name, "list")) std::printf("  %s\n", path.c_str());
    return exit_ok;
}

}  // namespace opkg
