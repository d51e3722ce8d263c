// Object types: method tables and the signature that describes them to the broker.
#include "ubus/client.hpp"

namespace ubus {

ObjectType::ObjectType(std::span<const MethodDef> methods) {
    methods_.reserve(methods.size());
    BlobBuf sig;
    for (const MethodDef& m : methods) {
        methods_.push_back({std::string(m.name), m.handler});
        const std::size_t table = sig.open_table(m.name);
        for (const Policy& arg : m.args) sig.add_i32(arg.name, static_cast<std::int32_t>(arg.type));
        sig.close(table);
    }
    const Bytes members = sig.members();
    signature_.assign(members.begin(), members.end());
}

std::shared_ptr<const ObjectType> ObjectType::make(std::initializer_list<MethodDef> methods) {
    return std::make_shared<const ObjectType>(std::span<const MethodDef>(methods.begin(), methods.size()));
}

std::shared_ptr<const ObjectType> ObjectType::catch_all(MethodHandler handler) {
    std::shared_ptr<ObjectType> type(new ObjectType());
    type->catch_all_ = std::move(handler);
    return type;
}

const MethodHandler* ObjectType::find(std::string_view method) const {
    if (catch_all_) return &catch_all_;
    for (const Method& m : methods_)
        if (m.name == method) return &m.handler;
    return nullptr;
}

}  // namespace ubus
