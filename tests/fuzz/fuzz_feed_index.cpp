// Arbitrary bytes as a feed index, searched as an install and as the latest-version query search it.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "pkgd/engine_parts.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    pkgd::du_info du;
    // A record found for a file name has that file name and at most the version's capacity.
    if (pkgd::retrieve_package_info(text, "hello_1.0_arm.ipk", "", du) == 0 &&
        (text.find("hello_1.0_arm.ipk") == std::string_view::npos || du.version.size() > 63))
        std::abort();
    if (pkgd::latest_feed_version(text, "hello").size() > 127) std::abort();
    return 0;
}
