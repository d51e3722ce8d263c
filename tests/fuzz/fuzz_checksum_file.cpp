// Arbitrary bytes as a package's "checksum.sha256".
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "pkgd/engine_parts.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    // A digest text is always a part of the list, before a space.
    for (const auto& digest : pkgd::read_checksum_digests(text))
        if (digest && text.find(*digest + " ") == std::string_view::npos) std::abort();
    return 0;
}
