#include "gateway_fixture.hpp"

#include "ubus/json.hpp"

namespace datamodel_sandbox {
namespace {

ubus::Attr member(ubus::AttrList list, std::string_view name) {
    for (const ubus::Attr a : list)
        if (a.name() == name) return a;
    return {};
}

}  // namespace

void GatewayTest::SetUp() {
    sandbox::GatewayOptions options;
    options.name = ::testing::UnitTest::GetInstance()->current_test_info()->name();
    options.simulator = true;
    gateway_ = std::make_unique<sandbox::Gateway>(options);
    ASSERT_TRUE(gateway_->up()) << gateway_->error();
}

std::string GatewayTest::inside(const std::function<int(std::string& out)>& fn) {
    const sandbox::CommandResult result = gateway_->run_inside(fn);
    EXPECT_TRUE(result.ok()) << "exit " << result.exit_code << ": " << result.err;
    return result.out;
}

void GatewayTest::set_fault(std::string_view peer, std::string_view mode) {
    const sandbox::Status status = gateway_->set_fault(peer, mode);
    EXPECT_TRUE(status) << status.error();
}

void GatewayTest::clear_request_log() {
    const sandbox::Status status = gateway_->sim_reset();
    EXPECT_TRUE(status) << status.error();
}

std::vector<std::uint8_t> GatewayTest::sim_state() {
    sandbox::SimReply reply = gateway_->sim_state();
    EXPECT_TRUE(reply.ok()) << reply.status;
    return std::move(reply.data);
}

std::vector<std::string> GatewayTest::datamodel_requests() {
    const std::vector<std::uint8_t> state = sim_state();
    std::vector<std::string> lines;
    for (const ubus::Attr request : member(ubus::AttrList(state), "requests").children()) {
        const ubus::AttrList fields = request.children();
        if (member(fields, "peer").as_string() != "datamodel") continue;
        std::string line(member(fields, "method").as_string());
        line += ' ';
        ubus::json_format_list(line, member(fields, "data"));
        lines.push_back(std::move(line));
    }
    return lines;
}

std::vector<std::int32_t> GatewayTest::instances(std::string_view object_path) {
    const std::vector<std::uint8_t> state = sim_state();
    const ubus::Attr datamodel = member(ubus::AttrList(state), "datamodel");
    std::vector<std::int32_t> numbers;
    for (const ubus::Attr n :
         member(member(datamodel.children(), "instances").children(), object_path).children())
        numbers.push_back(n.as_i32());
    return numbers;
}

}  // namespace datamodel_sandbox
