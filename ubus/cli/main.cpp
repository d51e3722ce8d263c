// ubus: the bus command-line tool. See cli.hpp.
#include "cli.hpp"

int main(int argc, char** argv) {
    return ubus_cli::run(argc, argv);
}
