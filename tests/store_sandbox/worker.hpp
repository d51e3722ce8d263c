// Store code run inside a gateway as a worker runs it.
#pragma once

#include <stdlib.h>

#include <functional>
#include <string>

#include "gateway_client.hpp"
#include "pkgd/identity.hpp"

namespace store_sandbox {

// `body` in a process inside the gateway, the environment's identity fixed as the daemon fixes it
// at start-up (no EXECENV_INDEX: "System", and no catalog traffic); what it wrote.
inline std::string run_as_worker(const sandbox::Gateway& gw,
                                 const std::function<void(std::string& out)>& body) {
    return gwtest::run_inside(gw, [&body](std::string& out) {
        ::unsetenv("EXECENV_INDEX");
        pkgd::package_init_env();
        body(out);
        return 0;
    });
}

}  // namespace store_sandbox
