// Reading the archives a package is made of, and the compressed feed index, with libarchive.
// Everything is held in memory: packages and indexes of a gateway are small.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <span>
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

// Archives held inside an archive, by member name (less a leading "./").
using NestedArchives = std::map<std::string, std::vector<ArchiveMember>, std::less<>>;

// Every member of a tar (or ar) archive, gzip-compressed or not; nullopt with `error` set when
// the bytes are not such an archive or are cut short. The members named in `nested` (less a
// leading "./"; the first of each name) are read as archives in turn, as they stream past, into
// `inner`, and keep no data of their own: a package's data archive is never held twice.
std::optional<std::vector<ArchiveMember>> read_archive(std::string_view bytes, std::string& error,
                                                       std::span<const std::string_view> nested = {},
                                                       NestedArchives* inner = nullptr);

// The uncompressed contents of gzip data.
std::optional<std::string> gunzip(std::string_view bytes, std::string& error);

// The member whose name, less a leading "./", is `name`; null when there is none.
const ArchiveMember* find_member(const std::vector<ArchiveMember>& members, std::string_view name);

}  // namespace opkg
