// Packages, certificates and signatures made in-process, as the feed tools make them.
#pragma once

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <ctime>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace pkgd::testing {

struct member {
    member(std::string n, std::string d, unsigned t = 0100000, std::string l = {})
        : name(std::move(n)), data(std::move(d)), type(t), link(std::move(l)) {}
    std::string name;
    std::string data;
    unsigned type;     // AE_IFREG; AE_IFLNK / AE_IFCHR for hostile members
    std::string link;  // symlink target
};

// A gzip-compressed tar of the members.
std::string gz_tar(const std::vector<member>& members);

// A key and its certificate, issued by `issuer` (self-signed without one), valid from `from` to
// `to` seconds around now.
struct signer {
    std::shared_ptr<EVP_PKEY> key;
    std::shared_ptr<X509> cert;
    std::string pem() const;
    std::string sign(const std::string& content) const;  // PEM PKCS#7, detached, binary
};
signer make_signer(const signer* issuer, long from = -86400, long to = 86400 * 365);

struct ipk_options {
    std::string name = "hello";
    std::string control = "Package: hello\nVersion: 1.0\n";
    std::string prefix;                      // "./" before every member name
    bool with_signature = true;
    bool bad_digest = false;
    std::vector<member> extra;               // written first
};
// The package file's bytes, `edit` changing the defaults; the signature over its checksum list
// goes to `sig` as well.
std::string build_ipk(const signer& by, const std::function<void(ipk_options&)>& edit = {}, std::string* sig = nullptr);

}  // namespace pkgd::testing
