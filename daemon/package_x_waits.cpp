#include "daemon/package_x_waits.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>

#include "daemon/daemon_context.hpp"
#include "daemon/reply_envelope.hpp"
#include "daemon/source_args.hpp"
#include "pkgd/engine.hpp"
#include "pkgd/lcm_events.hpp"
#include "pkgd/run_state.hpp"
#include "ubus/loop.hpp"

namespace pkgd {

// One IsLatestVersion call waiting for its query child. Whichever comes first, the answer on the
// pipe or the timer, ends it; unhooking happens here so that neither can fire after the other.
struct latest_version_wait {
    latest_version_wait() = default;
    latest_version_wait(const latest_version_wait&) = delete;
    latest_version_wait& operator=(const latest_version_wait&) = delete;
    ~latest_version_wait() {
        // The daemon's loop may have ended before its context: its watches went with it.
        if (loop == nullptr || loop != ubus::Loop::current()) return;
        if (watch != 0) loop->remove_fd(watch);
        if (timer != 0) loop->cancel_timer(timer);
    }

    ubus::Loop* loop = nullptr;
    ubus::UniqueFd answer;  // the pipe's non-blocking read end
    ubus::Loop::Id watch = 0;
    ubus::Loop::Id timer = 0;
    ubus::DeferredReply reply;
};

package_waits::package_waits() = default;
package_waits::~package_waits() = default;

void package_waits::clear() {
    pending.clear();
}

namespace {

using ubus::Type;

constexpr ubus::Policy source_policy[] = {
    {"Source", Type::Table},
};

// The answer a query child writes: its result in decimal, zero-padded to a fixed size so that the
// daemon reads it whole in one go.
constexpr std::size_t kAnswerSize = 8;

// hlapi_send for a reply given after the handler returned.
void send_deferred(ubus::DeferredReply& reply, std::int32_t result, ubus::Attr body = {}) {
    ubus::BlobBuf envelope;
    hlapi_reply(result, body, envelope);
    reply.complete(reply.reply(envelope) == ubus::kOk ? ubus::kOk : ubus::kUnknownError);
}

void send_latest(ubus::DeferredReply& reply, bool latest) {
    ubus::BlobBuf body;
    body.add_bool("Result", latest);
    send_deferred(reply, HLAPI_OK, body.root());
}

// ---- Start and Stop

int package_x_action(daemon_context& d, ubus::Request& req, std::string_view action, const lcm_event& done) {
    const registered_pkg* entry = d.s_pkgs.find_object(req.path());
    if (entry == nullptr || entry->pkg->status != PKG_STATUS_INSTALLED)
        return hlapi_send(req, HLAPI_OPERATION_ILLEGAL);
    // The broker answers a lookup at once; only the service manager may take its time.
    std::uint32_t manager = 0;
    if (d.ctx.lookup_id(service_manager_object(d.ee.name.view()), manager) != ubus::kOk)
        return hlapi_send(req, HLAPI_OPERATION_ILLEGAL);

    ubus::BlobBuf msg;
    operate_message(msg, *entry->pkg, action);
    // The callback must be copyable; the reply is not.
    auto reply = std::make_shared<ubus::DeferredReply>(req.defer());
    const int sent = d.ctx.invoke_async(
        manager, "operate", msg.members(),
        [&d, reply, package = entry->pkg->object_name, done](int status, auto) {
            if (status != ubus::kOk) return send_deferred(*reply, HLAPI_OPERATION_ILLEGAL);
            ubus::BlobBuf event;
            lcm_event_message(event, done.code, done.name, kLcmPackageIdKey, package);
            d.ctx.send_event(kLcmEventType, event.members());
            send_deferred(*reply, HLAPI_OK);
        },
        kServiceManagerTimeoutMs);
    if (sent != ubus::kOk) send_deferred(*reply, HLAPI_OPERATION_ILLEGAL);
    return ubus::kOk;
}

// ---- IsLatestVersion

// What the query looks at when the call names a Source: the package's name and version, the
// Source's URL, and its credentials where given, else the package's.
pkg_info query_record(const pkg_info& pkg, const source_args& source) {
    pkg_info record;
    record.du.name = pkg.du.name;
    record.du.version = pkg.du.version;
    record.url = source_url(source);
    record.username = source.username.value_or("").empty() ? pkg.username.view() : *source.username;
    record.password = source.password.value_or("").empty() ? pkg.password.view() : *source.password;
    return record;
}

int run_gateway_query(const pkg_info& pkg) {
    engine_context ctx = engine_context::gateway();
    return package_opkg_islatestversion(ctx, pkg);
}

// Ends the wait `key` with "Result" `latest`.
void end_wait(package_waits& waits, std::uint64_t key, bool latest) {
    const auto it = waits.pending.find(key);
    if (it == waits.pending.end()) return;
    send_latest(it->second->reply, latest);
    waits.pending.erase(it);
}

// Reads the child's answer once the pipe is readable: "Result" false for a newer version. A pipe
// closed without an answer (the child failed) will never give one, so it counts as none at once.
void read_answer(package_waits& waits, std::uint64_t key) {
    const auto it = waits.pending.find(key);
    if (it == waits.pending.end()) return;
    std::array<char, kAnswerSize + 1> text{};
    const ssize_t got = ::read(it->second->answer.get(), text.data(), kAnswerSize);
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) return;
    end_wait(waits, key, got <= 0 || std::atoi(text.data()) == 0);
}

// The child's side: run the query and write its answer.
int answer_query(const latest_version_query& query, const pkg_info& pkg, int answer_fd) {
    std::array<char, kAnswerSize> text{};
    std::snprintf(text.data(), text.size(), "%d", query(pkg));
    const bool written = ::write(answer_fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    ::close(answer_fd);
    return written ? 0 : 1;
}

// Forks the query on `pkg` and hooks its answer and the time limit to the loop. False when that
// cannot be done (no loop, no pipe, no fork): the caller answers as if no newer version existed.
bool start_query(daemon_context& d, const pkg_info& pkg, ubus::Request& req) {
    ubus::Loop* loop = ubus::Loop::current();
    int ends[2];
    if (loop == nullptr || ::pipe2(ends, O_CLOEXEC) != 0) return false;
    ubus::UniqueFd read_end(ends[0]), write_end(ends[1]);
    if (::fcntl(read_end.get(), F_SETFL, ::fcntl(read_end.get(), F_GETFL) | O_NONBLOCK) != 0) return false;

    const latest_version_query& query =
        d.waits.query ? d.waits.query : latest_version_query(run_gateway_query);
    const pid_t child = loop->fork_child([&] {
        read_end.reset();
        d.ctx.close();  // the daemon's connection is the daemon's alone (see the workers)
        return answer_query(query, pkg, write_end.release());
    });
    if (child < 0) return false;
    write_end.reset();  // so that a child gone without answering reads as end of file

    // The loop reaps the child, which nobody needs to watch: its answer, if any, is on the pipe.
    auto wait = std::make_unique<latest_version_wait>();
    package_waits& waits = d.waits;
    const std::uint64_t key = ++waits.next_key;
    wait->loop = loop;
    wait->answer = std::move(read_end);
    wait->watch = loop->add_fd(wait->answer.get(), ubus::Loop::kRead,
                               [&waits, key](std::uint32_t) { read_answer(waits, key); });
    if (wait->watch == 0) return false;
    wait->timer = loop->add_timer(kLatestVersionWait, [&waits, key] { end_wait(waits, key, true); });
    wait->reply = req.defer();
    waits.pending.emplace(key, std::move(wait));
    return true;
}

}  // namespace

int package_x_start(daemon_context& d, ubus::Request& req) {
    return package_x_action(d, req, "start", kLcmPackageEnabled);
}

int package_x_stop(daemon_context& d, ubus::Request& req) {
    return package_x_action(d, req, "stop", kLcmPackageDisabled);
}

int package_x_islatestversion(daemon_context& d, ubus::Request& req) {
    const registered_pkg* entry = d.s_pkgs.find_object(req.path());
    if (entry == nullptr || entry->pkg->status != PKG_STATUS_INSTALLED)
        return hlapi_send(req, HLAPI_OPERATION_ERROR);

    const ubus::Attr given = ubus::parse(source_policy, req.args())[0];
    const source_args source = read_source(given);
    if (given && (!source.protocol || !source.address))
        return hlapi_send(req, HLAPI_ARGUMENT_REQUIRED_MISSING);

    const pkg_info& queried = *entry->pkg;
    const bool waiting =
        given ? start_query(d, query_record(queried, source), req) : start_query(d, queried, req);
    if (waiting) return ubus::kOk;
    ubus::BlobBuf body;
    body.add_bool("Result", true);
    return hlapi_send(req, HLAPI_OK, body.root());
}

}  // namespace pkgd
