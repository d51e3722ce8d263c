// `opkg sha256sum FILE`: FILE's SHA-256 digest as lower-case hex, printed and also left in
// FILE.sha256 without a line end, where pkgd's package check reads it.
#include <openssl/evp.h>

#include <cstdio>
#include <memory>

#include "context.hpp"
#include "files.hpp"

namespace opkg {
namespace {

struct MdContextFree {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

std::optional<std::string> sha256_hex(std::string_view data) {
    std::unique_ptr<EVP_MD_CTX, MdContextFree> md(EVP_MD_CTX_new());
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (!md || EVP_DigestInit_ex(md.get(), EVP_sha256(), nullptr) != 1 ||
        EVP_DigestUpdate(md.get(), data.data(), data.size()) != 1 ||
        EVP_DigestFinal_ex(md.get(), digest, &length) != 1)
        return std::nullopt;
    static constexpr char hex[] = "0123456789abcdef";
    std::string out;
    for (unsigned int i = 0; i < length; ++i) {
        out += hex[digest[i] >> 4];
        out += hex[digest[i] & 0x0f];
    }
    return out;
}

}  // namespace

int run_sha256sum(const Context& context) {
    if (context.invocation.operands.size() != 1) {
        report("sha256sum takes one file");
        return exit_usage;
    }
    const std::string& file = context.invocation.operands.front();
    std::string error;
    const std::optional<std::string> data = read_file(file, &error);
    if (!data) {
        report(error);
        return exit_failed;
    }
    const std::optional<std::string> digest = sha256_hex(*data);
    if (!digest) {
        report(file + ": cannot compute the digest");
        return exit_failed;
    }
    if (std::string failed = replace_file(file + ".sha256", *digest, 0644); !failed.empty()) {
        report(failed);
        return exit_failed;
    }
    std::printf("%s\n", digest->c_str());
    return exit_ok;
}

}  // namespace opkg
