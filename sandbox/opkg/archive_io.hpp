// Reading the archives a package is made of, and the compressed feed index, with libarchive.
// Everything is held in memory: packages and indexes of a gateway are small.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace opkg {

struct ArchiveMember {
    enum class Kind { file, directory, symlink, other };
    std::string name;  // as written in the archive
    Kind kind = Kind::other;
    unsigned mode = 0;      // permission bits
    std::string link;       // a symlink's target
    bool hardlink = false;  // a hard link to an earlier member
    std::string data;       // a regular file's contents
};

// Every member of a tar (or ar) archive, gzip-compressed or not; nullopt with `error` set when
// the bytes are not such an archive or are cut short.
std::optional<std::vector<ArchiveMember>> read_archive(std::string_view bytes, std::string& error);

// The uncompressed contents of gzip data.
std::optional<std::string> gunzip(std::string_view bytes, std::string& error);

// The member whose name, less a leading "./", is `name`; null when there is none.
const ArchiveMember* find_member(const std::vector<ArchiveMember>& members, std::string_view name);

}  // namespace opkg
