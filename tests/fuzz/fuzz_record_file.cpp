// Arbitrary bytes as the content of a record file, loaded and applied as each of the four kinds.
// Whatever a file holds, a record read from it is written back and read again unchanged: the
// daemon rewrites records it has read, and a file must never drift or break on the way. (A name
// the file lacked is the one exception: it is written, and so read back, as an empty text.)
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "pkgd/record_files.hpp"
#include "ubus/json.hpp"

namespace {

using namespace pkgd;

bool same_du(const du_info& a, const du_info& b) {
    return a.index == b.index && a.pkgtype == b.pkgtype && a.uuid == b.uuid && a.version == b.version &&
           a.name == b.name && a.vendor == b.vendor && a.resolved == b.resolved && a.enabled == b.enabled &&
           a.description == b.description && a.files == b.files && a.dependency == b.dependency &&
           a.section == b.section && a.license == b.license && a.licensefiles == b.licensefiles &&
           a.architecture == b.architecture && a.provides == b.provides && a.size == b.size &&
           a.installedsize == b.installedsize && a.time == b.time;
}

// The record's file text, loaded again.
template <typename Build>
bool reload(ubus::BlobBuf& out, Build build) {
    ubus::BlobBuf msg;
    build(msg);
    return ubus::json_load(out, ubus::json_format(msg));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    ubus::BlobBuf file;
    if (!ubus::json_load(file, std::string_view(reinterpret_cast<const char*>(data), size))) return 0;

    pkg_info pkg;
    pkg.id = "1";
    const pkg_record_links links = apply_pkg_record(pkg, file.members());
    apply_du_record(pkg.du, links.du.value_or(1), file.members());
    pkg.eu.push_back(eu_record_from(2, file.members()));
    pkg.ee = ee_record_from(3, file.members());
    // Only the first pass may fill in the names that are always written.
    if (!pkg.du.name) pkg.du.name.emplace();
    if (!pkg.ee->name) pkg.ee->name.emplace();

    ubus::BlobBuf again;
    if (!reload(again, [&](ubus::BlobBuf& m) { du_record_message(m, pkg, "System"); })) std::abort();
    du_info du;
    apply_du_record(du, pkg.du.index, again.members());
    if (!same_du(du, pkg.du)) std::abort();

    again.reset();
    if (!reload(again, [&](ubus::BlobBuf& m) { pkg_record_message(m, pkg); })) std::abort();
    pkg_info back;
    const pkg_record_links back_links = apply_pkg_record(back, again.members());
    if (back.url != pkg.url || back.username != pkg.username || back.password != pkg.password ||
        back_links.eu.size() != pkg.eu.size() ||
        (back.disable_autostart != 0) != (pkg.disable_autostart != 0))
        std::abort();

    again.reset();
    if (!reload(again, [&](ubus::BlobBuf& m) { ee_record_message(m, pkg, *pkg.ee, "System"); })) std::abort();
    const ee_info ee = ee_record_from(3, again.members());
    if (!(ee.name == pkg.ee->name && ee.version == pkg.ee->version && ee.vendor == pkg.ee->vendor &&
          ee.type == pkg.ee->type && ee.file == pkg.ee->file))
        std::abort();
    return 0;
}
