// Arbitrary bytes as the sandbox package tool's configuration file. An accepted file only names
// feeds with plain file names (the index is stored under that name); what its refusals say is
// pinned by the configuration unit tests.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "config.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const opkg::ConfigResult result = opkg::parse_config(std::string_view(reinterpret_cast<const char*>(data), size));
    if (!result.ok()) return 0;
    for (const opkg::Feed& feed : result.config.feeds)
        if (feed.name.empty() || feed.name == "." || feed.name == ".." ||
            feed.name.find('/') != std::string::npos || feed.url.empty())
            std::abort();
    return 0;
}
