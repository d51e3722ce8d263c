// pkgd in a sandbox gateway, as a client sees its packages moved and removed by the LCM events on
// the bus. (That restored packages are on the bus is a start-up test.)
#include <gtest/gtest.h>

#include <fstream>

#include "gateway_client.hpp"
#include "pkgd/lcm_events.hpp"
#include "poll.hpp"

namespace {

using namespace pkgd;
using namespace std::chrono_literals;

constexpr std::string_view kPackages = "Services.Management.LCM.ExecutionEnvironments.System.Packages";
constexpr std::string_view kEnvironment = "Services.Management.LCM.ExecutionEnvironments.System";

std::string object_of(std::string_view id) {
    return std::string(kPackages) + "." + std::string(id);
}

sandbox::GatewayOptions seeded_gateway() {
    auto options = gwtest::named_gateway();
    options.pkgd = true;
    options.prepare = [](const std::filesystem::path& root) {
        for (const char* id : {"1", "2"}) {
            std::ofstream(root / "usr/local/package/pkg" / id) << R"({"DU":)" << id << "}";
            std::ofstream(root / "usr/local/package/du" / id) << R"({"name":"app"})";
        }
    };
    return options;
}

TEST(RegistryInGateway, EventsMoveAndRemovePackages) {
    sandbox::Gateway gw(seeded_gateway());
    ASSERT_TRUE(gw.up()) << gw.error();
    gwtest::Client probe(gw);
    ASSERT_TRUE(probe.wait_for_object(kEnvironment));
    const auto send = [&](const lcm_event& event, std::string_view id) {
        ubus::BlobBuf msg;
        lcm_event_message(msg, event.code, event.name, kLcmPackageIdKey, object_of(id));
        EXPECT_EQ(probe.bus().send_event(kLcmEventType, msg.members()), ubus::kOk);
    };
    send(kLcmDownloading, "1");
    EXPECT_TRUE(testsupport::poll_until(10s, [&] {
        return probe.call(object_of("1"), "Get").first().find(R"("Status":"Downloading")") != std::string::npos;
    }));
    send(kLcmDeleteComplete, "2");
    EXPECT_TRUE(probe.wait_until_gone(object_of("2")));
    EXPECT_EQ(probe.call(kPackages, "List").first().find(R"("Id":"2")"), std::string::npos);
}

}  // namespace
