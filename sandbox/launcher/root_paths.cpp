#include "sandbox/root_paths.hpp"

#include <string>

namespace sandbox {

std::filesystem::path host_path(const std::filesystem::path& root, std::string_view inside) {
    while (!inside.empty() && inside.front() == '/') inside.remove_prefix(1);
    return root / inside;
}

std::filesystem::path output_log(const std::filesystem::path& root, std::string_view process_name) {
    return host_path(root, kStateDir) / (std::string(process_name) + ".log");
}

}  // namespace sandbox
