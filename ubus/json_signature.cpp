// Method signatures as listings show them: argument types by name instead of type numbers.
#include "ubus/json.hpp"

namespace ubus {

bool json_type_name_hook(Attr element, std::string& out) {
    // Only the argument entries are INT32; method tables format as usual.
    if (element.type() != Type::Int32) return false;
    switch (element.as_i32()) {
        case static_cast<int>(Type::Array):
            out += "\"Array\"";
            break;
        case static_cast<int>(Type::Table):
            out += "\"Table\"";
            break;
        case static_cast<int>(Type::String):
            out += "\"String\"";
            break;
        case static_cast<int>(Type::Int32):
            out += "\"Integer\"";
            break;
        case static_cast<int>(Type::Bool):
            out += "\"Boolean\"";
            break;
        default:
            // 64-, 16-bit integers, doubles and "any" have no name in listings.
            out += "\"(unknown)\"";
            break;
    }
    return true;
}

}  // namespace ubus
