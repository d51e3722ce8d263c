// The "demo" object the CLI transcripts were captured against, in a process of its own:
//
//   cli_demo_owner <socket>
//
// Prints "ready" once the object is registered, then serves until SIGTERM. The methods and their
// argument types are those of the captured owner, so listings match; the handlers answer as it
// did: "hello" greets, "types" echoes its arguments, "fail" returns the status given in "code",
// "slow" answers after "code" milliseconds, "fd" reads the descriptor it is sent and sends one
// back, "notify" notifies the subscribers ("code" < 0: without waiting for their answers).
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <string>

#include "ubus/client.hpp"
#include "ubus/loop.hpp"

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

std::string read_all(int fd) {
    std::string text;
    char buf[256];
    for (ssize_t n; (n = ::read(fd, buf, sizeof buf)) > 0;) text.append(buf, static_cast<std::size_t>(n));
    return text;
}

int hello(ubus::Request& req) {
    const auto args = ubus::parse(kHello, req.args());
    ubus::BlobBuf out;
    out.add_string("message", args[1] ? args[1].as_string() : "(none)");
    out.add_i32("id", args[0].as_i32());
    req.reply(out);
    return ubus::kOk;
}

int echo(ubus::Request& req) {
    req.reply(req.args());
    return ubus::kOk;
}

int pass_fd(ubus::Request& req) {
    const ubus::UniqueFd in = req.take_fd();
    ubus::BlobBuf out;
    out.add_string("got", in ? read_all(in.get()) : "");
    req.reply(out);
    int p[2];
    if (::pipe(p) == 0) {
        const ubus::UniqueFd wr(p[1]);
        ubus::UniqueFd rd(p[0]);
        if (::write(wr.get(), "from-owner", 10) == 10) req.set_reply_fd(std::move(rd));
    }
    return ubus::kOk;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s <socket>\n", argv[0]);
        return 2;
    }
    ubus::Loop loop;
    ubus::Connection bus;
    if (bus.connect(argv[1]) != ubus::kOk) {
        std::fprintf(stderr, "cannot connect to %s\n", argv[1]);
        return 1;
    }

    auto slow = [&loop](ubus::Request& req) {
        auto reply = std::make_shared<ubus::DeferredReply>(req.defer());
        loop.add_timer(std::chrono::milliseconds(code_of(req)), [reply] { reply->complete(ubus::kOk); });
        return ubus::kOk;
    };
    auto notify = [&bus](ubus::Request& req) {
        const int code = code_of(req);
        ubus::BlobBuf what;
        what.add_string("what", "changed");
        return bus.notify(req.object(), "changed", what.members(), code < 0 ? -1 : code);
    };
    auto fail = [](ubus::Request& req) { return code_of(req); };
    auto ok = [](ubus::Request&) { return ubus::kOk; };
    const auto type = ubus::ObjectType::make({{"hello", kHello, hello},
                                              {"types", kTypes, echo},
                                              {"noargs", {}, ok},
                                              {"fail", kCode, fail},
                                              {"slow", kCode, slow},
                                              {"fd", {}, pass_fd},
                                              {"notify", kCode, notify}});
    if (const auto added = bus.add_object("demo", type); added.status != ubus::kOk) {
        std::fprintf(stderr, "cannot register demo: %s\n", ubus::status_text(added.status).c_str());
        return 1;
    }
    bus.on_disconnect([&loop] { loop.stop(); });
    bus.attach(loop);
    std::puts("ready");
    std::fflush(stdout);
    loop.run();
    return 0;
}
