// Feeds in scratch directories for the sandbox gateway's feed servers: versions of one service
// package, each listed in the signed index with the earlier ones. The demonstration, the tests of
// pkgd's operations and the load run publish their packages this way.
#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace sandbox::feed {

// A fresh directory "PREFIX-XXXXXX" under `parent`, of mode 0755 (the feed servers read it as users
// of their own), removed with everything in it when the object goes away. Empty when it could not
// be made.
class ScratchDir {
public:
    ScratchDir(const std::filesystem::path& parent, std::string_view prefix);
    ~ScratchDir();
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;

    const std::filesystem::path& path() const { return path_; }
    bool made() const { return !path_.empty(); }

private:
    std::filesystem::path path_;
};

// The package NAME: a copy of the host's sleep as /usr/bin/NAME, which runs under any name (a
// script would not do: the process of a script is its interpreter's, and a package reads "Running"
// only while one of its own files is a live process's program), and /etc/init.d/NAME, which starts
// it in the background with its PID noted so that "stop" ends exactly that process.
class ServiceFeed {
public:
    ServiceFeed(std::filesystem::path dir, std::string name, std::string description, bool dot_slash_names = false);

    // Builds `version`, signed with the PKI in `pki_dir` and with the maintainer `scripts` given
    // ("postinst": its text ...), and writes it and the index into the directory: the package's
    // file name. Throws FeedError on bad input.
    std::string publish(const std::filesystem::path& pki_dir, const std::string& version,
                        std::map<std::string, std::string> scripts = {});

private:
    std::filesystem::path dir_;
    std::string name_;
    std::string description_;
    bool dot_slash_names_;
    std::vector<std::string> records_;
};

}  // namespace sandbox::feed
