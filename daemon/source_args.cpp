#include "daemon/source_args.hpp"

#include <cctype>

namespace pkgd {
namespace {

std::optional<std::string_view> text_of(ubus::Attr value) {
    if (!value) return std::nullopt;
    return value.as_string();
}

}  // namespace

source_args read_source(ubus::Attr source) {
    source_args args;
    if (!source) return args;
    const auto tb = ubus::parse(package_install_source_policy, source.data());
    args.protocol = text_of(tb[SOURCE_PROTOCOL]);
    args.address = text_of(tb[SOURCE_ADDRESS]);
    args.resource = text_of(tb[SOURCE_RESOURCE]);
    if (tb[SOURCE_PORT]) args.port = tb[SOURCE_PORT].as_i32();
    if (const ubus::Attr credentials = tb[SOURCE_CREDENTIALS]) {
        const auto cred = ubus::parse(package_install_credential_policy, credentials.data());
        args.username = text_of(cred[CREDENTIAL_USERNAME]);
        args.password = text_of(cred[CREDENTIAL_PASSWORD]);
    }
    return args;
}

std::string source_url(const source_args& source) {
    std::string url(source.protocol.value_or("").substr(0, 63));
    for (char& c : url) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    url += "://";
    url += source.address.value_or("").substr(0, 1023);
    if (source.port && *source.port != 0) url += ":" + std::to_string(*source.port);
    if (source.resource) {
        if (!source.resource->starts_with('/')) url += '/';
        url += source.resource->substr(0, 1023);
    }
    return url.substr(0, 1023);
}

}  // namespace pkgd
