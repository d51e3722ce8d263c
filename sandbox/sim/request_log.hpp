// Every request the simulated peers received, in order, with its message as sent.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "fault.hpp"
#include "ubus/blob.hpp"

namespace sandbox::sim {

class RequestLog {
public:
    void record(Peer peer, std::string_view object, std::string_view method, ubus::Bytes data);
    void clear() { entries_.clear(); }

    // "requests": [{"peer", "object", "method", "data": {...}}, ...].
    void add_to(ubus::BlobBuf& buf) const;

private:
    struct Entry {
        Peer peer;
        std::string object;
        std::string method;
        std::vector<std::uint8_t> data;  // the members of the request's message
    };
    std::vector<Entry> entries_;
};

}  // namespace sandbox::sim
