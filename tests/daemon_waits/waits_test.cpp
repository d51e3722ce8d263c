// Start, Stop and IsLatestVersion on a daemon whose loop runs on the test's thread, with callers on
// threads of their own, a service manager that answers when the test lets it, and query children
// that answer when the test lets them.
#include <future>
#include <mutex>

#include "daemon/ee_object.hpp"
#include "daemon/event_intake.hpp"
#include "daemon/package_operation_object.hpp"
#include "daemon/packages_object.hpp"
#include "daemon/reconnect.hpp"
#include "daemon_fixture.hpp"
#include "pkgd/lcm_events.hpp"
#include "poll.hpp"
#include "serving_thread.hpp"
#include "ubus/loop.hpp"

namespace daemon_test {
namespace {

using namespace std::chrono_literals;

constexpr std::string_view kOk = R"({"Header":{"Name":"OK"}})",
                           kIllegal = R"({"Header":{"Name":"OPERATION_ILLEGAL"}})",
                           kError = R"({"Header":{"Name":"OPERATION_ERROR"}})",
                           kLatest = R"({"Header":{"Name":"OK"},"Body":{"Result":true}})";

std::string json(ubus::Bytes members) {
    std::string text;
    ubus::json_format_list(text, members, false);
    return text;
}

std::string event(const lcm_event& e) {
    ubus::BlobBuf msg;
    lcm_event_message(msg, e.code, e.name, kLcmPackageIdKey, object_of("1"));
    return json(msg.members()) + "|";
}

class Waits : public DaemonTest {
protected:
    Waits() {
        d_.ee.name = "System";
        peer_.add("Services.Management.LCM.ExecutionEnvironments.System.Services",
                  {{"operate", {}, [this](ubus::Request& req) {
                        log("operate " + json(req.args()));
                        if (manager_silent_) held_.push_back(req.defer());  // answered at teardown
                        return manager_status_.load();
                    }}});
        peer_.bus().listen(kLcmEventType, [this](std::string_view, ubus::Bytes data) { log(json(data)); });
        peer_.start();
        EXPECT_EQ(::pipe(query_gate_), 0);
        d_.waits.query = [this](const pkg_info& pkg) {  // in the child
            ::close(query_gate_[1]);
            for (char byte; ::read(query_gate_[0], &byte, 1) > 0;) {
            }
            std::ofstream(dir_ / "queried")
                << pkg.url.str() << " " << pkg.username.str() << ":" << pkg.password.str();
            if (query_result_ < 0) ::_exit(1);
            return query_result_;
        };
        pkg_info one = installed_package("1", 1), two = installed_package("2", 2);
        one.status = PKG_STATUS_INSTALLED;
        one.username = "me";
        one.password = "pw";
        one.eu.emplace_back().name = "svc-a";
        one.du.files = "/usr/bin/app-1;";
        two.status = PKG_STATUS_INSTALLING;
        EXPECT_TRUE(add_pkg(d_, "1", one) && add_pkg(d_, "2", two));
        EXPECT_EQ(add_package_object(d_).status, ubus::kOk);
        d_.ctx.attach(loop_);
    }
    ~Waits() override {
        ::close(query_gate_[0]);
        ::close(query_gate_[1]);
        d_.waits.clear();  // while the loop they are hooked to exists
        d_.ctx.detach();
    }
    std::string log(const std::string& line = "") {
        std::lock_guard lock(mutex_);
        return log_ += line.empty() ? "" : line + "|";
    }
    // `id`: a package's, "" for the Packages object, or any object's name.
    std::future<std::string> call_async(std::string id, std::string method, std::string args = "{}") {
        return std::async(std::launch::async, [=, this] {
            ubus::Connection caller;
            ubus::BlobBuf msg;
            std::uint32_t object = 0;
            std::string reply;
            if (caller.connect(broker_.socket()) == ubus::kOk && ubus::json_load(msg, args) &&
                caller.lookup_id(id.empty() ? kPackages : id.find('.') == id.npos ? object_of(id) : id, object) ==
                    ubus::kOk)
                caller.invoke(
                    object, method, msg.members(), [&](ubus::Bytes m) { reply = json(m); }, 20000);
            return reply;
        });
    }
    // Runs the daemon's loop until `done` holds (asked from the loop) or 10 s have passed.
    bool serve_until(const std::function<bool()>& done) {
        const auto deadline = std::chrono::steady_clock::now() + 10s;
        std::function<void()> check = [&] {
            if (done() || std::chrono::steady_clock::now() > deadline) return loop_.stop();
            loop_.add_timer(2ms, check);
        };
        loop_.add_timer(0ms, check);
        loop_.run();
        return done();
    }
    std::string served(std::future<std::string> reply) {
        EXPECT_TRUE(serve_until([&] { return ready(reply); }));
        return reply.get();
    }
    static bool ready(const std::future<std::string>& r) {
        return r.wait_for(0s) == std::future_status::ready;
    }

    ubus::Loop loop_;
    std::atomic<int> manager_status_{ubus::kOk};
    std::atomic<bool> manager_silent_ = false;
    std::vector<ubus::DeferredReply> held_;  // the calls a silent service manager leaves open
    int query_gate_[2] = {-1, -1};           // query children answer once the write end is closed
    int query_result_ = 0;
    std::mutex mutex_;
    std::string log_;  // operate requests and LCM events, as the service manager's side saw them
    bus_test::ServingThread peer_{broker_.socket()};  // last: its thread ends before the rest goes
};

// Each row: a call, what its peer answers (the service manager's status, or the query's result;
// kNotFound: no service manager for the environment), the reply, what reached the service
// manager's side (requests and LCM events, in order), and the record the query looked at.
TEST_F(Waits, EachCallFollowsItsPeersAnswer) {
    ::close(std::exchange(query_gate_[1], -1));
    const std::string start = R"(operate {"Operation":"start","name":["svc-a"]}|)";
    const struct {
        std::string method, id, args;
        int peer;
        std::string_view reply;
        std::string log, queried;
    } cases[] = {
        {"Start", "1", "{}", ubus::kOk, kOk, start + event(kLcmPackageEnabled), ""},
        {"Stop", "1", "{}", ubus::kOk, kOk,
         R"(operate {"Operation":"stop","name":["svc-a"]}|)" + event(kLcmPackageDisabled), ""},
        {"Start", "1", "{}", ubus::kPermissionDenied, kIllegal, start, ""},
        {"Start", "1", "{}", ubus::kNotFound, kIllegal, "", ""},
        {"Stop", "2", "{}", ubus::kOk, kIllegal, "", ""},
        {"IsLatestVersion", "1", "{}", 1, R"({"Header":{"Name":"OK"},"Body":{"Result":false}})", "",
         "http://feed.example/1.ipk me:pw"},
        {"IsLatestVersion", "1",
         R"({"Source":{"Protocol":"FTP","Address":"h","Credentials":{"Username":"you"}}})", 0, kLatest, "",
         "ftp://h you:pw"},
        {"IsLatestVersion", "1", "{}", -1, kLatest, "",
         "http://feed.example/1.ipk me:pw"},  // the child died silently
        {"IsLatestVersion", "1", R"({"Source":{"Protocol":"ftp","Resource":"x.ipk"}})", 1,
         R"({"Header":{"Name":"ARGUMENT_REQUIRED_MISSING"}})", "", ""},
        {"IsLatestVersion", "2", "{}", 1, kError, "", ""},
    };
    std::string expected;  // an event where none belongs would come before the next request
    for (const auto& c : cases) {
        fs::remove(dir_ / "queried");
        d_.ee.name = c.peer == ubus::kNotFound ? "Elsewhere" : "System";
        manager_status_ = query_result_ = c.peer;
        EXPECT_EQ(served(call_async(c.id, c.method, c.args)), c.reply)
            << c.method << " " << c.id << " " << c.args;
        EXPECT_EQ(std::string(std::istreambuf_iterator<char>(std::ifstream(dir_ / "queried").rdbuf()), {}),
                  c.queried);
        expected += c.log;
    }
    EXPECT_TRUE(testsupport::poll_until(5s, [&] { return log() == expected; })) << log();
}

// Neither peer answers: every other call is served meanwhile, and the service manager's time-out
// and the query's time limit end the waiting calls.
TEST_F(Waits, WaitingCallsHoldUpNoOtherCall) {
    manager_silent_ = true;
    auto start = call_async("1", "Start"), latest = call_async("1", "IsLatestVersion");
    ASSERT_TRUE(serve_until([&] { return d_.waits.size() == 1 && !log().empty(); }));
    EXPECT_NE(served(call_async("2", "Get")).find(R"("Status":"Installing")"), std::string::npos);
    EXPECT_NE(served(call_async("", "List")).find(R"("Id":"1")"), std::string::npos);
    EXPECT_FALSE(ready(start) || ready(latest));
    EXPECT_EQ(served(std::move(start)), kIllegal);
    EXPECT_EQ(served(std::move(latest)), kLatest);
}

// The broker goes twice: while a List is being answered, with a Start and an IsLatestVersion
// waiting, then while the daemon idles. Once it accepts again every object of the daemon is back
// under its name, callable and known to the registry by its new id, and so is the LCM listener.
// The third time another client holds the Packages object's name when the daemon comes back.
TEST_F(Waits, AfterEachBrokerRestartEveryObjectIsBackAndCallable) {
    d_.pkg_name = "SoftwareModules.Package.System";
    d_.s_ee_object = "Services.Management.LCM.ExecutionEnvironments.System";
    ASSERT_TRUE(add_lcm_event_handler(d_).status == ubus::kOk && add_opkg_object(d_).status == ubus::kOk &&
                add_ee_object(d_).status == ubus::kOk);
    bus_reconnect reconnect(d_, loop_, broker_.socket());
    manager_silent_ = true;
    auto start = call_async("1", "Start"), latest = call_async("1", "IsLatestVersion");
    ASSERT_TRUE(serve_until([&] { return d_.waits.size() == 1 && !log().empty(); }));
    sys_.on_file_lookup = [&] { broker_.stop(SIGKILL); };
    EXPECT_EQ(served(call_async("", "List")), "");  // its caller went with the broker
    sys_.on_file_lookup = {};
    EXPECT_EQ(served(std::move(start)) + served(std::move(latest)), "");

    const std::string names[] = {std::string(kPackages), object_of("1"), object_of("2"), d_.pkg_name.str(),
                                 d_.s_ee_object.str()};
    for (const auto& [event, status] : {std::pair(kLcmDownloading, PKG_STATUS_DOWNLOADING),
                                        std::pair(kLcmInstalling, PKG_STATUS_INSTALLING)}) {
        if (status == PKG_STATUS_INSTALLING) broker_.stop();
        ASSERT_TRUE(serve_until([&] { return reconnect.down; }));
        broker_.start();
        ubus::Connection probe;
        ASSERT_EQ(probe.connect(broker_.socket()), ubus::kOk);
        std::map<std::string, std::uint32_t> ids;
        ASSERT_TRUE(serve_until([&] {
            return std::all_of(std::begin(names), std::end(names),
                               [&](const std::string& n) { return probe.lookup_id(n, ids[n]) == ubus::kOk; });
        }));
        EXPECT_EQ(d_.s_pkgs.find_object(object_of("1"))->object_id, ids[object_of("1")]);
        EXPECT_NE(served(call_async("", "List")).find(R"("Id":"2")"), std::string::npos);
        EXPECT_NE(served(call_async(d_.s_ee_object.str(), "Get")).find(R"("Status":"Active")"), std::string::npos);
        EXPECT_NE(served(call_async(d_.pkg_name.str(), "List")), "");
        ubus::BlobBuf msg;
        lcm_event_message(msg, event.code, event.name, kLcmPackageIdKey, object_of("2"));
        ASSERT_EQ(probe.send_event(kLcmEventType, msg.members()), ubus::kOk);
        EXPECT_TRUE(serve_until([&, status = status] { return d_.s_pkgs.begin()->pkg->status == status; }));
    }
    // A name another client took meanwhile ends the serving, as it ends start-up.
    broker_.stop();
    ASSERT_TRUE(serve_until([&] { return reconnect.down; }));
    broker_.start();
    ubus::Connection squatter;
    ASSERT_EQ(squatter.connect(broker_.socket()), ubus::kOk);
    ASSERT_EQ(squatter.add_object(kPackages, ubus::ObjectType::make({})).status, ubus::kOk);
    EXPECT_TRUE(serve_until([&] { return reconnect.refused; }));
}

}  // namespace
}  // namespace daemon_test
