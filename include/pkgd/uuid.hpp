// Name-based UUIDs (RFC 4122 versions 3 and 5). A deployment unit that arrives without a UUID gets
// one derived from its name and vendor, so the same package from the same vendor has the same UUID
// on every gateway.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "pkgd/records.hpp"

namespace pkgd {

// The RFC 4122 fields, each in host byte order.
struct uuid_fields {
    std::uint32_t time_low = 0;
    std::uint16_t time_mid = 0;
    std::uint16_t time_hi_and_version = 0;
    std::uint8_t clock_seq_hi_and_reserved = 0;
    std::uint8_t clock_seq_low = 0;
    std::array<std::uint8_t, 6> node{};

    friend bool operator==(const uuid_fields&, const uuid_fields&) = default;
};

// The namespaces RFC 4122 defines, in the order of their kind numbers (0 to 3). They differ only in
// their first field.
namespace detail {
constexpr uuid_fields rfc4122_namespace(std::uint32_t time_low) {
    return {time_low, 0x9dad, 0x11d1, 0x80, 0xb4, {0x00, 0xc0, 0x4f, 0xd4, 0x30, 0xc8}};
}
}  // namespace detail
inline constexpr uuid_fields NameSpace_DNS = detail::rfc4122_namespace(0x6ba7b810);
inline constexpr uuid_fields NameSpace_URL = detail::rfc4122_namespace(0x6ba7b811);
inline constexpr uuid_fields NameSpace_OID = detail::rfc4122_namespace(0x6ba7b812);
inline constexpr uuid_fields NameSpace_X500 = detail::rfc4122_namespace(0x6ba7b814);
inline constexpr std::array<uuid_fields, 4> kUuidNamespaces{NameSpace_DNS, NameSpace_URL, NameSpace_OID,
                                                            NameSpace_X500};

enum UuidNamespaceKind : int {
    UUID_NAMESPACE_DNS = 0,
    UUID_NAMESPACE_URL = 1,
    UUID_NAMESPACE_OID = 2,
    UUID_NAMESPACE_X500 = 3,
};

// Version 3 (MD5) of `name` in namespace `nsid`.
uuid_fields uuid_create_md5_from_name(uuid_fields nsid, std::span<const std::uint8_t> name);
// Version 5 (SHA-1). Nothing when the crypto library cannot compute the digest (a provider
// without SHA-1, say).
std::optional<uuid_fields> uuid_create_sha1_from_name(uuid_fields nsid, std::span<const std::uint8_t> name);

// -1, 0 or 1, comparing field by field as unsigned numbers, then the node bytes in order.
int uuid_compare(const uuid_fields& a, const uuid_fields& b);

// The 36-character lowercase text form ("6ba7b810-9dad-11d1-80b4-00c04fd430c8").
std::string uuid_format(const uuid_fields& uuid);

// The UUID text for a name as LCM_generate_uuid writes it: the name (up to a NUL, if any) is
// escaped byte by byte, every byte outside [A-Za-z0-9_-] becoming "%" and its value in lowercase
// hex without leading zeros ("." -> "%2e", tab -> "%9"), then hashed in the namespace of `kind`,
// version 3 when `use_md5` is not 0, else version 5. Empty when there is nothing to write: an empty
// name, an unknown kind, a digest that could not be computed, or no memory for the escaped name.
std::string lcm_uuid_text(std::string_view name, int kind, int use_md5);

// Appends the UUID text of `name` to the NUL-terminated text already in `out`, cut so that the
// whole text fits the buffer with its terminator. When lcm_uuid_text has nothing to write, `out`
// is left unchanged.
void LCM_generate_uuid(std::span<char> out, std::string_view name, int kind, int use_md5);

// The same for a record's text field: appends within the field's capacity.
template <std::size_t Size>
void LCM_generate_uuid(FixedText<Size>& out, std::string_view name, int kind, int use_md5) {
    const std::string text = lcm_uuid_text(name, kind, use_md5);
    if (!text.empty()) out = out.str() + text;  // the field cuts at its capacity
}

}  // namespace pkgd
