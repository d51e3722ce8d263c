// The service manager of an execution environment: starts and stops packages' units by running
// their init scripts inside the gateway's root.
#include <sys/stat.h>

#include <memory>

#include "init_scripts.hpp"
#include "peers.hpp"

namespace sandbox::sim {
namespace {

using ubus::Attr;
using ubus::Policy;
using ubus::Type;

constexpr Policy kOperateArgs[] = {{"Operation", Type::String}, {"name", Type::Array}};

bool script_exists(const std::string& name) {
    struct stat st;
    const std::string path = std::string(kInitDir) + "/" + name;
    return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

// {"Operation": "start"|"stop", "name": [script names]}: 0 once every script succeeded. Script
// names are checked before anything runs: a name that could leave the init directory is an invalid
// argument, a script that is not there is not found.
void operate(ubus::Loop& loop, ubus::Bytes args, ubus::DeferredReply reply) {
    const auto tb = ubus::parse(kOperateArgs, args);
    const std::string_view action = tb[0].as_string();
    if (action != "start" && action != "stop") {
        reply.complete(ubus::kInvalidArgument);
        return;
    }
    std::vector<std::string> names;
    for (Attr element : tb[1].children()) {
        if (element.type() != Type::String || !valid_script_name(element.as_string())) {
            reply.complete(ubus::kInvalidArgument);
            return;
        }
        names.emplace_back(element.as_string());
    }
    for (const std::string& name : names) {
        if (!script_exists(name)) {
            reply.complete(ubus::kNotFound);
            return;
        }
    }
    auto pending = std::make_shared<ubus::DeferredReply>(std::move(reply));
    run_init_scripts(loop, std::move(names), std::string(action), [pending](bool all_succeeded) {
        pending->complete(all_succeeded ? ubus::kOk : ubus::kUnknownError);
    });
}

}  // namespace

std::string services_object(std::string_view environment_name) {
    return std::string(kCatalogObject) + "." + std::string(environment_name) + ".Services";
}

std::vector<PeerMethod> service_methods(ubus::Loop& loop) {
    return {
        {"operate", kOperateArgs,
         [&loop](ubus::Bytes args, ubus::DeferredReply reply) { operate(loop, args, std::move(reply)); }},
    };
}

}  // namespace sandbox::sim
