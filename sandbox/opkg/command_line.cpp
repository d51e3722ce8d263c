#include "command_line.hpp"

#include <charconv>

namespace opkg {

InvocationResult parse_command_line(const std::vector<std::string_view>& args) {
    InvocationResult result;
    Invocation& inv = result.invocation;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string_view arg = args[i];
        const bool takes_value =
            arg == "-f" || arg == "--conf" || arg == "-o" || arg == "--offline-root" || arg == "-e";
        if (takes_value) {
            if (i + 1 >= args.size()) {
                result.error = "option " + std::string(arg) + " needs a value";
                return result;
            }
            const std::string_view value = args[++i];
            if (arg == "-f" || arg == "--conf") {
                inv.config_path = std::string(value);
                inv.config_given = true;
            } else if (arg == "-e") {
                long seconds = 0;
                const auto [end, ec] = std::from_chars(value.data(), value.data() + value.size(), seconds);
                if (ec != std::errc{} || end != value.data() + value.size() || seconds <= 0) {
                    result.error = "-e takes a positive number of seconds";
                    return result;
                }
                inv.timeout_seconds = seconds;
            } else {
                std::string root(value);
                while (root.size() > 1 && root.back() == '/') root.pop_back();
                inv.root = root == "/" ? std::string{} : root;
            }
        } else if (arg.size() > 1 && arg.front() == '-') {
            result.error = "unknown option " + std::string(arg);
            return result;
        } else if (inv.command.empty()) {
            inv.command = std::string(arg);
        } else {
            inv.operands.emplace_back(arg);
        }
    }
    if (inv.command.empty()) result.error = "no command given";
    return result;
}

std::string usage_text() {
    return "usage: opkg [-f CONF] [-o ROOT] COMMAND [ARGS]\n"
           "  update                      fetch the index of every feed\n"
           "  download URL [-e SECONDS]   fetch URL into tmp_dir\n"
           "  install FILE                install or upgrade a package file\n"
           "  remove NAME                 remove an installed package\n"
           "  list-installed              installed packages and their versions\n"
           "  info NAME                   the control file of an installed package\n"
           "  sha256sum FILE              FILE's SHA-256 digest, also left in FILE.sha256\n";
}

}  // namespace opkg
