#include "gateway_client.hpp"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

#include "poll.hpp"
#include "ubus/json.hpp"

namespace gwtest {
namespace {

ubus::Attr member(ubus::AttrList list, std::string_view name) {
    for (ubus::Attr a : list)
        if (a.name() == name) return a;
    return {};
}

}  // namespace

sandbox::GatewayOptions named_gateway() {
    sandbox::GatewayOptions options;
    const auto* unit = ::testing::UnitTest::GetInstance();
    if (const auto* test = unit->current_test_info())
        options.name = std::string(test->test_suite_name()) + "." + test->name();
    else if (const auto* suite = unit->current_test_suite())  // set up for a whole suite
        options.name = suite->name();
    return options;
}

Client::Client(const sandbox::Gateway& gw) {
    bus_.set_request_timeout(10000);
    if (gw.up()) bus_.connect(gw.socket_path().string());
}

Reply Client::call(std::string_view path, std::string_view method, std::string_view json, int timeout_ms) {
    Reply r;
    ubus::BlobBuf args;
    std::uint32_t id = 0;
    if (!ubus::json_load(args, json)) {
        ADD_FAILURE() << "not a JSON object: " << json;
    } else if (r.status = bus_.lookup_id(path, id); r.status == ubus::kOk) {
        auto on_data = [&r](ubus::Bytes members) { ubus::json_format_list(r.json.emplace_back(), members, false); };
        r.status = bus_.invoke(id, method, args.members(), on_data, timeout_ms);
    }
    return r;
}

bool Client::has_object(std::string_view path) {
    bool found = false;
    bus_.lookup(path, [&](const ubus::ObjectInfo& o) { found = found || o.path == path; });
    return found;
}

std::optional<std::uint32_t> Client::wait_for_object(std::string_view path,
                                                     std::chrono::milliseconds timeout) {
    std::uint32_t id = 0;
    const auto found = [&] { return bus_.lookup_id(path, id) == ubus::kOk && id != 0; };
    if (testsupport::poll_until(timeout, found, 20ms)) return id;
    return std::nullopt;
}

bool Client::wait_until_gone(std::string_view path, std::chrono::milliseconds timeout) {
    return testsupport::poll_until(timeout, [&] { return !has_object(path); }, 20ms);
}

bool Client::hold(std::string_view path) {
    static const auto type = ubus::ObjectType::make({{"Get", {}, [](ubus::Request&) { return 0; }}});
    return bus_.add_object(path, type).status == ubus::kOk;
}

bool Client::listen(std::string_view pattern) {
    return bus_.listen(pattern,
                       [this](std::string_view type, ubus::Bytes data) {
                           std::string& text = events_.emplace_back(type);
                           text += ' ';
                           ubus::json_format_list(text, data, false);
                       })
               .status == ubus::kOk;
}

const std::vector<std::string>& Client::events(std::size_t count, std::chrono::milliseconds timeout) {
    // The wait is in dispatch(), for the next message.
    testsupport::poll_until(
        timeout,
        [&] {
            if (events_.size() < count) bus_.dispatch(50);
            return events_.size() >= count;
        },
        0ms);
    return events_;
}

std::string sim_state(const sandbox::Gateway& gw, std::string_view name) {
    const sandbox::SimReply state = gw.sim_state();
    EXPECT_TRUE(state.ok()) << "the simulator's state: status " << state.status;
    std::string json;
    if (ubus::Attr a = member(ubus::AttrList(state.data), name)) ubus::json_format_list(json, a);
    return json;
}

std::vector<std::string> sim_requests(const sandbox::Gateway& gw, std::string_view peer) {
    const sandbox::SimReply state = gw.sim_state();
    EXPECT_TRUE(state.ok()) << "the simulator's state: status " << state.status;
    std::vector<std::string> found;
    for (ubus::Attr request : member(ubus::AttrList(state.data), "requests").children()) {
        if (member(request.children(), "peer").as_string() != peer) continue;
        std::string& text = found.emplace_back(member(request.children(), "method").as_string());
        text += ' ';
        ubus::json_format_list(text, member(request.children(), "data"));
    }
    return found;
}

std::string run_inside(const sandbox::Gateway& gw, const std::function<int(std::string& out)>& body) {
    const sandbox::CommandResult r = gw.run_inside(body);
    EXPECT_TRUE(r.ok()) << "exit " << r.exit_code << (r.timed_out ? " (timed out) " : " ") << r.err << r.out;
    return r.out;
}

std::string read_text(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void write_script(const std::filesystem::path& file, std::string_view body) {
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file) << "#!/bin/sh\n" << body << "\n";
    std::filesystem::permissions(file, std::filesystem::perms(0755));
}

std::vector<std::string> Client::story(std::size_t count, std::chrono::milliseconds timeout) {
    std::vector<std::string> out;
    for (const std::string& e : events(count, timeout))
        for (const std::string_view key : {"\"Code\":", "\"FaultCode\":"})
            if (const auto at = e.find(key); at != std::string::npos)
                out.push_back((key[1] == 'F' ? "result " : "") +
                              e.substr(at + key.size(), e.find_first_of(",}", at) - at - key.size()));
    return out;
}

}  // namespace gwtest
