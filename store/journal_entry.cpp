// Journal entries <-> their JSON text (the pure core of the operation journal).
#include <algorithm>
#include <iterator>
#include <vector>

#include "pkgd/journal.hpp"
#include "ubus/json.hpp"

namespace pkgd {
namespace {

using ubus::Type;

constexpr ubus::Policy kEntryPolicy[] = {
    {"seq", Type::Int32},        {"type", Type::Int32},    {"requestid", Type::Int32},
    {"operateid", Type::Int32},  {"operatemid", Type::Int32}, {"operateduid", Type::Int32},
    {"time", Type::String},      {"started", Type::Bool},  {"opkg", Type::Bool},
    {"pkg", Type::Table},        {"result", Type::Table},  {"sent", Type::Bool},
    {"worker", Type::Int32},     {"euinstances", Type::Array},
};
enum EntryField {
    ENTRY_SEQ,
    ENTRY_TYPE,
    ENTRY_REQUEST_ID,
    ENTRY_OPERATE_ID,
    ENTRY_OPERATE_MID,
    ENTRY_OPERATE_DUID,
    ENTRY_TIME,
    ENTRY_STARTED,
    ENTRY_OPKG,
    ENTRY_PKG,
    ENTRY_RESULT,
    ENTRY_SENT,
    ENTRY_WORKER,
    ENTRY_EU_INSTANCES,
    ENTRY_FIELD_COUNT,
};
static_assert(ENTRY_FIELD_COUNT == std::size(kEntryPolicy));

// The package fields a worker reads from its operation; the rest comes from the record files.
constexpr ubus::Policy kPkgPolicy[] = {
    {"id", Type::String},      {"object", Type::String}, {"url", Type::String},
    {"username", Type::String}, {"password", Type::String}, {"version", Type::String},
    {"uuid", Type::String},    {"du", Type::Int32},      {"duname", Type::String},
    {"disableautostart", Type::Int32},
};
enum PkgField {
    PKG_ID,
    PKG_OBJECT,
    PKG_URL,
    PKG_USERNAME,
    PKG_PASSWORD,
    PKG_VERSION,
    PKG_UUID,
    PKG_DU,
    PKG_DU_NAME,
    PKG_DISABLE_AUTOSTART,
    PKG_FIELD_COUNT,
};
static_assert(PKG_FIELD_COUNT == std::size(kPkgPolicy));

std::int32_t int_or_zero(ubus::Attr a) {
    return a ? a.as_i32() : 0;
}

std::string_view text_or_empty(ubus::Attr a) {
    return a ? a.as_string() : std::string_view{};
}

void add_pkg_table(ubus::BlobBuf& msg, const pkg_info& pkg) {
    const auto table = msg.open_table("pkg");
    msg.add_string("id", pkg.id);
    msg.add_string("object", pkg.object_name);
    msg.add_string("url", pkg.url);
    msg.add_string("username", pkg.username);
    msg.add_string("password", pkg.password);
    msg.add_string("version", pkg.version);
    msg.add_string("uuid", pkg.du.uuid);
    msg.add_i32("du", pkg.du.index);
    if (pkg.du.name) msg.add_string("duname", *pkg.du.name);
    msg.add_i32("disableautostart", pkg.disable_autostart);
    msg.close(table);
}

std::shared_ptr<pkg_info> pkg_from(ubus::Attr table) {
    const auto tb = ubus::parse(kPkgPolicy, table.data());
    if (text_or_empty(tb[PKG_ID]).empty()) return nullptr;
    auto pkg = std::make_shared<pkg_info>();
    pkg->id = tb[PKG_ID].as_string();
    pkg->object_name = text_or_empty(tb[PKG_OBJECT]);
    pkg->url = text_or_empty(tb[PKG_URL]);
    pkg->username = text_or_empty(tb[PKG_USERNAME]);
    pkg->password = text_or_empty(tb[PKG_PASSWORD]);
    pkg->version = text_or_empty(tb[PKG_VERSION]);
    pkg->du.uuid = text_or_empty(tb[PKG_UUID]);
    pkg->du.index = int_or_zero(tb[PKG_DU]);
    if (tb[PKG_DU_NAME]) pkg->du.name.emplace(tb[PKG_DU_NAME].as_string());
    pkg->disable_autostart = int_or_zero(tb[PKG_DISABLE_AUTOSTART]);
    return pkg;
}

}  // namespace

journal_entry journal_entry_of(const operation_info& op) {
    journal_entry entry;
    entry.op = op;
    entry.op.proc.reset();
    return entry;
}

std::string journal_entry_text(const journal_entry& entry) {
    const operation_info& op = entry.op;
    ubus::BlobBuf msg;
    msg.add_i32("seq", op.seq);
    msg.add_i32("type", op.type);
    msg.add_i32("requestid", op.request_id);
    msg.add_i32("operateid", op.operate_id);
    msg.add_i32("operatemid", op.operate_mid);
    msg.add_i32("operateduid", op.operate_duid);
    msg.add_string("time", op.time);
    msg.add_bool("started", entry.started);
    msg.add_bool("opkg", op.opkg_reached);
    if (op.pkg) add_pkg_table(msg, *op.pkg);
    if (!entry.result.empty()) {
        const auto table = msg.open_table("result");
        ubus::json_load(msg, entry.result);
        msg.close(table);
    }
    msg.add_bool("sent", entry.sent);
    if (entry.worker > 0) msg.add_i32("worker", entry.worker);
    std::vector<std::int32_t> units = op.eu_instances;
    if (op.pkg)
        for (const eu_info& eu : op.pkg->eu)
            if (eu.index > 0 && std::find(units.begin(), units.end(), eu.index) == units.end()) units.push_back(eu.index);
    if (!units.empty()) {
        const auto array = msg.open_array("euinstances");
        for (const std::int32_t index : units) msg.add_i32("", index);
        msg.close(array);
    }
    return ubus::json_format(msg);
}

std::optional<journal_entry> parse_journal_entry(std::string_view text) {
    ubus::BlobBuf msg;
    if (!ubus::json_load(msg, text)) return std::nullopt;
    const auto tb = ubus::parse(kEntryPolicy, msg.members());
    const std::int32_t type = int_or_zero(tb[ENTRY_TYPE]);
    if (int_or_zero(tb[ENTRY_SEQ]) <= 0 || !tb[ENTRY_TYPE] || type < OPERATION_INSTALL || type > OPERATION_REMOVE ||
        !tb[ENTRY_PKG])
        return std::nullopt;
    journal_entry entry;
    operation_info& op = entry.op;
    op.pkg = pkg_from(tb[ENTRY_PKG]);
    if (!op.pkg) return std::nullopt;
    op.seq = tb[ENTRY_SEQ].as_i32();
    op.type = type;
    op.request_id = int_or_zero(tb[ENTRY_REQUEST_ID]);
    op.operate_id = int_or_zero(tb[ENTRY_OPERATE_ID]);
    op.operate_mid = int_or_zero(tb[ENTRY_OPERATE_MID]);
    op.operate_duid = int_or_zero(tb[ENTRY_OPERATE_DUID]);
    op.time = text_or_empty(tb[ENTRY_TIME]);
    op.opkg_reached = tb[ENTRY_OPKG] && tb[ENTRY_OPKG].as_bool();
    entry.started = tb[ENTRY_STARTED] && tb[ENTRY_STARTED].as_bool();
    entry.sent = tb[ENTRY_SENT] && tb[ENTRY_SENT].as_bool();
    entry.worker = int_or_zero(tb[ENTRY_WORKER]);
    if (tb[ENTRY_EU_INSTANCES])
        for (ubus::Attr element : tb[ENTRY_EU_INSTANCES].children()) {
            if (!element.valid()) break;
            if (element.type() == Type::Int32 && element.as_i32() > 0) op.eu_instances.push_back(element.as_i32());
        }
    if (tb[ENTRY_RESULT]) ubus::json_format_list(entry.result, tb[ENTRY_RESULT], ubus::JsonFormat{});
    return entry;
}

}  // namespace pkgd
