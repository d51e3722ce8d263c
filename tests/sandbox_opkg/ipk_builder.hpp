// Packages, feed indexes and signatures made in-process for the package tool's tests.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace opkgtest {

struct Member {
    enum class Kind { file, directory, symlink, fifo };
    std::string name;
    std::string data;  // a file's contents, a symlink's target
    Kind kind = Kind::file;
    unsigned mode = 0644;
};

std::string tar_gz(const std::vector<Member>& members);
std::string gzip(std::string_view data);

// An .ipk: "./debian-binary", "./control.tar.gz" ("./control" plus `scripts`), "./data.tar.gz".
std::string ipk(std::string_view control, const std::vector<Member>& data,
                const std::vector<Member>& scripts = {});

// A self-signed certificate and its key; `valid_from_days` and `valid_days` place its validity
// period relative to now.
class Signer {
public:
    explicit Signer(long valid_from_days = -1, long valid_days = 30);
    ~Signer();
    Signer(const Signer&) = delete;
    Signer& operator=(const Signer&) = delete;
    std::string certificate_pem() const;
    std::string sign(std::string_view data) const;  // PEM PKCS#7, detached, binary

private:
    struct Keys;
    std::unique_ptr<Keys> keys_;
};

}  // namespace opkgtest
