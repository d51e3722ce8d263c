#include "bus_fixture.hpp"

#include <unistd.h>

#include <cstdlib>
#include <stdexcept>

namespace cli_test {

DemoBus::DemoBus() {
    const char* tmp = std::getenv("TMPDIR");
    std::string templ = std::string(tmp && *tmp ? tmp : "/tmp") + "/ubus-cli-test.XXXXXX";
    if (!::mkdtemp(templ.data())) throw std::runtime_error("mkdtemp failed");
    dir = templ;
    if (::symlink(broker.socket().c_str(), (dir + "/ubus.sock").c_str()) != 0)
        throw std::runtime_error("symlink failed");
    if (client.connect(broker.socket()) != ubus::kOk) throw std::runtime_error("cannot connect");
}

DemoBus::~DemoBus() {
    ::unlink((dir + "/ubus.sock").c_str());
    ::rmdir(dir.c_str());
}

DemoBus& demo_bus() {
    static DemoBus bus;
    return bus;
}

std::string cli_dir() {
    const std::string path = UBUS_CLI_PATH;
    return path.substr(0, path.rfind('/'));
}

}  // namespace cli_test
