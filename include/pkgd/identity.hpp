// The identity of the one execution environment this daemon serves: learnt once at start-up from
// the environment variable EXECENV_INDEX and the LCM catalog, read-only afterwards.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "pkgd/records.hpp"
#include "ubus/client.hpp"
#include "ubus/function_ref.hpp"

namespace pkgd {

// What an environment without the variable is called, and the identifier used when the catalog
// could not be asked.
inline constexpr std::string_view kDefaultEeName = "System";
inline constexpr std::string_view kFallbackEeId = "1";

struct ee_identity {
    FixedText<256> id;  // in the daemon's object names and its temporary directory
    FixedText<256> name;
    std::int32_t enabled = 0;
    FixedText<64> version;
    FixedText<256> vendor;
    FixedText<256> type;
};

// Sends "catalog.get" for the environment named `name` and hands each reply's members to
// `on_reply`; returns the bus status of the request (0 when it was answered).
using CatalogQuery = ubus::FunctionRef<int(std::string_view name, ubus::DataCallback on_reply)>;

// The identity for the value of EXECENV_INDEX (null: not set). Without the variable the catalog
// is not asked. With it, the name is the variable's value and the catalog's replies fill the rest;
// the identifier is the catalog's "id", else the variable's value, and "1" when the request
// failed.
ee_identity resolve_ee_identity(const char* execenv_index, CatalogQuery ask_catalog);

// The catalog request on a bus connection of its own (default socket), at most kCatalogTimeoutMs
// (pkgd/catalog.hpp).
int ask_catalog_over_bus(std::string_view name, ubus::DataCallback on_reply);

// Fixes the process's identity. Called once at start-up, before the daemon connects to the bus.
void package_init_env();

// The identity fixed by package_init_env (empty texts and 0 before it ran). The references stay
// valid for the life of the process.
const ee_identity& package_ee_identity();
const std::string& package_get_env();
const std::string& package_get_ee_name();
int package_get_ee_enabled();
const std::string& package_get_ee_version();
const std::string& package_get_ee_vendor();
const std::string& package_get_ee_type();

}  // namespace pkgd
