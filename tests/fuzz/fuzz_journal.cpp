// Arbitrary bytes as the content of a journal file, parsed and, when they make an entry, written
// back; the round trip itself is pinned by the journal's unit tests.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "pkgd/journal.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto entry = pkgd::parse_journal_entry(std::string_view(reinterpret_cast<const char*>(data), size));
    if (entry) (void)pkgd::journal_entry_text(*entry);
    return 0;
}
