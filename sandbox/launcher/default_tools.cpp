#include "default_tools.hpp"

// Set by the build when the corresponding target exists.
#ifndef PKGD_SANDBOX_UBUSD
#define PKGD_SANDBOX_UBUSD ""
#endif
#ifndef PKGD_SANDBOX_PKGD
#define PKGD_SANDBOX_PKGD ""
#endif
#ifndef PKGD_SANDBOX_OPKG
#define PKGD_SANDBOX_OPKG ""
#endif
#ifndef PKGD_SANDBOX_SIMULATOR
#define PKGD_SANDBOX_SIMULATOR ""
#endif

namespace sandbox {

std::filesystem::path project_broker() {
    return PKGD_SANDBOX_UBUSD;
}
std::filesystem::path project_pkgd() {
    return PKGD_SANDBOX_PKGD;
}
std::filesystem::path project_simulator() {
    return PKGD_SANDBOX_SIMULATOR;
}
std::filesystem::path project_opkg() {
    return PKGD_SANDBOX_OPKG;
}

}  // namespace sandbox
