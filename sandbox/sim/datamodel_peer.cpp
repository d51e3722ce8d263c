// The CWMP agent's data model: hands out instance numbers, deletes instances, keeps parameters.
#include <charconv>

#include "peers.hpp"

namespace sandbox::sim {
namespace {

using ubus::Attr;
using ubus::Policy;
using ubus::Type;

// The object paths are the names of the members that follow "pid", so only "pid" is advertised.
constexpr Policy kAddArgs[] = {{"pid", Type::Int32}};
constexpr Policy kDelArgs[] = {{"pid", Type::Int32}};
constexpr Policy kSetArgs[] = {{"object", Type::Table}};

// An instance number of a "del" list: its decimal text, or a plain integer.
std::optional<std::int32_t> instance_number(Attr element) {
    if (element.type() == Type::Int32) return element.as_i32();
    if (element.type() != Type::String) return std::nullopt;
    const std::string_view text = element.as_string();
    std::int32_t number = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (text.empty() || ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return number;
}

// {"pid", "<path>": {}} -> {"<path>": {"<n>": true}}, for every path the request names.
void add(DataModelStore& store, ubus::Bytes args, ubus::DeferredReply reply) {
    ubus::BlobBuf answer;
    bool any = false;
    for (Attr member : ubus::AttrList(args)) {
        if (member.type() != Type::Table) continue;
        const auto object = answer.open_table(member.name());
        answer.add_bool(std::to_string(store.add(member.name())), true);
        answer.close(object);
        any = true;
    }
    if (!any) {
        reply.complete(ubus::kInvalidArgument);
        return;
    }
    reply.reply(answer);
    reply.complete(ubus::kOk);
}

// {"pid", "<path>": ["4", "6"]}: a malformed number drops nothing; an unknown instance is reported
// once the others are gone.
void del(DataModelStore& store, ubus::Bytes args, ubus::DeferredReply reply) {
    std::vector<std::pair<std::string_view, std::int32_t>> doomed;
    for (Attr member : ubus::AttrList(args)) {
        if (member.type() != Type::Array) continue;
        for (Attr element : member.children()) {
            const auto number = instance_number(element);
            if (!number) {
                reply.complete(ubus::kInvalidArgument);
                return;
            }
            doomed.emplace_back(member.name(), *number);
        }
    }
    if (doomed.empty()) {
        reply.complete(ubus::kInvalidArgument);
        return;
    }
    bool all_found = true;
    for (const auto& [path, number] : doomed) all_found = store.remove(path, number) && all_found;
    reply.complete(all_found ? ubus::kOk : ubus::kNotFound);
}

// {"object": {"<parameter path>": value, ...}}
void set(DataModelStore& store, ubus::Bytes args, ubus::DeferredReply reply) {
    const Attr object = ubus::parse(kSetArgs, args)[0];
    if (!object) {
        reply.complete(ubus::kInvalidArgument);
        return;
    }
    for (Attr parameter : object.children()) {
        if (parameter.valid(true)) store.set(parameter);
    }
    reply.complete(ubus::kOk);
}

}  // namespace

std::vector<PeerMethod> datamodel_methods(DataModelStore& store) {
    return {
        {"add", kAddArgs,
         [&store](ubus::Bytes args, ubus::DeferredReply reply) { add(store, args, std::move(reply)); }},
        {"del", kDelArgs,
         [&store](ubus::Bytes args, ubus::DeferredReply reply) { del(store, args, std::move(reply)); }},
        {"set", kSetArgs,
         [&store](ubus::Bytes args, ubus::DeferredReply reply) { set(store, args, std::move(reply)); }},
        {"commit",
         {},
         [&store](ubus::Bytes, ubus::DeferredReply reply) {
             store.commit();
             reply.complete(ubus::kOk);
         }},
    };
}

}  // namespace sandbox::sim
