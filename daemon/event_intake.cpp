#include "daemon/event_intake.hpp"

#include <iterator>

#include "daemon/daemon_context.hpp"
#include "pkgd/lcm_events.hpp"
#include "pkgd/record_files.hpp"
#include "ubus/wire.hpp"

namespace pkgd {
namespace {

using ubus::Type;

constexpr ubus::Policy event_policy[] = {{"Header", Type::Table}, {"Body", Type::Table}};
enum event_field { EVENT_HEADER, EVENT_BODY, EVENT_COUNT };
static_assert(EVENT_COUNT == std::size(event_policy));

constexpr ubus::Policy event_header_policy[] = {{"Code", Type::Int32}, {"Name", Type::String}};
enum header_field { HEADER_CODE, HEADER_NAME, HEADER_COUNT };
static_assert(HEADER_COUNT == std::size(event_header_policy));

constexpr ubus::Policy event_body_policy[] = {
    {std::string_view(kLcmPackageIdKey), Type::String},
    {std::string_view(kLcmExecEnvIdKey), Type::String},
};
enum body_field { BODY_PACKAGE_ID, BODY_EXEC_ENV_ID, BODY_COUNT };
static_assert(BODY_COUNT == std::size(event_body_policy));

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

ubus::AddResult add_lcm_event_handler(daemon_context& d) {
    return d.ctx.listen(kLcmEventType, [&d](std::string_view type, ubus::Bytes data) { receive_event(d, type, data); });
}

void receive_event(daemon_context& d, std::string_view, ubus::Bytes data) {
    const auto tb = ubus::parse(event_policy, data);
    if (!tb[EVENT_HEADER] || !tb[EVENT_BODY]) return;
    const auto header = ubus::parse(event_header_policy, tb[EVENT_HEADER].data());
    const auto body = ubus::parse(event_body_policy, tb[EVENT_BODY].data());
    if (!header[HEADER_CODE]) return;
    const event_effect effect = effect_of(header[HEADER_CODE].as_i32());
    if (effect.what == reaction::none || !body[BODY_PACKAGE_ID]) return;
    const FixedText<1024> name(body[BODY_PACKAGE_ID].as_string());

    if (effect.what == reaction::remove) {
        del_pkg(d, name.view());
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
            d.files.reload_pkg(pkg);
            break;
        case reaction::reload_then_set_status:
            d.files.reload_pkg(pkg);
            pkg.status = effect.status;
            break;
        default:
            break;
    }
}

}  // namespace pkgd
