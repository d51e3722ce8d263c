#include "environments.hpp"

#include <array>

namespace sandbox::sim {
namespace {

using ubus::Attr;
using ubus::Type;

using TextField = std::optional<std::string> Environment::*;
struct TextMember {
    std::string_view name;
    TextField field;
};
constexpr std::array<TextMember, 5> kTextMembers{{{"id", &Environment::id},
                                                  {"name", &Environment::name},
                                                  {"version", &Environment::version},
                                                  {"vendor", &Environment::vendor},
                                                  {"type", &Environment::type}}};
constexpr std::string_view kEnabled = "enabled";

bool parse_environment(Attr element, Environment& env, std::string& error) {
    if (element.type() != Type::Table) {
        error = "an environment is not a table";
        return false;
    }
    for (Attr member : element.children()) {
        const std::string_view name = member.name();
        if (name == kEnabled) {
            if (member.type() != Type::Bool) {
                error = "\"enabled\" is not a boolean";
                return false;
            }
            env.enabled = member.as_bool();
            continue;
        }
        bool known = false;
        for (const TextMember& text : kTextMembers) {
            if (name != text.name) continue;
            if (member.type() != Type::String) {
                error = "\"" + std::string(name) + "\" is not a string";
                return false;
            }
            env.*text.field = std::string(member.as_string());
            known = true;
        }
        if (!known) {
            error = "unknown environment field \"" + std::string(name) + "\"";
            return false;
        }
    }
    return true;
}

}  // namespace

std::vector<Environment> default_environments() {
    Environment native;
    native.id = "1";
    native.name = "System";
    native.enabled = true;
    native.version = "1.0";
    native.vendor = "Sandbox";
    native.type = "Native";
    return {native};
}

std::optional<std::vector<Environment>> parse_configuration(ubus::Bytes members, std::string& error) {
    std::vector<Environment> environments;
    bool seen = false;
    for (Attr member : ubus::AttrList(members)) {
        if (member.name() != "environments" || member.type() != Type::Array) {
            error = "expected only the array \"environments\", found \"" + std::string(member.name()) + "\"";
            return std::nullopt;
        }
        seen = true;
        for (Attr element : member.children()) {
            if (!parse_environment(element, environments.emplace_back(), error)) return std::nullopt;
        }
    }
    if (!seen) {
        error = "no \"environments\" array";
        return std::nullopt;
    }
    return environments;
}

void add_catalog_fields(ubus::BlobBuf& buf, const Environment& env) {
    if (env.id) buf.add_string("id", *env.id);
    if (env.name) buf.add_string("name", *env.name);
    if (env.enabled) buf.add_bool("enabled", *env.enabled);
    if (env.version) buf.add_string("version", *env.version);
    if (env.vendor) buf.add_string("vendor", *env.vendor);
    if (env.type) buf.add_string("type", *env.type);
}

}  // namespace sandbox::sim
