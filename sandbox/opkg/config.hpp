// opkg's configuration file: feeds, architectures and options, read from text. The reader is pure
// so that it can be tested and fuzzed on its own; opening the file is the caller's business.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace opkg {

struct Feed {
    std::string name;     // the index is stored as LISTS/name, so never a path
    std::string url;      // without a trailing "/"
    bool gzipped = true;  // "src/gz": URL/Packages.gz; "src": URL/Packages
};

struct Config {
    std::vector<Feed> feeds;
    std::vector<std::string> architectures;
    std::string tmp_dir = "/tmp";
    std::string lists_dir = "/usr/lib/opkg/lists";
    std::string proxy_user;    // feed server credentials: HTTP basic authentication, FTP login
    std::string proxy_passwd;  // never printed
    bool check_signature = false;
    std::string signature_ca_file;
    std::string signature_ca_path;
};

struct ConfigResult {
    Config config;
    // Empty when the text was accepted. Names the line and what is wrong with it, never a value
    // taken from the line (the line may hold the password).
    std::string error;
    bool ok() const { return error.empty(); }
};

// Unknown lines and unknown options are ignored, as on a gateway where the file is shared with
// other tools; comments start with "#".
ConfigResult parse_config(std::string_view text);

}  // namespace opkg
