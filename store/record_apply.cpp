// The members of record files (as loaded from their JSON) -> records.
#include <iterator>

#include "pkgd/record_files.hpp"

namespace pkgd {
namespace {

using ubus::Type;

void set_text(OptText& field, ubus::Attr value) {
    if (value) field.emplace(value.as_string());
}

template <std::size_t N>
void set_text(FixedText<N>& field, ubus::Attr value) {
    if (value) field = value.as_string();
}

constexpr ubus::Policy kDuPolicy[] = {
    {"name", Type::String},     {"uuid", Type::String},         {"version", Type::String},
    {"resolved", Type::Bool},   {"enabled", Type::Bool},        {"description", Type::String},
    {"files", Type::String},    {"dependency", Type::String},   {"section", Type::String},
    {"license", Type::String},  {"licensefiles", Type::String}, {"architecture", Type::String},
    {"provides", Type::String}, {"size", Type::Int32},          {"installedsize", Type::Int32},
    {"time", Type::String},     {"pkgtype", Type::Int32},       {"vendor", Type::String},
};
enum DuField {
    DU_NAME,
    DU_UUID,
    DU_VERSION,
    DU_RESOLVED,
    DU_ENABLED,
    DU_DESCRIPTION,
    DU_FILES,
    DU_DEPENDENCY,
    DU_SECTION,
    DU_LICENSE,
    DU_LICENSEFILES,
    DU_ARCHITECTURE,
    DU_PROVIDES,
    DU_SIZE,
    DU_INSTALLEDSIZE,
    DU_TIME,
    DU_PKGTYPE,
    DU_VENDOR,
    DU_FIELD_COUNT,
};
static_assert(DU_FIELD_COUNT == std::size(kDuPolicy));

constexpr ubus::Policy kEuPolicy[] = {{"euid", Type::String}, {"name", Type::String}};
enum EuField { EU_EUID, EU_NAME, EU_FIELD_COUNT };
static_assert(EU_FIELD_COUNT == std::size(kEuPolicy));

constexpr ubus::Policy kEePolicy[] = {
    {"name", Type::String}, {"version", Type::String}, {"vendor", Type::String},
    {"type", Type::String}, {"file", Type::String},
};
enum EeField { EE_NAME, EE_VERSION, EE_VENDOR, EE_TYPE, EE_FILE, EE_FIELD_COUNT };
static_assert(EE_FIELD_COUNT == std::size(kEePolicy));

constexpr ubus::Policy kPkgPolicy[] = {
    {"EE", Type::Int32},
    {"DU", Type::Int32},
    {"EU", Type::Array},
    {"resource.url", Type::String},
    {"resource.username", Type::String},
    {"resource.password", Type::String},
    {"disableautostart", Type::Bool},
};
enum PkgField {
    PKG_EE,
    PKG_DU,
    PKG_EU,
    PKG_URL,
    PKG_USERNAME,
    PKG_PASSWORD,
    PKG_DISABLE_AUTOSTART,
    PKG_FIELD_COUNT,
};
static_assert(PKG_FIELD_COUNT == std::size(kPkgPolicy));

}  // namespace

void apply_du_record(du_info& du, std::int32_t index, ubus::Bytes members) {
    const auto tb = ubus::parse(kDuPolicy, members);
    du.index = index;
    set_text(du.uuid, tb[DU_UUID]);
    set_text(du.version, tb[DU_VERSION]);
    set_text(du.time, tb[DU_TIME]);
    if (tb[DU_RESOLVED]) du.resolved = tb[DU_RESOLVED].as_bool() ? 1 : 0;
    if (tb[DU_ENABLED]) du.enabled = tb[DU_ENABLED].as_bool() ? 1 : 0;
    if (tb[DU_SIZE]) du.size = tb[DU_SIZE].as_u32();
    if (tb[DU_INSTALLEDSIZE]) du.installedsize = tb[DU_INSTALLEDSIZE].as_u32();
    if (tb[DU_PKGTYPE]) du.pkgtype = tb[DU_PKGTYPE].as_i32();
    set_text(du.name, tb[DU_NAME]);
    set_text(du.vendor, tb[DU_VENDOR]);
    set_text(du.description, tb[DU_DESCRIPTION]);
    set_text(du.files, tb[DU_FILES]);
    set_text(du.dependency, tb[DU_DEPENDENCY]);
    set_text(du.section, tb[DU_SECTION]);
    set_text(du.license, tb[DU_LICENSE]);
    set_text(du.licensefiles, tb[DU_LICENSEFILES]);
    set_text(du.architecture, tb[DU_ARCHITECTURE]);
    set_text(du.provides, tb[DU_PROVIDES]);
}

eu_info eu_record_from(std::int32_t index, ubus::Bytes members) {
    const auto tb = ubus::parse(kEuPolicy, members);
    eu_info eu;
    eu.index = index;
    set_text(eu.euid, tb[EU_EUID]);
    set_text(eu.name, tb[EU_NAME]);
    return eu;
}

ee_info ee_record_from(std::int32_t index, ubus::Bytes members) {
    const auto tb = ubus::parse(kEePolicy, members);
    ee_info ee;
    ee.index = index;
    set_text(ee.name, tb[EE_NAME]);
    set_text(ee.version, tb[EE_VERSION]);
    set_text(ee.vendor, tb[EE_VENDOR]);
    set_text(ee.type, tb[EE_TYPE]);
    set_text(ee.file, tb[EE_FILE]);
    return ee;
}

pkg_record_links apply_pkg_record(pkg_info& pkg, ubus::Bytes members) {
    const auto tb = ubus::parse(kPkgPolicy, members);
    pkg_record_links links;
    if (tb[PKG_EE]) links.ee = tb[PKG_EE].as_i32();
    if (tb[PKG_DU]) links.du = tb[PKG_DU].as_i32();
    if (tb[PKG_EU]) {
        for (ubus::Attr element : tb[PKG_EU].children()) {
            // A malformed element ends the list: nothing after it can be trusted.
            if (!element.valid()) break;
            if (element.type() == Type::Int32) links.eu.push_back(element.as_i32());
        }
    }
    set_text(pkg.url, tb[PKG_URL]);
    set_text(pkg.username, tb[PKG_USERNAME]);
    set_text(pkg.password, tb[PKG_PASSWORD]);
    if (tb[PKG_DISABLE_AUTOSTART]) pkg.disable_autostart = tb[PKG_DISABLE_AUTOSTART].as_u8();
    return links;
}

}  // namespace pkgd
