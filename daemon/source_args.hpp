// The "Source" table of the requests that name where a package comes from: Install/add of the
// Packages object, Update and IsLatestVersion of a per-package object. Callers send it nested,
// {"Source": {"Protocol": ..., "Credentials": {"Username": ..., "Password": ...}}}.
#pragma once

#include <algorithm>
#include <array>
#include <iterator>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "ubus/blob.hpp"

namespace pkgd {

inline constexpr ubus::Policy package_install_source_policy[] = {
    {"Protocol", ubus::Type::String}, {"Address", ubus::Type::String},    {"Port", ubus::Type::Int32},
    {"Resource", ubus::Type::String}, {"Credentials", ubus::Type::Table},
};
enum source_field {
    SOURCE_PROTOCOL,
    SOURCE_ADDRESS,
    SOURCE_PORT,
    SOURCE_RESOURCE,
    SOURCE_CREDENTIALS,
    SOURCE_COUNT
};
static_assert(SOURCE_COUNT == std::size(package_install_source_policy));

// What the bus shows of a "Source" table among a method's arguments: its members under flat,
// dotted names. Callers send the nested table; these names only describe it.
inline constexpr ubus::Policy source_list_policy[] = {
    {"Source.Protocol", ubus::Type::String},
    {"Source.Address", ubus::Type::String},
    {"Source.Port", ubus::Type::Int32},
    {"Source.Resource", ubus::Type::String},
    {"Source.Credentials.Username", ubus::Type::String},
    {"Source.Credentials.Password", ubus::Type::String},
};

// Argument lists joined in order, for a method that advertises the Source's among its own.
template <std::size_t... N>
constexpr std::array<ubus::Policy, (N + ...)> join_policies(const ubus::Policy (&... parts)[N]) {
    std::array<ubus::Policy, (N + ...)> joined{};
    std::size_t at = 0;
    ((std::copy(std::begin(parts), std::end(parts), joined.begin() + static_cast<std::ptrdiff_t>(at)), at += N),
     ...);
    return joined;
}

inline constexpr ubus::Policy package_install_credential_policy[] = {
    {"Username", ubus::Type::String},
    {"Password", ubus::Type::String},
};
enum credential_field { CREDENTIAL_USERNAME, CREDENTIAL_PASSWORD, CREDENTIAL_COUNT };
static_assert(CREDENTIAL_COUNT == std::size(package_install_credential_policy));

// A "Source" table as read. Members absent (or of another type) are absent here; the views point
// into the request's arguments.
struct source_args {
    std::optional<std::string_view> protocol, address, resource, username, password;
    std::optional<std::int32_t> port;
};

// A string argument's text; absent when it is absent or of another type.
std::optional<std::string_view> optional_text(ubus::Attr value);

// Reads a "Source" table; everything absent when `source` is (no table given).
source_args read_source(ubus::Attr source);

// The URL a source names, "protocol://address[:port]/resource": the protocol (at most 63
// characters) in lower case, the address (at most 1023), ":port" when a port other than 0 is
// given, and the resource with a leading '/' added when it lacks one (nothing when absent). The
// whole is cut to 1023 characters, as a record's URL is.
std::string source_url(const source_args& source);

}  // namespace pkgd
