// Arbitrary bytes as a downloaded package file, through the whole verification: unpacking,
// signature, digests and control file. Everything is written inside one scratch directory, removed
// at exit. The seeds are packages signed by the CA of verify_package_anchor.pem.
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "pkgd/engine_parts.hpp"

namespace {

namespace fs = std::filesystem;
// When the seeds were signed: their signer is valid then, whatever the clock says.
constexpr std::time_t kSeedTime = 1795470805;
pkgd::engine_paths paths;  // the working directory and the trust anchor are all it reads
std::string scratch;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Memory-backed when the machine has it: every run writes the package and its members.
    scratch = (fs::is_directory("/dev/shm") ? fs::path("/dev/shm") : fs::temp_directory_path()) /
              "pkgd-fuzz-verify.XXXXXX";
    if (!::mkdtemp(scratch.data())) std::abort();
    std::atexit([] { fs::remove_all(scratch); });
    paths.work_dir = scratch + "/opkg-1";
    paths.trust_anchor = PKGD_FUZZ_TRUST_ANCHOR;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string package = scratch + "/package.ipk";
    std::ofstream(package).write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    pkgd::verify_package_file(paths, kSeedTime, package, "hello");
    // Whatever the package held, nothing is left but the package, the working directory and the
    // (empty) control directory in it.
    if (std::distance(fs::recursive_directory_iterator(scratch), {}) > 3) std::abort();
    return 0;
}
