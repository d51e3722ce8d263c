#include "daemon/ee_object.hpp"

#include "daemon/reply_envelope.hpp"
#include "pkgd/catalog.hpp"
#include "pkgd/records.hpp"
#include "pkgd/resources.hpp"

namespace pkgd {
namespace {

// The one floating-point member of any reply; the key is always "Usage".
void add_usage(ubus::BlobBuf& body, double usage) {
    body.add_double("Usage", usage);
}

void add_figures(ubus::BlobBuf& body, std::string_view name, resource_figures figures) {
    const auto table = body.open_table(name);
    body.add_i32("Total", figures.total);
    body.add_i32("Free", figures.free);
    add_usage(body, resource_usage(figures));
    body.close(table);
}

}  // namespace

int ee_get(daemon_context& d, ubus::Request& req) {
    resource_figures memory;
    resource_figures storage;
    package_get_sys_memroy(d.sys, memory.total, memory.free);
    package_get_sys_storage(d.sys, storage.total, storage.free);

    ubus::BlobBuf body;
    ee_get_body(body, d.ee, memory, storage);
    return hlapi_send(req, HLAPI_OK, body.root());
}

std::string ee_object_name(std::string_view ee_id) {
    // Every environment's object sits below the catalog's name.
    FixedText<256> name(std::string(kLcmCatalogObject).append(".").append(ee_id));
    return name.str();
}

ubus::AddResult add_ee_object(daemon_context& d) {
    const auto s_ee_methods = ubus::ObjectType::make({{"Get", {}, on_context(d, ee_get)}});
    return d.ctx.add_object(d.s_ee_object.view(), s_ee_methods);
}

double resource_usage(resource_figures figures) {
    if (figures.total == 0) return 0.0;
    return (static_cast<double>(figures.total) - static_cast<double>(figures.free)) /
           static_cast<double>(figures.total);
}

void ee_get_body(ubus::BlobBuf& body, const ee_identity& ee, resource_figures memory,
                 resource_figures storage) {
    body.add_string("Id", ee.id);
    body.add_string("Name", ee.name);
    // A BOOL carries the byte as the catalog gave it.
    body.add_u8("Enabled", static_cast<std::uint8_t>(ee.enabled & 0xff));
    body.add_string("Version", ee.version);
    body.add_string("Vendor", ee.vendor);
    body.add_string("Type", ee.type);
    const auto resources = body.open_table("Resources");
    add_figures(body, "Memory", memory);
    add_figures(body, "Storage", storage);
    body.close(resources);
    // The environment this daemon serves is running by definition, enabled or not.
    body.add_string("Status", "Active");
}

}  // namespace pkgd
