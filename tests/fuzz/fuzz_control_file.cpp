// Arbitrary bytes as a package's control file, checked against the name the feed gave.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "pkgd/engine_parts.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    // Without a "Package:" line there is nothing to refuse.
    if (pkgd::check_control_name(text, "hello") != 0 && text.find("Package:") == std::string_view::npos)
        std::abort();
    return 0;
}
