// A tar archive (optionally gzip-compressed) built in memory with libarchive.
#pragma once

#include <archive.h>

#include <memory>
#include <string>
#include <string_view>

namespace sandbox::feed {

class ArchiveWriter {
public:
    explicit ArchiveWriter(bool gzip);
    ArchiveWriter(const ArchiveWriter&) = delete;
    ArchiveWriter& operator=(const ArchiveWriter&) = delete;

    void add_file(std::string_view path, std::string_view content, unsigned mode = 0644);
    void add_directory(std::string_view path, unsigned mode = 0755);
    void add_symlink(std::string_view path, std::string_view target);
    // The archive's bytes; nothing may be added afterwards.
    std::string finish();

private:
    struct Free {
        void operator()(archive* a) const { archive_write_free(a); }
    };
    void check(int rc, std::string_view what);
    std::string out_;
    std::unique_ptr<archive, Free> archive_;
};

}  // namespace sandbox::feed
