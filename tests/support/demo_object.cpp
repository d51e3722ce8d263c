#include "demo_object.hpp"

#include <chrono>

#include "pipe_text.hpp"
#include "ubus/loop.hpp"

namespace bus_test {

namespace {
using ubus::Type;
constexpr ubus::Policy kHello[] = {{"id", Type::Int32}, {"msg", Type::String}};
constexpr ubus::Policy kTypes[] = {{"flag", Type::Bool},   {"count", Type::Int32},  {"big", Type::Int64},
                                   {"small", Type::Int16}, {"ratio", Type::Double}, {"name", Type::String},
                                   {"list", Type::Array},  {"opts", Type::Table},   {"any", Type::Unspec}};
constexpr ubus::Policy kCode[] = {{"code", Type::Int32}};

int code_of(const ubus::Request& req) {
    return ubus::parse(kCode, req.args())[0].as_i32();
}
}  // namespace

Demo::Demo(ubus::Connection& bus, ubus::Loop* loop) {
    auto hello = [this](ubus::Request& req) {
        callers.push_back(std::string(req.user()) + "/" + std::string(req.group()));
        const auto args = ubus::parse(kHello, req.args());
        ubus::BlobBuf out;
        out.add_string("message", args[1] ? args[1].as_string() : "(none)");
        out.add_i32("id", args[0].as_i32());
        return req.reply(out);
    };
    auto echo = [](ubus::Request& req) { return req.reply(req.args()); };
    auto fail = [](ubus::Request& req) { return code_of(req); };
    auto slow_call = [this, loop](ubus::Request& req) {
        slow = std::make_shared<ubus::DeferredReply>(req.defer());
        if (loop)
            loop->add_timer(std::chrono::milliseconds(code_of(req)), [r = slow] { r->complete(ubus::kOk); });
        return ubus::kOk;
    };
    auto pass_fd = [](ubus::Request& req) {
        const ubus::UniqueFd in = req.take_fd();
        ubus::BlobBuf out;
        out.add_string("got", in ? read_all(in.get()) : "");
        req.set_reply_fd(pipe_holding("from-owner"));
        return req.reply(out);
    };
    auto notify = [&bus](ubus::Request& req) {
        const int code = code_of(req);
        ubus::BlobBuf what;
        what.add_string("what", "changed");
        return bus.notify(req.object(), "changed", what.members(), code < 0 ? -1 : code);
    };
    type = ubus::ObjectType::make({{"hello", kHello, hello},
                                   {"types", kTypes, echo},
                                   {"noargs", {}, [](ubus::Request&) { return ubus::kOk; }},
                                   {"fail", kCode, fail},
                                   {"slow", kCode, slow_call},
                                   {"fd", {}, pass_fd},
                                   {"notify", kCode, notify}});
}

}  // namespace bus_test
