// A scratch directory of one test, gone with everything in it when the test is. Header-only, so
// that tests which link none of the bus helpers can use it too.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace bus_test {

// A fresh directory under $TMPDIR (or /tmp), removed with everything in it when destroyed.
class TempDir {
public:
    TempDir() {
        const char* tmp = std::getenv("TMPDIR");
        path_ = std::string(tmp && *tmp ? tmp : "/tmp") + "/pkgd-test.XXXXXX";
        if (!::mkdtemp(path_.data())) throw std::runtime_error("mkdtemp failed");
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

}  // namespace bus_test
