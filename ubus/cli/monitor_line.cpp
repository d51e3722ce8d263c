#include "monitor_line.hpp"

#include <array>
#include <cstdio>

#include "ubus/json.hpp"
#include "ubus/wire.hpp"

namespace ubus_cli {

namespace {

// Attribute numbers of a MONITOR message body (their own numbering, not the message ones).
enum : std::uint32_t { kClient = 0, kPeer = 1, kSend = 2, kSeq = 3, kType = 4, kData = 5 };

constexpr std::array<std::string_view, 12> kTypeNames = {
    "hello",      "status",        "data",      "ping",        "lookup", "invoke",
    "add_object", "remove_object", "subscribe", "unsubscribe", "notify", "monitor",
};

// How each body attribute is shown: its name and its JSON kind.
enum class Show { Skip, Int, String, Table, Bool };
struct Field {
    std::string_view name;
    Show show;
};
constexpr Field kFields[ubus::kAttrCount] = {
    {"", Show::Skip},           {"status", Show::Int},    {"objpath", Show::String},
    {"objid", Show::Int},       {"method", Show::String}, {"objtype", Show::Int},
    {"signature", Show::Table}, {"data", Show::Table},    {"target", Show::Skip},
    {"active", Show::Bool},     {"no_reply", Show::Bool}, {"subscribers", Show::Skip},
    {"user", Show::String},     {"group", Show::String},
};

}  // namespace

std::optional<MonitoredMessage> read_monitored(ubus::Bytes attributes) {
    MonitoredMessage m;
    bool have_client = false, have_type = false;
    // Like every message body: the last well-formed occurrence of an attribute counts.
    for (ubus::Attr a : ubus::AttrList(attributes)) {
        switch (a.id()) {
            case kClient:
                if (a.is_u32()) m.client = a.u32(), have_client = true;
                break;
            case kPeer:
                if (a.is_u32()) m.peer = a.u32();
                break;
            case kSend:
                if (a.is_u8()) m.sent = a.u8() != 0;
                break;
            case kSeq:
                if (a.is_u32()) m.seq = a.u32();
                break;
            case kType:
                if (a.is_u32()) m.type = a.u32(), have_type = true;
                break;
            case kData:
                m.body = a.payload();
                break;
            default:
                break;
        }
    }
    if (!have_client || !have_type) return std::nullopt;
    return m;
}

std::string monitor_line(const MonitoredMessage& m) {
    const ubus::MsgAttrs attrs(m.body);
    ubus::BlobBuf fields;
    for (std::uint32_t id = 0; id < ubus::kAttrCount; ++id) {
        const ubus::Attr a = attrs[id];
        if (!a) continue;
        const Field& f = kFields[id];
        switch (f.show) {
            case Show::Skip:
                break;
            case Show::Int:
                // Ids show as the signed numbers the wire's int32 holds.
                fields.add_i32(f.name, static_cast<std::int32_t>(a.u32()));
                break;
            case Show::String:
                fields.add_string(f.name, a.str());
                break;
            case Show::Bool:
                fields.add_bool(f.name, a.u8() != 0);
                break;
            case Show::Table: {
                const std::size_t table = fields.open_table(f.name);
                fields.add_members(a.payload());
                fields.close(table);
                break;
            }
        }
    }

    char head[64];
    const std::string type_name =
        m.type < kTypeNames.size() ? std::string(kTypeNames[m.type]) : std::to_string(m.type);
    std::snprintf(head, sizeof head, "%s %08x #%08x %14s: ", m.sent ? "->" : "<-", m.client, m.peer,
                  type_name.c_str());
    std::string line = head;
    ubus::json_format_list(line, fields.members(), false);
    return line;
}

std::optional<std::uint32_t> message_type_number(std::string_view name) {
    for (std::uint32_t i = 0; i < kTypeNames.size(); ++i)
        if (kTypeNames[i] == name) return i;
    return std::nullopt;
}

}  // namespace ubus_cli
