// Records -> the members of their record files, in the files' order.
#include "pkgd/record_files.hpp"

namespace pkgd {
namespace {

// A text written whether or not the record has it (see the header).
std::string_view text_or_empty(const OptText& text) {
    return text ? std::string_view(*text) : std::string_view{};
}

void add_if_set(ubus::BlobBuf& msg, std::string_view key, const OptText& text) {
    if (text) msg.add_string(key, *text);
}

void add_eu_indexes(ubus::BlobBuf& msg, const pkg_info& pkg) {
    const std::size_t array = msg.open_array("EU");
    for (const eu_info& eu : pkg.eu) msg.add_i32({}, eu.index);
    msg.close(array);
}

}  // namespace

void pkg_record_message(ubus::BlobBuf& msg, const pkg_info& pkg) {
    if (pkg.ee) msg.add_i32("EE", pkg.ee->index);
    msg.add_i32("DU", pkg.du.index);
    if (!pkg.eu.empty()) add_eu_indexes(msg, pkg);
    msg.add_string("UUID", pkg.du.uuid);
    msg.add_string("resource.url", pkg.url);
    msg.add_string("resource.username", pkg.username);
    msg.add_string("resource.password", pkg.password);
    if (pkg.disable_autostart != 0) msg.add_bool("disableautostart", true);
}

void du_record_message(ubus::BlobBuf& msg, const pkg_info& pkg, std::string_view ee_name) {
    const du_info& du = pkg.du;
    msg.add_string("name", text_or_empty(du.name));
    msg.add_string("uuid", du.uuid);
    msg.add_string("version", du.version);
    add_if_set(msg, "vendor", du.vendor);
    msg.add_bool("resolved", du.resolved != 0);
    msg.add_bool("enabled", du.enabled != 0);
    add_if_set(msg, "description", du.description);
    add_if_set(msg, "files", du.files);
    add_if_set(msg, "dependency", du.dependency);
    add_if_set(msg, "section", du.section);
    add_if_set(msg, "license", du.license);
    add_if_set(msg, "licensefiles", du.licensefiles);
    add_if_set(msg, "architecture", du.architecture);
    add_if_set(msg, "provides", du.provides);
    // Sizes travel as 32-bit integers; the reader takes them back as unsigned.
    msg.add_i32("size", static_cast<std::int32_t>(du.size));
    msg.add_i32("installedsize", static_cast<std::int32_t>(du.installedsize));
    msg.add_string("time", du.time);
    msg.add_i32("pkgtype", du.pkgtype);
    msg.add_string("EE", ee_name);
    add_eu_indexes(msg, pkg);
    msg.add_string("URL", pkg.url);
    msg.add_string("PKG", pkg.id);
}

void eu_record_message(ubus::BlobBuf& msg, const pkg_info& pkg, const eu_info& eu, std::string_view ee_name) {
    msg.add_string("euid", text_or_empty(eu.euid));
    msg.add_string("name", text_or_empty(eu.name));
    msg.add_string("EE", ee_name);
    msg.add_string("PKG", pkg.id);
}

void ee_record_message(ubus::BlobBuf& msg, const pkg_info& pkg, const ee_info& ee, std::string_view ee_name) {
    msg.add_string("id", pkg.id);
    msg.add_string("name", text_or_empty(ee.name));
    msg.add_string("version", ee.version);
    add_if_set(msg, "vendor", ee.vendor);
    add_if_set(msg, "type", ee.type);
    msg.add_string("file", ee.file);
    msg.add_string("EE", ee_name);
}

}  // namespace pkgd
