// The walk through a package's life that `./dev run` shows: install from the feed through the
// package-operation object, List, Start, IsLatestVersion, Update, Stop, Uninstall, and an install
// through the Packages object. A step that fails is reported and the walk goes on.
#pragma once

#include <string>

namespace demo {

struct WalkSetup {
    std::string socket;       // the bus socket, from the host
    std::string environment;  // "Services.Management.LCM.ExecutionEnvironments.<id>"
    std::string environment_id;
    std::string feed_http;  // "http://127.0.0.1:<port>[/path]"
    std::string user;
    std::string password;
    std::string first_file;  // version 1.0 in the feed
    std::string newer_file;  // version 1.1
};

// Returns early when `stop_requested` says so between steps (Ctrl-C).
void walk_package_life(const WalkSetup& setup, bool (*stop_requested)());

}  // namespace demo
