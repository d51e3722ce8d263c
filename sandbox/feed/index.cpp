#include "sandbox/feed/index.hpp"

#include <sys/stat.h>

#include <fstream>

#include "gzip.hpp"
#include "sandbox/feed/signature.hpp"

namespace sandbox::feed {
namespace {

namespace fs = std::filesystem;

// The fields the index computes itself; a control's own values for them are dropped.
bool computed(std::string_view key) {
    return key == "Filename" || key == "Size" || key == "MD5Sum" || key == "SHA256sum";
}

void write_file(const fs::path& path, std::string_view bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    out.close();
    if (!out) throw FeedError("cannot write " + path.string());
}

}  // namespace

std::string index_record(std::string_view control, std::string_view filename, std::string_view ipk_bytes,
                         std::uint64_t installed_size) {
    std::string fields, description;
    bool has_installed_size = false;
    std::string* current = nullptr;  // where continuation lines go
    std::size_t start = 0;
    while (start < control.size()) {
        std::size_t end = control.find('\n', start);
        if (end == std::string_view::npos) end = control.size();
        std::string_view line = control.substr(start, end - start);
        start = end + 1;
        if (line.empty()) break;  // a control file holds one paragraph
        if (line.front() == ' ' || line.front() == '\t') {
            if (current != nullptr) *current += std::string(line) + "\n";
            continue;
        }
        std::size_t colon = line.find(':');
        if (colon == std::string_view::npos) throw FeedError("not a control field: " + std::string(line));
        std::string_view key = line.substr(0, colon);
        if (computed(key)) {
            current = nullptr;
            continue;
        }
        has_installed_size = has_installed_size || key == "Installed-Size";
        current = key == "Description" ? &description : &fields;
        *current += std::string(line) + "\n";
    }
    if (!has_installed_size) fields += "Installed-Size: " + std::to_string(installed_size) + "\n";
    fields += "Filename: " + std::string(filename) + "\n";
    fields += "Size: " + std::to_string(ipk_bytes.size()) + "\n";
    fields += "MD5Sum: " + md5_hex(ipk_bytes) + "\n";
    fields += "SHA256sum: " + sha256_hex(ipk_bytes) + "\n";
    return fields + description;
}

std::string index_text(const std::vector<std::string>& records) {
    std::string out;
    for (const std::string& r : records) {
        if (!out.empty()) out += "\n";
        out += r;
        if (!r.ends_with('\n')) out += "\n";
    }
    return out;
}

void write_index(const fs::path& dir, std::string_view index, const Credential& signer) {
    const std::string signature = sign_detached(index, signer);
    write_file(dir / "Packages", index);
    write_file(dir / "Packages.gz", gzip(index));
    write_file(dir / "Packages.sig", signature);
}

}  // namespace sandbox::feed
