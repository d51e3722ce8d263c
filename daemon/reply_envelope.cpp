#include "daemon/reply_envelope.hpp"

#include "ubus/wire.hpp"

namespace pkgd {

void hlapi_reply(std::int32_t result, ubus::Attr body, ubus::BlobBuf& reply) {
    reply.reset();
    if (result < 0 || static_cast<std::size_t>(result) >= hlapi_return_name.size()) return;

    const auto header = reply.open_table("Header");
    reply.add_string("Name", hlapi_return_name[static_cast<std::size_t>(result)]);
    reply.close(header);

    if (body) {
        const auto wrapped = reply.open_table("Body");
        reply.add_members(body.payload());
        reply.close(wrapped);
    }
}

int hlapi_send(ubus::Request& req, std::int32_t result, ubus::Attr body) {
    ubus::BlobBuf reply;
    hlapi_reply(result, body, reply);
    // A reply the bus cannot carry (beyond its message size) must not pass for an empty success.
    return req.reply(reply) == ubus::kOk ? ubus::kOk : ubus::kUnknownError;
}

}  // namespace pkgd
