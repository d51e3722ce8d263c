#include "pkgd/catalog.hpp"

#include "pkgd/peer_call.hpp"

namespace pkgd {
namespace {

bool put_type(ubus::BlobBuf& msg, int kind) {
    const std::string_view type = catalog_type_name(kind);
    if (type.empty()) return false;
    msg.add_string("Type", type);
    return true;
}

}  // namespace

std::string_view catalog_type_name(int kind) {
    switch (kind) {
        case CATALOG_DU:
            return "DeploymentUnit";
        case CATALOG_EE:
            return "ExecutionEnvironment";
        case CATALOG_EU:
            return "ExecutionUnit";
        default:
            return {};
    }
}

bool catalog_update_message(ubus::BlobBuf& msg, int kind, std::int32_t index, ubus::Bytes record) {
    if (!put_type(msg, kind)) return false;
    msg.add_i32("index", index);
    const std::size_t extra = msg.open_table("extra");
    msg.add_members(record);
    msg.close(extra);
    return true;
}

bool catalog_delete_message(ubus::BlobBuf& msg, int kind, std::int32_t index) {
    if (!put_type(msg, kind)) return false;
    msg.add_i32("Index", index);
    return true;
}

void update_lcmd_catalog(int kind, std::int32_t index, ubus::Bytes record) {
    ubus::BlobBuf msg;
    if (!catalog_update_message(msg, kind, index, record)) return;
    call_peer(kLcmCatalogObject, "catalog.update", msg.members(), kCatalogTimeoutMs);
}

void delete_lcmd_catalog(int kind, std::int32_t index) {
    ubus::BlobBuf msg;
    if (!catalog_delete_message(msg, kind, index)) return;
    call_peer(kLcmCatalogObject, "catalog.delete", msg.members(), kCatalogTimeoutMs);
}

}  // namespace pkgd
