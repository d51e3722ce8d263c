// The sandbox feed's test PKI: a CA, a signer it certifies, an HTTPS server certificate for
// loopback, and the wrong kinds of signer that hostile packages are signed with. Everything is PEM.
#pragma once

#include <filesystem>
#include <stdexcept>
#include <string>

namespace sandbox::feed {

// Bad input or a failing library call in the feed tools; the message says which and why.
struct FeedError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct Credential {
    std::string cert_pem;
    std::string key_pem;  // PKCS#8, unencrypted
    bool empty() const { return cert_pem.empty(); }
};

struct Pki {
    Credential ca;                // the trust anchor a gateway keeps in /etc/opkg/opkg.pem
    Credential signer;            // signs packages and indexes; certified by `ca`
    Credential server;            // HTTPS on 127.0.0.1 / localhost; certified by `ca`
    Credential expired_signer;    // certified by `ca`, but its validity ended yesterday
    Credential untrusted_ca;      // a CA no gateway trusts
    Credential untrusted_signer;  // certified by `untrusted_ca`
};

// A fresh PKI (ECDSA P-256 keys, SHA-256 signatures). The CA and the valid certificates are good
// for ten years from now.
Pki make_pki();

// One NAME.pem and NAME.key per credential (ca, signer, server, expired-signer, untrusted-ca,
// untrusted-signer). Keys are written with mode 0600, certificates 0644.
void save_pki(const Pki& pki, const std::filesystem::path& dir);
// What save_pki wrote; a missing ca or signer is an error, the others may be absent.
Pki load_pki(const std::filesystem::path& dir);

}  // namespace sandbox::feed
