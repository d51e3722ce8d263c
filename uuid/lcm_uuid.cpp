// The UUID of a deployment unit's name text, escaped the way every gateway escapes it so that
// the same name always gives the same UUID.
#include <algorithm>
#include <cstring>
#include <new>

#include "pkgd/uuid.hpp"

namespace pkgd {
namespace {

bool kept_as_is(unsigned char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-';
}

// Other bytes become "%" and their value in lowercase hex without leading zeros.
std::string escape_name(std::string_view name) {
    static constexpr char kHex[] = "0123456789abcdef";
    std::string out;
    out.reserve(name.size() * 3);
    for (const char ch : name) {
        const auto c = static_cast<unsigned char>(ch);
        if (kept_as_is(c)) {
            out.push_back(ch);
            continue;
        }
        out.push_back('%');
        if (c >= 0x10) out.push_back(kHex[c >> 4]);
        out.push_back(kHex[c & 0x0F]);
    }
    return out;
}

}  // namespace

std::string lcm_uuid_text(std::string_view name, int kind, int use_md5) {
    name = name.substr(0, name.find('\0'));
    if (name.empty() || kind < 0 || static_cast<std::size_t>(kind) >= kUuidNamespaces.size()) return {};
    // Growing the escaped copy is the only allocation; without memory there is no UUID, which the
    // caller sees as an empty text, as for a name it cannot hash.
    try {
        const std::string escaped = escape_name(name);
        const std::span<const std::uint8_t> bytes(reinterpret_cast<const std::uint8_t*>(escaped.data()),
                                                  escaped.size());
        const uuid_fields& ns = kUuidNamespaces[static_cast<std::size_t>(kind)];
        if (use_md5 != 0) return uuid_format(uuid_create_md5_from_name(ns, bytes));
        const auto sha1 = uuid_create_sha1_from_name(ns, bytes);
        return sha1 ? uuid_format(*sha1) : std::string{};
    } catch (const std::bad_alloc&) {
        return {};
    }
}

void LCM_generate_uuid(std::span<char> out, std::string_view name, int kind, int use_md5) {
    if (out.empty()) return;
    const std::string text = lcm_uuid_text(name, kind, use_md5);
    if (text.empty()) return;
    // The existing text ends at its terminator, or fills the whole buffer when it has none.
    const auto used = static_cast<std::size_t>(std::find(out.begin(), out.end(), '\0') - out.begin());
    if (used >= out.size() - 1) return;
    const std::size_t n = std::min(text.size(), out.size() - 1 - used);
    std::memcpy(out.data() + used, text.data(), n);
    out[used + n] = '\0';
}

}  // namespace pkgd
