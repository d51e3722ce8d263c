#include "package_walk.hpp"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "bus_steps.hpp"

namespace demo {
namespace {

using namespace std::chrono_literals;

constexpr auto kOperationTimeout = 60s;
constexpr auto kStatusTimeout = 10s;
constexpr std::string_view kPasswordShown = "********";

// One JSON string, escaped as JSON wants it.
std::string quoted(std::string_view text) {
    std::string out = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\') out += '\\';
        if (static_cast<unsigned char>(c) < 0x20) {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(c));
            out += escape;
            continue;
        }
        out += c;
    }
    return out + "\"";
}

// The arguments of a call twice: as sent, and as printed (the password hidden).
struct Args {
    std::string sent;
    std::string shown;
};

// The URL's address, port and path, for the Source tables of the Packages and per-package objects.
struct FeedLocation {
    std::string address;
    int port = 0;
    std::string path;  // "" or "/dir"
};

FeedLocation locate(const std::string& url) {
    FeedLocation at;
    std::string_view rest = url;
    if (const std::size_t scheme = rest.find("://"); scheme != std::string_view::npos) rest.remove_prefix(scheme + 3);
    const std::size_t slash = rest.find('/');
    std::string_view host = rest.substr(0, slash);
    if (slash != std::string_view::npos) at.path = std::string(rest.substr(slash));
    while (!at.path.empty() && at.path.back() == '/') at.path.pop_back();
    if (const std::size_t colon = host.rfind(':'); colon != std::string_view::npos) {
        at.port = std::atoi(std::string(host.substr(colon + 1)).c_str());
        host = host.substr(0, colon);
    }
    at.address = host;
    return at;
}

class Walk {
public:
    Walk(const WalkSetup& setup, EventWatch& events, ubus::Connection& bus)
        : setup_(setup), events_(events), bus_(bus), operations_("SoftwareModules.Package." + setup.environment_id),
          packages_(setup.environment + ".Packages") {}

    void install_by_operation(int step);
    void list(int step);
    void start(int step);
    void is_latest(int step);
    void update(int step);
    void stop(int step);
    void uninstall(int step);
    void install_by_packages(int step);

private:
    Args operation_args(int request, std::string_view extra_sent, std::string_view extra_shown) const;
    Args source_args(const std::string& file) const;
    std::string package_object() const;
    void await(std::string_view performed, std::int32_t request_id);
    void show_status(std::string_view wanted);

    const WalkSetup& setup_;
    EventWatch& events_;
    ubus::Connection& bus_;
    const std::string operations_;  // the package-operation object
    const std::string packages_;    // the Packages object
    std::string package_;           // the walked package's object, once an event named it
    std::string uuid_;              // its deployment unit's UUID, once a result told it
};

Args Walk::operation_args(int request, std::string_view extra_sent, std::string_view extra_shown) const {
    const std::string ids = "\"RequestID\":" + std::to_string(request) + ",\"OperateID\":" + std::to_string(request) +
                            ",\"OperateMID\":" + std::to_string(request);
    return {"{" + ids + std::string(extra_sent) + "}", "{" + ids + std::string(extra_shown) + "}"};
}

Args Walk::source_args(const std::string& file) const {
    const FeedLocation at = locate(setup_.feed_http);
    const std::string where = "\"Protocol\":\"http\",\"Address\":" + quoted(at.address) +
                              ",\"Port\":" + std::to_string(at.port) + ",\"Resource\":" + quoted(at.path + "/" + file);
    const std::string user = "\"Username\":" + quoted(setup_.user) + ",\"Password\":";
    return {"{\"Source\":{" + where + ",\"Credentials\":{" + user + quoted(setup_.password) + "}}}",
            "{\"Source\":{" + where + ",\"Credentials\":{" + user + quoted(kPasswordShown) + "}}}"};
}

// The package the events named; until then the first identifier a fresh pkgd gives.
std::string Walk::package_object() const {
    return package_.empty() ? packages_ + ".1" : package_;
}

// Waits for the operation's result, printing the events on the way.
void Walk::await(std::string_view performed, std::int32_t request_id) {
    std::printf("  (waiting up to %llds for %.*s, events as they arrive)\n",
                static_cast<long long>(kOperationTimeout.count()), static_cast<int>(kResultEvent.size()),
                kResultEvent.data());
    std::fflush(stdout);
    const auto result = events_.wait_result(
        [&](const OperationResult& r) { return r.performed == performed && (request_id < 0 || r.request_id == request_id); },
        kOperationTimeout);
    if (!events_.last_package_object().empty()) package_ = events_.last_package_object();
    if (!result) return step_failed("no operation result within the time limit");
    if (!result->uuid.empty()) uuid_ = result->uuid;
    if (result->fault_code != 0) return step_failed("the operation ended with fault " + std::to_string(result->fault_code));
    std::printf("  operation %.*s done\n", static_cast<int>(performed.size()), performed.data());
}

// Shows the package's Get once its status reads `wanted` (or the time limit passed), for
// statuses that follow a step a moment later; the calls before it are not shown.
void Walk::show_status(std::string_view wanted) {
    const auto deadline = std::chrono::steady_clock::now() + kStatusTimeout;
    for (CallOutcome got = call_quietly(bus_, package_object(), "Get", "");
         got.ok() && got.text("Status") != wanted && std::chrono::steady_clock::now() < deadline;
         got = call_quietly(bus_, package_object(), "Get", ""))
        events_.pump(500ms);
    const CallOutcome got = call_and_show(bus_, package_object(), "Get", "", "");
    const std::string status = got.text("Status");
    if (status == wanted)
        std::printf("  Status is \"%s\"\n", status.c_str());
    else
        step_failed("the package's Status is \"" + status + "\", not \"" + std::string(wanted) + "\"");
}

void Walk::install_by_operation(int step) {
    step_heading(step, "Install version 1.0 from the feed through the package-operation object");
    events_.forget();
    const std::string url = quoted(setup_.feed_http + "/" + setup_.first_file);
    const std::string user = ",\"URL\":" + url + ",\"Username\":" + quoted(setup_.user) + ",\"Password\":";
    const Args args = operation_args(1, user + quoted(setup_.password), user + quoted(kPasswordShown));
    if (!call_and_show(bus_, operations_, "Install", args.sent, args.shown).ok())
        return step_failed("the install was not accepted");
    await("Install", 1);
}

void Walk::list(int step) {
    step_heading(step, "List the packages");
    if (!call_and_show(bus_, packages_, "List", "", "").envelope_ok()) step_failed("no listing");
}

void Walk::start(int step) {
    step_heading(step, "Start the package; its program runs");
    if (!call_and_show(bus_, package_object(), "Start", "", "").envelope_ok())
        return step_failed("the package was not started");
    events_.pump(500ms);
    show_status("Running");
}

void Walk::is_latest(int step) {
    step_heading(step, "Ask whether 1.0 is the latest version (the feed offers 1.1)");
    const CallOutcome asked = call_and_show(bus_, package_object(), "IsLatestVersion", "", "");
    if (!asked.envelope_ok()) return step_failed("no answer");
    std::printf("  %s\n", asked.reply.find("\"Result\":false") != std::string::npos
                              ? "Result false: a newer version is in the feed"
                              : "the feed was expected to offer a newer version");
}

void Walk::update(int step) {
    step_heading(step, "Update the package to 1.1");
    events_.forget();
    const Args args = source_args(setup_.newer_file);
    if (!call_and_show(bus_, package_object(), "Update", args.sent, args.shown).envelope_ok())
        return step_failed("the update was not accepted");
    await("Update", -1);
}

void Walk::stop(int step) {
    step_heading(step, "Stop the package");
    if (!call_and_show(bus_, package_object(), "Stop", "", "").envelope_ok())
        return step_failed("the package was not stopped");
    events_.pump(500ms);
    show_status("Installed");
}

void Walk::uninstall(int step) {
    step_heading(step, "Uninstall the package through the package-operation object");
    // Without a UUID the call would select nothing, succeed and queue nothing: no result would come.
    if (uuid_.empty()) return step_failed("the package's UUID is not known (no install result told it)");
    events_.forget();
    const std::string uuid = ",\"UUID\":" + quoted(uuid_);
    const Args args = operation_args(3, uuid, uuid);
    if (!call_and_show(bus_, operations_, "Uninstall", args.sent, args.shown).ok())
        return step_failed("the uninstall was not accepted");
    await("Uninstall", 3);
}

void Walk::install_by_packages(int step) {
    step_heading(step, "Install version 1.0 again, through the Packages object");
    events_.forget();
    const Args args = source_args(setup_.first_file);
    const CallOutcome added = call_and_show(bus_, packages_, "Install", args.sent, args.shown);
    if (!added.envelope_ok()) return step_failed("the install was not accepted");
    package_ = packages_ + "." + added.text("Id");
    await("Install", -1);
}

}  // namespace

void walk_package_life(const WalkSetup& setup, bool (*stop_requested)()) {
    EventWatch events;
    ubus::Connection bus;
    if (!events.start(setup.socket) || bus.connect(setup.socket) != ubus::kOk) {
        std::printf("\nThe walk cannot reach the bus at %s\n", setup.socket.c_str());
        return;
    }
    std::printf("\nA walk through a package's life. Each step is the bus command a user would type\n"
                "(ubus -s %s ...), its status and reply; events are shown as they arrive.\n",
                setup.socket.c_str());
    Walk walk(setup, events, bus);
    using StepFn = void (Walk::*)(int);
    constexpr StepFn kSteps[] = {&Walk::install_by_operation, &Walk::list, &Walk::start, &Walk::is_latest,
                                 &Walk::update,  &Walk::stop, &Walk::uninstall, &Walk::install_by_packages};
    int number = 0;
    for (StepFn step : kSteps) {
        if (stop_requested()) return;
        (walk.*step)(++number);
        events.pump(200ms);  // events that trail the step
    }
    std::printf("\n=== The walk is over.\n");
}

}  // namespace demo
