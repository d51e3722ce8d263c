// The daemon's registry run inside a gateway, where its records can be looked at directly: what
// restore and event intake put into a record beyond what the package table shows.
#include <gtest/gtest.h>

#include <atomic>
#include <fstream>

#include "daemon/daemon_context.hpp"
#include "daemon/event_intake.hpp"
#include "daemon/restore.hpp"
#include "registry_gateway.hpp"

namespace registry_test {
namespace {

std::string describe(const registered_pkg* entry) {
    if (!entry) return "(not registered)\n";
    const pkg_info& pkg = *entry->pkg;
    std::string text = pkg.id + " status=" + std::to_string(pkg.status) + " eu=";
    for (const eu_info& eu : pkg.eu) text += std::to_string(eu.index) + ":" + eu.name.value_or("-") + ",";
    text += " ee=" + (pkg.ee ? std::to_string(pkg.ee->index) + ":" + pkg.ee->name.value_or("-") : "-");
    return text + " " + pkg.url.str() + " " + pkg.username.str() + ":" + pkg.password.str() +
           " noauto=" + std::to_string(pkg.disable_autostart) + "\n";
}

void deliver(const lcm_event& event, std::string_view package_object) {
    ubus::BlobBuf msg;
    lcm_event_message(msg, event.code, event.name, kLcmPackageIdKey, package_object);
    receive_event(kLcmEventType, msg.members());
}

pkg_info seven_with_units(std::initializer_list<std::int32_t> units) {
    pkg_info pkg = installed_package("7", 7);
    for (std::int32_t i : units)
        pkg.eu.push_back({i, "EU-" + std::to_string(i), "init-" + std::to_string(i)});
    return pkg;
}

// "Get" served from a thread while this one calls it, as a client would.
std::string get_while_serving(daemon_context& d, const std::string& object) {
    std::string json;
    std::atomic<bool> done{false};
    std::thread server([&] {
        while (!done) d.ctx.dispatch(20);
    });
    ubus::Connection caller;
    std::uint32_t id = 0;
    if (caller.connect() == ubus::kOk && caller.lookup_id(object, id) == ubus::kOk)
        caller.invoke(
            id, "Get", {}, [&](ubus::Bytes m) { ubus::json_format_list(json, m, false); }, 5000);
    done = true;
    server.join();
    return json;
}

TEST(RegistryInside, RecordsHoldWhatTheirFilesNameAndReloadsNeverRepeatUnits) {
    auto options = gwtest::named_gateway();
    options.prepare = [](const fs::path& root) {
        seed(root, seven_with_units({2, 3}));
        std::ofstream(root / "usr/local/package/pkg/7")
            << R"({"DU":7,"EU":[2,"x",3],"resource.url":"ftp://h/a.ipk","resource.username":"user",)"
               R"("resource.password":"pw","disableautostart":true})";
        pkg_info env = installed_package("env", 8);
        env.ee.emplace().index = 4;
        env.ee->name = "lxc";
        seed(root, env);
        records_in(root).store_eu(seven_with_units({5}));  // what an update will leave
    };
    sandbox::Gateway gw(options);
    ASSERT_TRUE(gw.up()) << gw.error();

    const std::string out = gwtest::run_inside(gw, [](std::string& text) {
        daemon_context& d = the_daemon();
        d.object = kPackages;
        if (d.ctx.connect() != ubus::kOk) return 1;
        restore_registered_packages();
        const std::string seven = object_of("7");
        text += describe(d.s_pkgs.find_object(seven)) + describe(d.s_pkgs.find_object(object_of("env")));

        pkg_info updated = seven_with_units({5});
        updated.url = "ftp://h/b.ipk";
        records_in("/").store_pkg(updated);
        deliver(kLcmUpdateComplete, seven);
        text += describe(d.s_pkgs.find_object(seven));
        deliver(kLcmDeleteFailed, seven);  // the same files again
        text += describe(d.s_pkgs.find_object(seven));
        records_in("/").delete_pkg(updated);
        deliver(kLcmDownloadComplete, seven);
        text += describe(d.s_pkgs.find_object(seven));

        // An object whose package the registry no longer holds answers an empty table.
        d.s_pkgs.unlink(seven);
        text += get_while_serving(d, seven);
        return 0;
    });
    EXPECT_EQ(out,
              "7 status=4 eu=2:init-2,3:init-3, ee=- ftp://h/a.ipk user:pw noauto=1\n"
              "env status=4 eu= ee=4:lxc http://feed.example/env.ipk : noauto=0\n"
              "7 status=4 eu=5:init-5, ee=- ftp://h/b.ipk : noauto=1\n"
              "7 status=4 eu=5:init-5, ee=- ftp://h/b.ipk : noauto=1\n"
              // Without its package file a reload still drops the units; the rest stays.
              "7 status=2 eu= ee=- ftp://h/b.ipk : noauto=1\n"
              R"({"Header":{"Name":"OK"},"Body":{}})");
}

}  // namespace
}  // namespace registry_test
