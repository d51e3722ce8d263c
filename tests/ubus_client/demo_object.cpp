#include "demo_object.hpp"

#include <unistd.h>

#include "fake_broker.hpp"

namespace fake {

namespace {
using ubus::Type;
constexpr ubus::Policy kHello[] = {{"id", Type::Int32}, {"msg", Type::String}};
constexpr ubus::Policy kTypes[] = {{"flag", Type::Bool},   {"count", Type::Int32},  {"big", Type::Int64},
                                   {"small", Type::Int16}, {"ratio", Type::Double}, {"name", Type::String},
                                   {"list", Type::Array},  {"opts", Type::Table},   {"any", Type::Unspec}};
constexpr ubus::Policy kCode[] = {{"code", Type::Int32}};

std::string read_all(int fd) {
    std::string text;
    char buf[64];
    for (ssize_t n; (n = ::read(fd, buf, sizeof buf)) > 0;) text.append(buf, static_cast<std::size_t>(n));
    return text;
}
}  // namespace

Demo::Demo(ubus::Connection& b) : bus(b) {
    auto hello = [this](ubus::Request& req) {
        callers.push_back(std::string(req.user()) + "/" + std::string(req.group()));
        const auto args = ubus::parse(kHello, req.args());
        ubus::BlobBuf out;
        out.add_string("message", args[1] ? args[1].as_string() : "(none)");
        out.add_i32("id", args[0].as_i32());
        req.reply(out);
        return ubus::kOk;
    };
    auto defer_slow = [this](ubus::Request& req) {
        slow = req.defer();
        return ubus::kOk;
    };
    auto fd = [](ubus::Request& req) {
        const ubus::UniqueFd in = req.take_fd();
        ubus::BlobBuf out;
        out.add_string("got", in ? read_all(in.get()) : "");
        req.reply(out);
        int p[2];
        if (::pipe(p) == 0) {
            ubus::UniqueFd wr(p[1]);
            if (::write(wr.get(), "from-owner", 10) == 10) req.set_reply_fd(ubus::UniqueFd(p[0]));
        }
        return ubus::kOk;
    };
    auto notify = [this](ubus::Request& req) {
        const int code = ubus::parse(kCode, req.args())[0].as_i32();
        ubus::BlobBuf what;
        what.add_string("what", "changed");
        bus.notify(req.object(), "changed", what.members(), code < 0 ? -1 : code);
        return ubus::kOk;
    };
    auto ok = [](ubus::Request&) { return ubus::kOk; };
    type = ubus::ObjectType::make({{"hello", kHello, hello},
                                   {"types", kTypes, ok},
                                   {"noargs", {}, ok},
                                   {"fail", kCode, ok},
                                   {"slow", kCode, defer_slow},
                                   {"fd", {}, fd},
                                   {"notify", kCode, notify}});
}

}  // namespace fake
