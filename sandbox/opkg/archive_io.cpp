#include "archive_io.hpp"

#include <archive.h>
#include <archive_entry.h>
#include <sys/stat.h>

#include <algorithm>
#include <memory>
#include <span>

namespace opkg {
namespace {

struct ReadArchiveFree {
    void operator()(archive* a) const { archive_read_free(a); }
};
using ReadArchive = std::unique_ptr<archive, ReadArchiveFree>;

std::string archive_error(archive* a) {
    const char* text = archive_error_string(a);
    return text ? text : "unreadable archive";
}

// Room reserved ahead for a member, at most: the size a header declares is the archive's word, and
// a hostile one would have us reserve gigabytes.
constexpr la_int64_t kReserveMax = la_int64_t{64} << 20;

// The most a member may unpack to. Members are held in memory, and a few hundred bytes of nested
// gzip can claim gigabytes: a package of this tool's feeds is far below this.
constexpr std::size_t kMemberMax = std::size_t{256} << 20;

// Appends the current entry's data to `out`.
bool read_data(archive* a, archive_entry* entry, std::string& out, std::string& error) {
    if (archive_entry_size_is_set(entry) && archive_entry_size(entry) > 0)
        out.reserve(out.size() + static_cast<std::size_t>(std::min(archive_entry_size(entry), kReserveMax)));
    char buffer[65536];
    for (;;) {
        const la_ssize_t n = archive_read_data(a, buffer, sizeof buffer);
        if (n == 0) return true;
        if (n < 0) {
            error = archive_error(a);
            return false;
        }
        if (out.size() + static_cast<std::size_t>(n) > kMemberMax) {
            error = "archive member too large";
            return false;
        }
        out.append(buffer, static_cast<std::size_t>(n));
    }
}

ReadArchive new_reader() {
    ReadArchive a(archive_read_new());
    if (!a) return a;
    archive_read_support_filter_gzip(a.get());
    archive_read_support_filter_none(a.get());
    archive_read_support_format_tar(a.get());
    archive_read_support_format_gnutar(a.get());
    archive_read_support_format_ar(a.get());
    return a;
}

// An archive inside another, read straight from the outer archive's current member: a package's
// data archive is not copied out of the package first.
struct NestedSource {
    archive* outer;
    char buffer[65536];
};

la_ssize_t read_from_outer(archive*, void* client, const void** block) {
    auto* source = static_cast<NestedSource*>(client);
    *block = source->buffer;
    return archive_read_data(source->outer, source->buffer, sizeof source->buffer);
}

std::optional<std::vector<ArchiveMember>> read_members(archive* a, std::string& error,
                                                       std::span<const std::string_view> nested,
                                                       NestedArchives* inner);

// The archive held by the outer archive's current member.
std::optional<std::vector<ArchiveMember>> read_nested(archive* outer, std::string& error) {
    // The source outlives the reader that pulls from it.
    auto source = std::make_unique<NestedSource>();
    source->outer = outer;
    ReadArchive a(new_reader());
    if (!a) {
        error = "out of memory";
        return std::nullopt;
    }
    if (archive_read_open(a.get(), source.get(), nullptr, read_from_outer, nullptr) != ARCHIVE_OK) {
        error = archive_error(a.get());
        return std::nullopt;
    }
    return read_members(a.get(), error, {}, nullptr);
}

bool is_nested(std::string_view name, std::span<const std::string_view> nested) {
    for (std::string_view n : nested)
        if (n == name) return true;
    return false;
}

std::optional<std::vector<ArchiveMember>> read_members(archive* a, std::string& error,
                                                       std::span<const std::string_view> nested,
                                                       NestedArchives* inner) {
    std::vector<ArchiveMember> members;
    archive_entry* entry = nullptr;
    for (;;) {
        const int status = archive_read_next_header(a, &entry);
        if (status == ARCHIVE_EOF) break;
        if (status != ARCHIVE_OK && status != ARCHIVE_WARN) {
            error = archive_error(a);
            return std::nullopt;
        }
        ArchiveMember member;
        const char* name = archive_entry_pathname(entry);
        member.name = name ? name : "";
        member.mode = static_cast<unsigned>(archive_entry_perm(entry));
        if (const char* target = archive_entry_hardlink(entry)) {
            member.hardlink = true;
            member.link = target;
        }
        switch (archive_entry_filetype(entry)) {
            case AE_IFREG:
                member.kind = ArchiveMember::Kind::file;
                break;
            case AE_IFDIR:
                member.kind = ArchiveMember::Kind::directory;
                break;
            case AE_IFLNK:
                member.kind = ArchiveMember::Kind::symlink;
                if (const char* target = archive_entry_symlink(entry)) member.link = target;
                break;
            default:
                member.kind = ArchiveMember::Kind::other;
                break;
        }
        // ar archives written in deterministic mode carry permission bits only, no file type:
        // their members' contents are read all the same.
        const bool has_data = member.kind == ArchiveMember::Kind::file ||
                              (member.kind == ArchiveMember::Kind::other && !member.hardlink);
        std::string_view plain = member.name;
        if (plain.substr(0, 2) == "./") plain.remove_prefix(2);
        if (inner && is_nested(plain, nested) && !inner->count(std::string(plain))) {
            // The first member of the name counts. One without data reads as an empty archive.
            std::optional<std::vector<ArchiveMember>> held =
                has_data ? read_nested(a, error) : read_archive({}, error);
            if (!held) {
                error = std::string(plain) + ": " + error;
                return std::nullopt;
            }
            inner->emplace(plain, std::move(*held));
        } else if (has_data && !read_data(a, entry, member.data, error)) {
            return std::nullopt;
        }
        members.push_back(std::move(member));
    }
    return members;
}

}  // namespace

std::optional<std::vector<ArchiveMember>> read_archive(std::string_view bytes, std::string& error,
                                                       std::span<const std::string_view> nested,
                                                       NestedArchives* inner) {
    ReadArchive a(new_reader());
    if (!a) {
        error = "out of memory";
        return std::nullopt;
    }
    if (archive_read_open_memory(a.get(), bytes.data(), bytes.size()) != ARCHIVE_OK) {
        error = archive_error(a.get());
        return std::nullopt;
    }
    return read_members(a.get(), error, nested, inner);
}

std::optional<std::string> gunzip(std::string_view bytes, std::string& error) {
    ReadArchive a(archive_read_new());
    if (!a) {
        error = "out of memory";
        return std::nullopt;
    }
    archive_read_support_filter_gzip(a.get());
    archive_read_support_format_raw(a.get());
    archive_entry* entry = nullptr;
    if (archive_read_open_memory(a.get(), bytes.data(), bytes.size()) != ARCHIVE_OK) {
        error = archive_error(a.get());
        return std::nullopt;
    }
    const int status = archive_read_next_header(a.get(), &entry);
    if (status != ARCHIVE_OK && status != ARCHIVE_EOF) {
        error = archive_error(a.get());
        return std::nullopt;
    }
    // The raw reader takes anything; only data that went through the gzip filter counts.
    if (archive_filter_code(a.get(), 0) != ARCHIVE_FILTER_GZIP) {
        error = "not gzip data";
        return std::nullopt;
    }
    std::string out;
    if (status == ARCHIVE_EOF) return out;  // an empty feed
    if (!read_data(a.get(), entry, out, error)) return std::nullopt;
    return out;
}

const ArchiveMember* find_member(const std::vector<ArchiveMember>& members, std::string_view name) {
    for (const ArchiveMember& member : members) {
        std::string_view candidate = member.name;
        if (candidate.substr(0, 2) == "./") candidate.remove_prefix(2);
        if (candidate == name) return &member;
    }
    return nullptr;
}

}  // namespace opkg
