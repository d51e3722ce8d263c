#include "daemon/start_options.hpp"

#include <unistd.h>

namespace pkgd {

start_options parse_start_options(int argc, char* argv[]) {
    start_options options;
    // Full reset of the parser's state, so the options can be read more than once per process.
    optind = 0;
    int c = 0;
    while ((c = ::getopt(argc, argv, "r:f")) != -1) {
        switch (c) {
            case 'r':
                options.root = optarg;
                break;
            case 'f':
                options.foreground = true;
                break;
            default:
                break;
        }
    }
    return options;
}

}  // namespace pkgd
