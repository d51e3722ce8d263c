#include "daemon/source_args.hpp"

#include <cctype>

namespace pkgd {

std::optional<std::string_view> optional_text(ubus::Attr value) {
    if (!value) return std::nullopt;
    return value.as_string();
}

source_args read_source(ubus::Attr source) {
    source_args args;
    if (!source) return args;
    const auto tb = ubus::parse(package_install_source_policy, source.data());
    args.protocol = optional_text(tb[SOURCE_PROTOCOL]);
    args.address = optional_text(tb[SOURCE_ADDRESS]);
    args.resource = optional_text(tb[SOURCE_RESOURCE]);
    if (tb[SOURCE_PORT]) args.port = tb[SOURCE_PORT].as_i32();
    if (const ubus::Attr credentials = tb[SOURCE_CREDENTIALS]) {
        const auto cred = ubus::parse(package_install_credential_policy, credentials.data());
        args.username = optional_text(cred[CREDENTIAL_USERNAME]);
        args.password = optional_text(cred[CREDENTIAL_PASSWORD]);
    }
    return args;
}

std::string source_url(const source_args& source) {
    // Each part has its own limit first, as the record's fields would cut it, then the whole.
    std::string url(source.protocol.value_or("").substr(0, 63));
    for (char& c : url) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    url.append("://").append(source.address.value_or("").substr(0, 1023));
    if (source.port && *source.port != 0) url.append(":").append(std::to_string(*source.port));
    if (source.resource) {
        std::string resource(*source.resource);
        if (!resource.starts_with('/')) resource.insert(0, 1, '/');
        url.append(resource.substr(0, 1023));
    }
    return url.substr(0, 1023);
}

}  // namespace pkgd
