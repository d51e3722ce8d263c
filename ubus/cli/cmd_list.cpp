// list [<path>]: the objects on the bus, and with -v their methods and argument types.
#include <cstdio>
#include <string>

#include "cli.hpp"
#include "ubus/json.hpp"

namespace ubus_cli {

int cmd_list(Context& cx, Args args) {
    if (args.size() > 1) return kUsage;
    const bool verbose = cx.opt.verbose && !cx.opt.simple;
    ubus::JsonFormat names;
    names.element_hook = ubus::json_type_name_hook;

    std::string text;
    auto print = [&](const ubus::ObjectInfo& obj) {
        text.clear();
        if (!verbose) {
            text.append(obj.path);
            text += '\n';
        } else {
            char id[16];
            std::snprintf(id, sizeof id, "%08x", obj.id);
            text += '\'';
            text.append(obj.path);
            text += "' @";
            text += id;
            text += '\n';
            for (ubus::Attr method : ubus::AttrList(obj.signature)) {
                text += '\t';
                ubus::json_format_element(text, method, names);
                text += '\n';
            }
        }
        std::fwrite(text.data(), 1, text.size(), stdout);
    };
    return args.empty() ? cx.bus.lookup_all(print) : cx.bus.lookup(args[0], print);
}

}  // namespace ubus_cli
