// Reading control texts and the control file inside a package.
#include <archive.h>
#include <archive_entry.h>

#include <memory>

#include "sandbox/feed/package.hpp"

namespace sandbox::feed {
namespace {

struct ReadFree {
    void operator()(archive* a) const { archive_read_free(a); }
};

using ReadPtr = std::unique_ptr<archive, ReadFree>;

ReadPtr open_tar(std::string_view tar_bytes) {
    ReadPtr a(archive_read_new());
    archive_read_support_filter_all(a.get());
    archive_read_support_format_tar(a.get());
    if (archive_read_open_memory(a.get(), tar_bytes.data(), tar_bytes.size()) != ARCHIVE_OK)
        throw FeedError("not an archive: " + std::string(archive_error_string(a.get())));
    return a;
}

}  // namespace

std::string read_member(std::string_view tar_bytes, std::string_view name) {
    ReadPtr a = open_tar(tar_bytes);
    archive_entry* entry = nullptr;
    while (archive_read_next_header(a.get(), &entry) == ARCHIVE_OK) {
        std::string_view path = archive_entry_pathname(entry);
        if (path.starts_with("./")) path.remove_prefix(2);
        if (path != name) continue;
        std::string content;
        char buffer[8192];
        la_ssize_t n;
        while ((n = archive_read_data(a.get(), buffer, sizeof buffer)) > 0) content.append(buffer, static_cast<std::size_t>(n));
        if (n < 0) throw FeedError("cannot read " + std::string(name) + ": " + archive_error_string(a.get()));
        return content;
    }
    throw FeedError("no member " + std::string(name) + " in the archive");
}

std::string control_field(std::string_view control, std::string_view key) {
    std::size_t start = 0;
    while (start < control.size()) {
        std::size_t end = control.find('\n', start);
        if (end == std::string_view::npos) end = control.size();
        std::string_view line = control.substr(start, end - start);
        if (line.size() > key.size() && line.starts_with(key) && line[key.size()] == ':') {
            std::string_view value = line.substr(key.size() + 1);
            while (!value.empty() && (value.front() == ' ' || value.front() == '\t')) value.remove_prefix(1);
            while (!value.empty() && (value.back() == '\r' || value.back() == ' ')) value.remove_suffix(1);
            return std::string(value);
        }
        start = end + 1;
    }
    return {};
}

std::string read_package_control(std::string_view ipk_bytes) {
    return read_member(read_member(ipk_bytes, "control.tar.gz"), "control");
}

std::uint64_t read_installed_size(std::string_view ipk_bytes) {
    const std::string data = read_member(ipk_bytes, "data.tar.gz");
    ReadPtr a = open_tar(data);
    std::uint64_t total = 0;
    archive_entry* entry = nullptr;
    while (archive_read_next_header(a.get(), &entry) == ARCHIVE_OK)
        if (archive_entry_filetype(entry) == AE_IFREG) total += static_cast<std::uint64_t>(archive_entry_size(entry));
    return total;
}

std::string package_file_name(std::string_view control) {
    std::string arch = control_field(control, "Architecture");
    return control_field(control, "Package") + "_" + control_field(control, "Version") + "_" +
           (arch.empty() ? "all" : arch) + ".ipk";
}

}  // namespace sandbox::feed
