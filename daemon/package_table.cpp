#include "daemon/package_table.hpp"

#include <algorithm>

#include "pkgd/text.hpp"

namespace pkgd {
namespace {

// Texts inside the package table are cut as the fields they were read into would cut them.
constexpr std::size_t kPortTextMax = 15;

std::string_view text_or_empty(const OptText& text) {
    return text ? std::string_view(*text) : std::string_view();
}

// "a, b,c" gives a, b and c: blanks are skipped after a comma only, so "a ,b" gives "a " and b.
// A trailing comma adds no empty item; a leading one gives an empty first item.
void add_dependencies(ubus::BlobBuf& body, const OptText& dependency) {
    const auto array = body.open_array("Dependencies");
    std::string_view rest = text_or_empty(dependency);
    while (!rest.empty()) {
        const std::size_t comma = rest.find(',');
        if (comma == std::string_view::npos) {
            body.add_string({}, rest);
            break;
        }
        body.add_string({}, FixedText<1024>(rest.substr(0, comma)));
        rest.remove_prefix(comma + 1);
        rest.remove_prefix(skip_white_space(rest));
    }
    body.close(array);
}

void add_source(ubus::BlobBuf& body, std::string_view url) {
    const source_parts source = split_source(url);
    const auto table = body.open_table("Source");
    body.add_string("Protocol", source.protocol);
    body.add_string("Address", source.address);
    body.add_i32("Port", source.port);
    body.add_string("Resource", source.resource);
    body.close(table);
}

}  // namespace

source_parts split_source(std::string_view url) {
    source_parts parts;
    const std::size_t colon = url.find(':');
    if (colon == std::string_view::npos) return parts;

    parts.protocol = url.substr(0, colon);
    std::string upper(parts.protocol.view());
    std::transform(upper.begin(), upper.end(), upper.begin(),
                   [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; });
    parts.protocol = upper;

    const std::string_view rest = url.substr(std::min(colon + 3, url.size()));
    const std::size_t port_colon = rest.find(':');
    if (port_colon != std::string_view::npos) {
        parts.address = rest.substr(0, port_colon);
        const std::size_t slash = rest.find('/', port_colon);
        if (slash != std::string_view::npos) {
            const std::string_view port = rest.substr(port_colon + 1, slash - port_colon - 1);
            parts.port = leading_decimal(port.substr(0, kPortTextMax));
            parts.resource = rest.substr(slash);
        }
        return parts;
    }
    const std::size_t slash = rest.find('/');
    parts.address = rest.substr(0, slash);
    if (slash != std::string_view::npos) parts.resource = rest.substr(slash);
    return parts;
}

void dump_pkg(ubus::BlobBuf& body, const pkg_info& pkg, std::string_view status) {
    const du_info& du = pkg.du;
    body.add_string("Id", pkg.id);
    body.add_string("UUID", du.uuid);
    body.add_string("Name", text_or_empty(du.name));
    body.add_string("Description", text_or_empty(du.description));
    body.add_u8("Enabled", du.enabled);
    add_source(body, pkg.url);
    body.add_string("Section", text_or_empty(du.section));
    body.add_string("Vendor", text_or_empty(du.vendor));
    body.add_string("Version", du.version);
    add_dependencies(body, du.dependency);
    body.add_string("License", text_or_empty(du.license));
    body.add_string("Architecture", text_or_empty(du.architecture));
    body.add_string("Status", status);
    const auto install = body.open_table("Install");
    body.add_string("Timestamp", du.time);
    body.add_i32("Size", static_cast<std::int32_t>(du.size));
    body.close(install);
}

}  // namespace pkgd
