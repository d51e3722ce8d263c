#include "sim_client.hpp"

#include <gtest/gtest.h>

#include <fstream>

#include "ubus/json.hpp"

namespace sandbox_sim {

SimClient::SimClient(const sandbox::Gateway& gw) {
    if (gw.up()) bus_.connect(gw.socket_path().string());
}

Answer SimClient::call(std::string_view object, std::string_view method, std::string_view json,
                       int timeout_ms) {
    Answer answer;
    ubus::BlobBuf args;
    if (!ubus::json_load(args, json)) {
        ADD_FAILURE() << "not a JSON object: " << json;
        return answer;
    }
    std::uint32_t id = 0;
    if (answer.status = bus_.lookup_id(object, id); answer.status != ubus::kOk) return answer;
    answer.status = bus_.invoke(
        id, method, args.members(),
        [&answer](ubus::Bytes members) {
            ubus::json_format_list(answer.replies.emplace_back(), members, false);
        },
        timeout_ms);
    return answer;
}

bool SimClient::has_object(std::string_view path) {
    std::uint32_t id = 0;
    return bus_.lookup_id(path, id) == ubus::kOk;
}

std::string state_of(const sandbox::Gateway& gw, std::string_view member) {
    const sandbox::SimReply state = gw.sim_state();
    if (!state.ok()) return "(no state: status " + std::to_string(state.status) + ")";
    for (ubus::Attr a : ubus::AttrList(state.data)) {
        if (a.name() != member) continue;
        std::string json;
        ubus::json_format_list(json, a);
        return json;
    }
    return "(no " + std::string(member) + " in " + state.json + ")";
}

sandbox::GatewayOptions sim_gateway() {
    sandbox::GatewayOptions options;
    options.name = ::testing::UnitTest::GetInstance()->current_test_info()->name();
    options.simulator = true;
    return options;
}

void write_script(const std::filesystem::path& file, std::string_view body) {
    namespace fs = std::filesystem;
    fs::create_directories(file.parent_path());
    std::ofstream(file) << "#!/bin/sh\n" << body << "\n";
    fs::permissions(file, fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                              fs::perms::others_read | fs::perms::others_exec);
}

}  // namespace sandbox_sim
