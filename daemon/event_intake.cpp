#include "daemon/event_intake.hpp"

#include "daemon/daemon_context.hpp"
#include "pkgd/lcm_events.hpp"
#include "pkgd/record_files.hpp"
#include "ubus/wire.hpp"

namespace pkgd {
namespace {

using ubus::Type;

constexpr ubus::Policy event_policy[] = {{"Header", Type::Table}, {"Body", Type::Table}};
constexpr ubus::Policy event_header_policy[] = {{"Code", Type::Int32}, {"Name", Type::String}};
constexpr ubus::Policy event_body_policy[] = {
    {std::string_view(kLcmPackageIdKey), Type::String},
    {std::string_view(kLcmExecEnvIdKey), Type::String},
};

// What an event does to the package it names. A reload replaces the package's unit data with what
// its files now say, after any event that reloads: a package that already holds units (a failed
// removal, say) would otherwise list them twice.
enum class reaction { none, remove, set_status, set_status_then_reload, reload_then_set_status };

struct event_effect {
    reaction what = reaction::none;
    std::int32_t status = PKG_STATUS_NEW;
};

event_effect effect_of(std::int32_t code) {
    switch (code) {
        case kLcmDownloadComplete.code:
            return {reaction::set_status_then_reload, PKG_STATUS_DOWNLOADED};
        case kLcmDownloadFailed.code:
        case kLcmInstallFailed.code:
        case kLcmDeleteComplete.code:
            return {reaction::remove};
        case kLcmInstallComplete.code:
        case kLcmDeleteFailed.code:
            return {reaction::set_status_then_reload, PKG_STATUS_INSTALLED};
        case kLcmDownloading.code:
            return {reaction::set_status, PKG_STATUS_DOWNLOADING};
        case kLcmInstalling.code:
            return {reaction::set_status, PKG_STATUS_INSTALLING};
        case kLcmDeleting.code:
            return {reaction::set_status, PKG_STATUS_UNINSTALLING};
        case kLcmUpdating.code:
            return {reaction::set_status, PKG_STATUS_UPDATING};
        case kLcmUpdateFailed.code:
            return {reaction::set_status, PKG_STATUS_INSTALLED};
        case kLcmUpdateComplete.code:
            return {reaction::reload_then_set_status, PKG_STATUS_INSTALLED};
        default:
            return {};
    }
}

}  // namespace

ubus::AddResult add_lcm_event_handler(ubus::Connection& ctx) {
    return ctx.listen(kLcmEventType, receive_event);
}

void receive_event(std::string_view, ubus::Bytes data) {
    const auto tb = ubus::parse(event_policy, data);
    if (!tb[0] || !tb[1]) return;
    const auto header = ubus::parse(event_header_policy, tb[0].data());
    const auto body = ubus::parse(event_body_policy, tb[1].data());
    if (!header[0]) return;
    const event_effect effect = effect_of(header[0].as_i32());
    if (effect.what == reaction::none || !body[0]) return;
    const FixedText<1024> name(body[0].as_string());

    daemon_context& d = the_daemon();
    if (effect.what == reaction::remove) {
        __del_pkg(name.view());
        return;
    }
    const registered_pkg* entry = d.s_pkgs.find_object(name.view());
    if (!entry) return;
    pkg_info& pkg = *entry->pkg;
    switch (effect.what) {
        case reaction::set_status:
            pkg.status = effect.status;
            break;
        case reaction::set_status_then_reload:
            pkg.status = effect.status;
            package_reload_pkg_info(pkg);
            break;
        case reaction::reload_then_set_status:
            package_reload_pkg_info(pkg);
            pkg.status = effect.status;
            break;
        default:
            break;
    }
}

}  // namespace pkgd
