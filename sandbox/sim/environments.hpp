// The execution environments the simulated LCM catalog knows, and how they are configured.
//
// A configuration is a table {"environments": [{"id", "name", "enabled", "version", "vendor",
// "type"}, ...]} (strings, "enabled" a boolean), given as a JSON file at start-up or with the control
// object's "configure". Every field may be left out: the catalog then answers without it.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "ubus/blob.hpp"

namespace sandbox::sim {

struct Environment {
    std::optional<std::string> id;
    std::optional<std::string> name;
    std::optional<bool> enabled;
    std::optional<std::string> version;
    std::optional<std::string> vendor;
    std::optional<std::string> type;
};

// Without a configuration: the gateway's native environment,
// {"id": "1", "name": "System", "enabled": true, "version": "1.0", "vendor": "Sandbox", "type": "Native"}.
std::vector<Environment> default_environments();

// The environments of a configuration table's members. A member other than "environments", an
// element that is not a table, or a field that is unknown or of the wrong type is an error: `error`
// says which, and nothing is returned.
std::optional<std::vector<Environment>> parse_configuration(ubus::Bytes members, std::string& error);

// The members of the catalog's answer for one environment: only the fields it has.
void add_catalog_fields(ubus::BlobBuf& buf, const Environment& env);

}  // namespace sandbox::sim
