#include "daemon/restore.hpp"

#include <filesystem>
#include <memory>
#include <string>
#include <system_error>

#include "daemon/daemon_context.hpp"
#include "pkgd/record_files.hpp"
#include "ubus/json.hpp"

namespace pkgd {
namespace {

// One package record file. Files that are not a JSON object or name no deployment unit are not
// packages this daemon wrote; they are skipped and the others restored all the same.
void restore_package(daemon_context& d, const std::string& name) {
    const RecordFiles& files = d.files;
    ubus::BlobBuf msg;
    if (!ubus::json_load_file(msg, files.pkg_path(name))) return;
    pkg_info fields;
    const pkg_record_links links = apply_pkg_record(fields, msg.members());
    if (!links.du) return;

    const std::shared_ptr<pkg_info> pkg = add_pkg(d, name, std::move(fields));
    if (!pkg) return;
    files.load_du(*pkg, *links.du);
    pkg->status = PKG_STATUS_INSTALLED;
    if (links.ee) files.load_ee(*pkg, *links.ee);
    for (const std::int32_t index : links.eu) files.load_eu(*pkg, index);
}

}  // namespace

void restore_registered_packages(daemon_context& d) {
    std::error_code ec;
    // In the directory's own order; each package goes to the head of the registry, so the last
    // file read is listed first. A directory that cannot be read restores nothing.
    for (std::filesystem::directory_iterator it(d.files.pkg_dir(), ec), end;
         !ec && it != end; it.increment(ec)) {
        const std::string name = it->path().filename().string();
        if (name.front() != '.') restore_package(d, name);
    }
}

}  // namespace pkgd
