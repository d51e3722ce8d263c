#include "daemon/restore.hpp"

namespace pkgd {

void restore_registered_packages() {
    // Nothing to restore until packages can be installed and registered.
}

}  // namespace pkgd
