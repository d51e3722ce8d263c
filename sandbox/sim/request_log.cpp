#include "request_log.hpp"

namespace sandbox::sim {

void RequestLog::record(Peer peer, std::string_view object, std::string_view method, ubus::Bytes data) {
    entries_.push_back({peer, std::string(object), std::string(method), {data.begin(), data.end()}});
}

void RequestLog::add_to(ubus::BlobBuf& buf) const {
    const auto requests = buf.open_array("requests");
    for (const Entry& entry : entries_) {
        const auto request = buf.open_table("");
        buf.add_string("peer", peer_name(entry.peer));
        buf.add_string("object", entry.object);
        buf.add_string("method", entry.method);
        const auto data = buf.open_table("data");
        buf.add_members(entry.data);
        buf.close(data);
        buf.close(request);
    }
    buf.close(requests);
}

}  // namespace sandbox::sim
