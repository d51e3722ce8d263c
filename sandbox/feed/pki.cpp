#include "sandbox/feed/pki.hpp"

#include <openssl/x509v3.h>
#include <sys/stat.h>

#include <fstream>
#include <sstream>

#include "openssl_handles.hpp"

namespace sandbox::feed {
namespace {

namespace fs = std::filesystem;

constexpr long kDay = 24 * 60 * 60;
constexpr long kTenYears = 3650 * kDay;

struct Validity {
    long from;  // seconds from now
    long to;
};

PkeyPtr new_key() {
    PkeyPtr key(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"));
    if (!key) throw_openssl("EC key generation");
    return key;
}

void add_extension(X509* cert, X509* issuer, int nid, const char* value) {
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
    std::unique_ptr<X509_EXTENSION, OpenSslFree<X509_EXTENSION_free>> ext(
        X509V3_EXT_conf_nid(nullptr, &ctx, nid, value));
    if (!ext || X509_add_ext(cert, ext.get(), -1) != 1) throw_openssl(std::string("extension ") + value);
}

enum class Role { ca, signer, server };

// A certificate for `key` named `common_name`, issued by `issuer` (self-signed when null).
X509Ptr make_cert(EVP_PKEY* key, const std::string& common_name, Role role, Validity validity,
                  X509* issuer, EVP_PKEY* issuer_key) {
    static long serial = 1;
    X509Ptr cert(X509_new());
    if (!cert) throw_openssl("X509_new");
    X509_set_version(cert.get(), X509_VERSION_3);
    // Serial numbers unique within the process, and across runs through the time component.
    ASN1_INTEGER_set_int64(X509_get_serialNumber(cert.get()), (static_cast<std::int64_t>(::time(nullptr)) << 16) + serial++);
    X509_gmtime_adj(X509_getm_notBefore(cert.get()), validity.from);
    X509_gmtime_adj(X509_getm_notAfter(cert.get()), validity.to);
    X509_NAME* name = X509_get_subject_name(cert.get());
    X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("pkgd sandbox"), -1, -1, 0);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>(common_name.c_str()), -1, -1, 0);
    X509* signer_cert = issuer != nullptr ? issuer : cert.get();
    X509_set_issuer_name(cert.get(), X509_get_subject_name(signer_cert));
    if (X509_set_pubkey(cert.get(), key) != 1) throw_openssl("X509_set_pubkey");
    add_extension(cert.get(), signer_cert, NID_subject_key_identifier, "hash");
    add_extension(cert.get(), signer_cert, NID_authority_key_identifier, "keyid:always");
    switch (role) {
    case Role::ca:
        add_extension(cert.get(), signer_cert, NID_basic_constraints, "critical,CA:TRUE");
        add_extension(cert.get(), signer_cert, NID_key_usage, "critical,keyCertSign,cRLSign");
        break;
    case Role::signer:
        // No extended key usage: the gateway's check asks for S/MIME signing, which that allows.
        add_extension(cert.get(), signer_cert, NID_basic_constraints, "critical,CA:FALSE");
        add_extension(cert.get(), signer_cert, NID_key_usage, "critical,digitalSignature,nonRepudiation");
        break;
    case Role::server:
        add_extension(cert.get(), signer_cert, NID_basic_constraints, "critical,CA:FALSE");
        add_extension(cert.get(), signer_cert, NID_key_usage, "critical,digitalSignature,keyEncipherment");
        add_extension(cert.get(), signer_cert, NID_ext_key_usage, "serverAuth");
        add_extension(cert.get(), signer_cert, NID_subject_alt_name, "IP:127.0.0.1,DNS:localhost");
        break;
    }
    if (X509_sign(cert.get(), issuer_key != nullptr ? issuer_key : key, EVP_sha256()) == 0)
        throw_openssl("X509_sign");
    return cert;
}

std::string cert_pem(X509* cert) {
    BioPtr bio(BIO_new(BIO_s_mem()));
    if (!bio || PEM_write_bio_X509(bio.get(), cert) != 1) throw_openssl("PEM_write_bio_X509");
    return bio_text(bio.get());
}

std::string key_pem(EVP_PKEY* key) {
    BioPtr bio(BIO_new(BIO_s_mem()));
    if (!bio || PEM_write_bio_PrivateKey(bio.get(), key, nullptr, nullptr, 0, nullptr, nullptr) != 1)
        throw_openssl("PEM_write_bio_PrivateKey");
    return bio_text(bio.get());
}

Credential issue(const std::string& common_name, Role role, Validity validity, const Credential* issuer) {
    PkeyPtr key = new_key();
    X509Ptr issuer_cert;
    PkeyPtr issuer_key;
    if (issuer != nullptr) {
        issuer_cert = read_cert(issuer->cert_pem, "the issuer's certificate");
        issuer_key = read_key(issuer->key_pem, "the issuer's key");
    }
    X509Ptr cert = make_cert(key.get(), common_name, role, validity, issuer_cert.get(), issuer_key.get());
    return {cert_pem(cert.get()), key_pem(key.get())};
}

struct Slot {
    const char* name;
    Credential Pki::*member;
};
constexpr Slot kSlots[] = {
    {"ca", &Pki::ca},
    {"signer", &Pki::signer},
    {"server", &Pki::server},
    {"expired-signer", &Pki::expired_signer},
    {"untrusted-ca", &Pki::untrusted_ca},
    {"untrusted-signer", &Pki::untrusted_signer},
};

void write_file(const fs::path& path, const std::string& text, mode_t mode) {
    // Created with its final mode, so a key is never readable by others, not even briefly.
    fs::remove(path);
    mode_t old = ::umask(0777 & ~mode);
    std::ofstream out(path, std::ios::binary);
    ::umask(old);
    out << text;
    out.close();
    if (!out) throw FeedError("cannot write " + path.string());
    ::chmod(path.c_str(), mode);
}

std::string read_file(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return {};
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

}  // namespace

Pki make_pki() {
    Pki pki;
    // Valid since well before the expired signer's time, so a check at that time fails only on it.
    const Validity good{-60 * kDay, kTenYears};
    pki.ca = issue("pkgd sandbox test CA", Role::ca, good, nullptr);
    pki.signer = issue("pkgd sandbox feed signer", Role::signer, good, &pki.ca);
    pki.server = issue("localhost", Role::server, good, &pki.ca);
    pki.expired_signer = issue("pkgd sandbox expired signer", Role::signer, {-30 * kDay, -kDay}, &pki.ca);
    pki.untrusted_ca = issue("untrusted CA", Role::ca, good, nullptr);
    pki.untrusted_signer = issue("untrusted signer", Role::signer, good, &pki.untrusted_ca);
    return pki;
}

void save_pki(const Pki& pki, const fs::path& dir) {
    std::error_code ec;
    fs::create_directories(dir, ec);
    if (ec) throw FeedError("cannot create " + dir.string() + ": " + ec.message());
    for (const Slot& slot : kSlots) {
        const Credential& c = pki.*slot.member;
        if (c.empty()) continue;
        write_file(dir / (std::string(slot.name) + ".pem"), c.cert_pem, 0644);
        write_file(dir / (std::string(slot.name) + ".key"), c.key_pem, 0600);
    }
}

Pki load_pki(const fs::path& dir) {
    Pki pki;
    for (const Slot& slot : kSlots) {
        Credential& c = pki.*slot.member;
        c.cert_pem = read_file(dir / (std::string(slot.name) + ".pem"));
        c.key_pem = read_file(dir / (std::string(slot.name) + ".key"));
    }
    if (pki.ca.empty() || pki.signer.empty() || pki.signer.key_pem.empty())
        throw FeedError("no test PKI in " + dir.string() + " (ca.pem, signer.pem and signer.key; see \"pkgd-feed pki\")");
    return pki;
}

}  // namespace sandbox::feed
