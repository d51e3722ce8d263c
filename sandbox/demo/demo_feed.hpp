// The demonstration's feed: a package "demo-clock" in version 1.0 and a newer 1.1, signed and
// indexed in a scratch directory that the sandbox gateway serves on loopback.
#pragma once

#include <filesystem>
#include <string>

namespace demo {

inline constexpr const char* kPackageName = "demo-clock";

struct PublishedFeed {
    std::string first_file;  // the .ipk of version 1.0, relative to the feed's root
    std::string newer_file;  // the .ipk of version 1.1
    std::string error;       // why nothing was published; empty on success
};

// Builds both versions with the PKI in `pki_dir` (the gateway's feed PKI), writes them and the
// signed index into `feed_dir`.
PublishedFeed publish_demo_feed(const std::filesystem::path& feed_dir, const std::filesystem::path& pki_dir);

}  // namespace demo
