// The feed index a gateway fetches: "Packages", its gzip "Packages.gz", and "Packages.sig", a
// detached signature over the uncompressed index.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "sandbox/feed/pki.hpp"

namespace sandbox::feed {

// One record: the control's fields (Description last, because a continuation line starting with a
// space ends a record for the gateway's reader), then Filename, Size, MD5Sum, SHA256sum and, unless
// the control has it, Installed-Size.
std::string index_record(std::string_view control, std::string_view filename, std::string_view ipk_bytes,
                         std::uint64_t installed_size);

// Records separated by an empty line.
std::string index_text(const std::vector<std::string>& records);

// Writes Packages, Packages.gz and Packages.sig into `dir`.
void write_index(const std::filesystem::path& dir, std::string_view index, const Credential& signer);

}  // namespace sandbox::feed
