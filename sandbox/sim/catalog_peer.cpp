// The LCM catalog: answers which execution environments exist and keeps the entries pkgd reports
// for its deployment units, execution units and environments.
#include "peers.hpp"

namespace sandbox::sim {
namespace {

using ubus::Policy;
using ubus::Type;

// The only catalog type whose entries are the configured environments.
constexpr std::string_view kEnvironmentType = "ExecutionEnvironment";

constexpr Policy kGetArgs[] = {{"Type", Type::String}, {"Filters", Type::Table}};
constexpr Policy kFilterArgs[] = {{"Name", Type::String}};
// The update message spells its index "index", the delete message "Index"; a message with the
// other spelling has no index at all.
constexpr Policy kUpdateArgs[] = {{"Type", Type::String}, {"index", Type::Int32}, {"extra", Type::Table}};
constexpr Policy kDeleteArgs[] = {{"Type", Type::String}, {"Index", Type::Int32}};

// One DATA reply per environment of the requested name (every environment without a filter).
void get(const std::vector<Environment>& environments, ubus::Bytes args, ubus::DeferredReply reply) {
    const auto tb = ubus::parse(kGetArgs, args);
    if (!tb[0]) {
        reply.complete(ubus::kInvalidArgument);
        return;
    }
    if (tb[0].as_string() == kEnvironmentType) {
        const ubus::Attr name = ubus::parse(kFilterArgs, tb[1].data())[0];
        for (const Environment& env : environments) {
            if (name && env.name != name.as_string()) continue;
            ubus::BlobBuf answer;
            add_catalog_fields(answer, env);
            reply.reply(answer);
        }
    }
    reply.complete(ubus::kOk);
}

void update(CatalogStore& store, ubus::Bytes args, ubus::DeferredReply reply) {
    const auto tb = ubus::parse(kUpdateArgs, args);
    if (!tb[0] || !tb[1]) {
        reply.complete(ubus::kInvalidArgument);
        return;
    }
    store.update(tb[0].as_string(), tb[1].as_i32(), tb[2].data());
    reply.complete(ubus::kOk);
}

void remove(CatalogStore& store, ubus::Bytes args, ubus::DeferredReply reply) {
    const auto tb = ubus::parse(kDeleteArgs, args);
    if (!tb[0] || !tb[1]) {
        reply.complete(ubus::kInvalidArgument);
        return;
    }
    reply.complete(store.remove(tb[0].as_string(), tb[1].as_i32()) ? ubus::kOk : ubus::kNotFound);
}

}  // namespace

std::vector<PeerMethod> catalog_methods(const std::vector<Environment>& environments, CatalogStore& store) {
    return {
        {"catalog.get", kGetArgs,
         [&environments](ubus::Bytes args, ubus::DeferredReply reply) {
             get(environments, args, std::move(reply));
         }},
        {"catalog.update", kUpdateArgs,
         [&store](ubus::Bytes args, ubus::DeferredReply reply) { update(store, args, std::move(reply)); }},
        {"catalog.delete", kDeleteArgs,
         [&store](ubus::Bytes args, ubus::DeferredReply reply) { remove(store, args, std::move(reply)); }},
    };
}

}  // namespace sandbox::sim
