#include "datamodel_store.hpp"

namespace sandbox::sim {

std::int32_t DataModelStore::add(std::string_view path) {
    auto object = objects_.find(path);
    if (object == objects_.end()) object = objects_.emplace(std::string(path), Object{}).first;
    const std::int32_t instance = ++object->second.last;
    object->second.instances.insert(instance);
    return instance;
}

bool DataModelStore::remove(std::string_view path, std::int32_t instance) {
    auto object = objects_.find(path);
    return object != objects_.end() && object->second.instances.erase(instance) != 0;
}

void DataModelStore::set(ubus::Attr parameter) {
    const ubus::Bytes raw = parameter.raw();
    auto& kept = params_[std::string(parameter.name())];
    kept.assign(raw.begin(), raw.end());
}

void DataModelStore::clear() {
    objects_.clear();
    params_.clear();
    commits_ = 0;
}

void DataModelStore::add_to(ubus::BlobBuf& buf) const {
    const auto datamodel = buf.open_table("datamodel");
    const auto instances = buf.open_table("instances");
    for (const auto& [path, object] : objects_) {
        const auto numbers = buf.open_array(path);
        for (std::int32_t instance : object.instances) buf.add_i32("", instance);
        buf.close(numbers);
    }
    buf.close(instances);
    const auto params = buf.open_table("params");
    for (const auto& [name, attribute] : params_) buf.add_attr(ubus::Attr::at(attribute));
    buf.close(params);
    buf.add_i32("commits", commits_);
    buf.close(datamodel);
}

}  // namespace sandbox::sim
