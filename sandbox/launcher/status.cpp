#include "sandbox/status.hpp"

#include <cstring>

namespace sandbox {

std::string system_error(const std::string& what, int err) {
    return what + ": " + std::strerror(err);
}

}  // namespace sandbox
