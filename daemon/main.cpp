#include "daemon/start_options.hpp"
#include "daemon/startup.hpp"

int main(int argc, char* argv[]) {
    return pkgd::run_daemon(pkgd::parse_start_options(argc, argv));
}
