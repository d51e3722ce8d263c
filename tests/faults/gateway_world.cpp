#include "gateway_world.hpp"

#include <filesystem>

#include "ubus/blob.hpp"

namespace faults {
namespace {

namespace fs = std::filesystem;

ubus::Attr member(ubus::AttrList list, std::string_view name) {
    for (ubus::Attr a : list)
        if (a.name() == name) return a;
    return {};
}

std::size_t children(ubus::Attr a) {
    std::size_t n = 0;
    for (ubus::Attr child : a.children()) n += child ? 1 : 0;
    return n;
}

// Record files, leaving out hidden ones (temporaries, pkgd's own bookkeeping).
int files_in(const fs::path& dir) {
    int n = 0;
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(dir, ec))
        n += entry.path().filename().string().starts_with(".") ? 0 : 1;
    return n;
}

std::string field(const std::string& text, const std::string& key, const std::string& end) {
    const auto at = text.find(key);
    if (at == std::string::npos) return "";
    const auto from = at + key.size();
    return text.substr(from, text.find_first_of(end, from) - from);
}

std::string line(const std::string& opkg, int registry, const std::string& listed, int pkg, int du, int eu,
                 std::size_t cat_du, std::size_t cat_eu, std::size_t dm_du, std::size_t dm_eu) {
    return "opkg " + (opkg.empty() ? "-" : opkg) + " | registry " + std::to_string(registry) + listed +
           " | files pkg " + std::to_string(pkg) + " du " + std::to_string(du) + " eu " + std::to_string(eu) +
           " | catalog " + std::to_string(cat_du) + "/" + std::to_string(cat_eu) + " | datamodel " +
           std::to_string(dm_du) + "/" + std::to_string(dm_eu);
}

}  // namespace

std::string observe(const sandbox::Gateway& gw, gwtest::Client& bus) {
    const std::string control = gwtest::read_text(gw.path("/usr/lib/opkg/info/app.control"));
    const std::string opkg = field(control, "Version: ", "\n");
    const std::string list = bus.call(kPackages, "List").first();
    int registry = 0;
    for (auto at = list.find("\"Id\":"); at != std::string::npos; at = list.find("\"Id\":", at + 1)) ++registry;
    std::string listed;
    if (registry > 0) {
        const std::string status = field(list, "\"Status\":\"", "\"");
        listed = " " + field(list, "\"Version\":\"", "\"") + " " + (status == "Running" ? "Installed" : status);
    }
    const sandbox::SimReply state = gw.sim_state();
    const ubus::AttrList top(state.data);
    const ubus::Attr catalog = member(top, "catalog");
    const ubus::Attr instances = member(member(top, "datamodel").children(), "instances");
    const auto units = [&](std::string_view kind) {
        return children(member(instances.children(), "InternetGatewayDevice.SoftwareModules." + std::string(kind) + "."));
    };
    return line(opkg, registry, listed, files_in(gw.path("/usr/local/package/pkg")),
                files_in(gw.path("/usr/local/package/du")), files_in(gw.path("/usr/local/package/eu")),
                children(member(catalog.children(), "DeploymentUnit")),
                children(member(catalog.children(), "ExecutionUnit")), units("DeploymentUnit"),
                units("ExecutionUnit"));
}

std::string agreeing(const std::string& version) {
    const int n = version.empty() ? 0 : 1;
    return line(version, n, n ? " " + version + " Installed" : "", n, n, n, n, n, n, n);
}

int results_of(gwtest::Client& bus, int request_id) {
    int n = 0;
    const std::string needle = "\"RequestID\":" + std::to_string(request_id) + ",";
    bus.bus().dispatch(0);
    for (const std::string& e : bus.events(0, std::chrono::milliseconds(0)))
        n += e.starts_with("SOFTWAREMODULES.PACKAGE.OPERATIONSRESULT") && e.find(needle) != std::string::npos;
    return n;
}

}  // namespace faults
