// The project's own binaries as built alongside the launcher; empty when not (yet) part of the build.
#pragma once

#include <filesystem>

namespace sandbox {

std::filesystem::path project_broker();
std::filesystem::path project_pkgd();
std::filesystem::path project_simulator();
std::filesystem::path project_opkg();  // the sandbox's package tool

}  // namespace sandbox
