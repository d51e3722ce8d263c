#include "pkgd/identity.hpp"

#include <cstdint>
#include <cstdlib>
#include <iterator>

#include "pkgd/catalog.hpp"
#include "pkgd/peer_call.hpp"
#include "ubus/blob.hpp"
#include "ubus/wire.hpp"

namespace pkgd {
namespace {

// The process's identity: set once by package_init_env, read-only afterwards.
ee_identity s_identity;

constexpr ubus::Policy kCatalogReplyPolicy[] = {
    {"id", ubus::Type::String},      {"name", ubus::Type::String},   {"enabled", ubus::Type::Bool},
    {"version", ubus::Type::String}, {"vendor", ubus::Type::String}, {"type", ubus::Type::String},
};
enum CatalogReplyField { kReplyId, kReplyName, kReplyEnabled, kReplyVersion, kReplyVendor, kReplyType, kReplyFieldCount };
static_assert(kReplyFieldCount == std::size(kCatalogReplyPolicy));

// One reply of the catalog. Each field it carries replaces what an earlier reply set; a field it
// lacks (or of another type) leaves the value alone. The catalog's "name" is not taken: the
// environment is called what the variable says, which is also what the catalog was asked for.
void init_env(ee_identity& ee, ubus::Bytes members) {
    const auto tb = ubus::parse(kCatalogReplyPolicy, members);
    if (tb[kReplyId]) ee.id = tb[kReplyId].as_string();
    if (tb[kReplyEnabled]) ee.enabled = tb[kReplyEnabled].as_u8();
    if (tb[kReplyVersion]) ee.version = tb[kReplyVersion].as_string();
    if (tb[kReplyVendor]) ee.vendor = tb[kReplyVendor].as_string();
    if (tb[kReplyType]) ee.type = tb[kReplyType].as_string();
}

}  // namespace

ee_identity resolve_ee_identity(const char* execenv_index, CatalogQuery ask_catalog) {
    ee_identity ee;
    if (execenv_index == nullptr) {
        ee.id = kDefaultEeName;
        ee.name = kDefaultEeName;
        return ee;
    }
    // Despite its name the variable holds the environment's name.
    ee.name = execenv_index;
    const int status = ask_catalog(execenv_index, [&ee](ubus::Bytes members) { init_env(ee, members); });
    if (ee.id.empty()) ee.id = execenv_index;
    // Whatever the replies said, an identifier from an unfinished request is not trusted.
    if (status != ubus::kOk) ee.id = kFallbackEeId;
    return ee;
}

int ask_catalog_over_bus(std::string_view name, ubus::DataCallback on_reply) {
    ubus::BlobBuf msg;
    msg.add_string("Type", catalog_type_name(CATALOG_EE));
    const auto filters = msg.open_table("Filters");
    msg.add_string("Name", name);
    msg.close(filters);
    return call_peer(kLcmCatalogObject, "catalog.get", msg.members(), kCatalogTimeoutMs, on_reply);
}

void package_init_env() {
    s_identity = resolve_ee_identity(std::getenv("EXECENV_INDEX"),
                                     [](std::string_view name, ubus::DataCallback on_reply) {
                                         return ask_catalog_over_bus(name, on_reply);
                                     });
}

const ee_identity& package_ee_identity() {
    return s_identity;
}
const std::string& package_get_env() {
    return s_identity.id.str();
}
const std::string& package_get_ee_name() {
    return s_identity.name.str();
}
int package_get_ee_enabled() {
    return s_identity.enabled;
}
const std::string& package_get_ee_version() {
    return s_identity.version.str();
}
const std::string& package_get_ee_vendor() {
    return s_identity.vendor.str();
}
const std::string& package_get_ee_type() {
    return s_identity.type.str();
}

}  // namespace pkgd
