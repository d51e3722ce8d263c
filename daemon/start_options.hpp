// pkgd's command line: "-r DIR" changes the root directory, "-f" keeps pkgd in the foreground.
#pragma once

#include "pkgd/records.hpp"

namespace pkgd {

struct start_options {
    FixedText<128> root;      // empty: no change of root
    bool foreground = false;  // for supervisors (procd) and the sandbox: no detach
};

// Reads the options; a later "-r" replaces an earlier one. Unknown options and a missing argument
// are reported on the error output by the option parser and otherwise ignored, as are operands.
start_options parse_start_options(int argc, char* argv[]);

}  // namespace pkgd
