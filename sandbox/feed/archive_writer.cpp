#include "archive_writer.hpp"

#include <archive_entry.h>

#include "sandbox/feed/pki.hpp"

namespace sandbox::feed {
namespace {

la_ssize_t append(archive*, void* client, const void* buffer, size_t length) {
    static_cast<std::string*>(client)->append(static_cast<const char*>(buffer), length);
    return static_cast<la_ssize_t>(length);
}

struct EntryFree {
    void operator()(archive_entry* e) const { archive_entry_free(e); }
};
using EntryPtr = std::unique_ptr<archive_entry, EntryFree>;

// Fixed owner and time, so the same tree always gives the same archive.
EntryPtr new_entry(std::string_view path, mode_t type, unsigned mode) {
    EntryPtr e(archive_entry_new());
    archive_entry_copy_pathname(e.get(), std::string(path).c_str());
    archive_entry_set_filetype(e.get(), type);
    archive_entry_set_perm(e.get(), mode & 07777);
    archive_entry_set_uid(e.get(), 0);
    archive_entry_set_gid(e.get(), 0);
    archive_entry_copy_uname(e.get(), "root");
    archive_entry_copy_gname(e.get(), "root");
    archive_entry_set_mtime(e.get(), 1700000000, 0);
    return e;
}

}  // namespace

ArchiveWriter::ArchiveWriter(bool gzip) : archive_(archive_write_new()) {
    if (!archive_) throw FeedError("archive_write_new failed");
    check(archive_write_set_format_gnutar(archive_.get()), "tar format");
    if (gzip) {
        check(archive_write_add_filter_gzip(archive_.get()), "gzip filter");
        // No time stamp in the gzip header: equal input, equal bytes.
        check(archive_write_set_filter_option(archive_.get(), "gzip", "timestamp", nullptr), "gzip option");
    }
    check(archive_write_set_bytes_in_last_block(archive_.get(), 1), "block size");
    check(archive_write_open(archive_.get(), &out_, nullptr, append, nullptr), "open");
}

void ArchiveWriter::check(int rc, std::string_view what) {
    if (rc == ARCHIVE_OK) return;
    const char* why = archive_error_string(archive_.get());
    throw FeedError("archive " + std::string(what) + ": " + (why != nullptr ? why : "failed"));
}

void ArchiveWriter::add_file(std::string_view path, std::string_view content, unsigned mode) {
    EntryPtr e = new_entry(path, AE_IFREG, mode);
    archive_entry_set_size(e.get(), static_cast<la_int64_t>(content.size()));
    check(archive_write_header(archive_.get(), e.get()), "header of " + std::string(path));
    if (!content.empty() &&
        archive_write_data(archive_.get(), content.data(), content.size()) != static_cast<la_ssize_t>(content.size()))
        check(ARCHIVE_FATAL, "data of " + std::string(path));
}

void ArchiveWriter::add_directory(std::string_view path, unsigned mode) {
    EntryPtr e = new_entry(path, AE_IFDIR, mode);
    check(archive_write_header(archive_.get(), e.get()), "header of " + std::string(path));
}

void ArchiveWriter::add_symlink(std::string_view path, std::string_view target) {
    EntryPtr e = new_entry(path, AE_IFLNK, 0777);
    archive_entry_copy_symlink(e.get(), std::string(target).c_str());
    check(archive_write_header(archive_.get(), e.get()), "header of " + std::string(path));
}

std::string ArchiveWriter::finish() {
    check(archive_write_close(archive_.get()), "close");
    return std::move(out_);
}

}  // namespace sandbox::feed
