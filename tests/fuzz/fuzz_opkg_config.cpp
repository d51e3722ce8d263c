// Arbitrary bytes as the sandbox package tool's configuration file. Whatever the file holds, the
// reader either accepts it with feeds whose names are plain file names (the index is stored
// under that name) or refuses it with one of its own fixed messages: an error never carries a
// value from the file, which may be the feed server's password.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "config.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const opkg::ConfigResult result = opkg::parse_config(text);
    if (result.ok()) {
        for (const opkg::Feed& feed : result.config.feeds) {
            if (feed.name.empty() || feed.name == "." || feed.name == ".." ||
                feed.name.find('/') != std::string::npos || feed.url.empty())
                std::abort();
        }
        return 0;
    }
    static constexpr std::string_view messages[] = {
        "src/gz needs a name and a URL",          "src needs a name and a URL",
        "a feed name must be a plain file name",  "option tmp_dir needs a value",
        "option proxy_user needs a value",        "option proxy_passwd needs a value",
        "option signature_ca_file needs a value", "option signature_ca_path needs a value",
        "option lists_dir needs a value",
    };
    const std::string& error = result.error;
    const std::size_t colon = error.find(": ");
    if (error.rfind("line ", 0) != 0 || colon == std::string::npos) std::abort();
    const std::string_view message = std::string_view(error).substr(colon + 2);
    for (std::string_view known : messages)
        if (message == known) return 0;
    std::abort();
}
