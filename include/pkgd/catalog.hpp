// The LCM catalog: the gateway-wide list of deployment units, execution units and execution
// environments. pkgd mirrors every DU, EU and EE record file it writes or deletes into it, so the
// catalog always shows what the files say.
#pragma once

#include <cstdint>
#include <string_view>

#include "ubus/blob.hpp"

namespace pkgd {

inline constexpr std::string_view kLcmCatalogObject = "Services.Management.LCM.ExecutionEnvironments";
inline constexpr int kCatalogTimeoutMs = 5000;

enum CatalogKind : int {
    CATALOG_DU = 0,
    CATALOG_EE = 1,
    CATALOG_EU = 2,
};

// "DeploymentUnit", "ExecutionEnvironment", "ExecutionUnit"; empty for any other kind.
std::string_view catalog_type_name(int kind);

// "catalog.update": "Type", "index", then table "extra" holding a copy of `record` (the members
// of the record file). False, with nothing built, for an unknown kind.
bool catalog_update_message(ubus::BlobBuf& msg, int kind, std::int32_t index, ubus::Bytes record);
// "catalog.delete": "Type", "Index" (the catalog spells it with a capital here). False, with
// nothing built, for an unknown kind.
bool catalog_delete_message(ubus::BlobBuf& msg, int kind, std::int32_t index);

// Each sends its message over a bus connection of its own and waits at most kCatalogTimeoutMs.
// Nothing is sent for an unknown kind, and failures are silent: the record files are the truth,
// the catalog is only told about them. Used by the record files only.
void update_lcmd_catalog(int kind, std::int32_t index, ubus::Bytes record);
void delete_lcmd_catalog(int kind, std::int32_t index);

}  // namespace pkgd
