// Packages, certificates and detached signatures made in-process, as the feed tools make them.
#pragma once

#include <archive.h>
#include <archive_entry.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/pkcs7.h>
#include <openssl/x509.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace pkgd::testing {

struct member {
    member(std::string n, std::string d, unsigned t = AE_IFREG, std::string l = {})
        : name(std::move(n)), data(std::move(d)), type(t), link(std::move(l)) {}
    std::string name, data;
    unsigned type;     // AE_IFLNK or AE_IFCHR for hostile members
    std::string link;  // the symbolic link's target
};

inline std::string gz_tar(const std::vector<member>& members) {
    std::string out;
    const std::unique_ptr<archive, decltype(&archive_write_free)> a(archive_write_new(), archive_write_free);
    archive_write_add_filter_gzip(a.get());
    archive_write_set_format_pax_restricted(a.get());
    archive_write_open(
        a.get(), &out, nullptr,
        [](archive*, void* o, const void* buf, size_t n) -> la_ssize_t {
            static_cast<std::string*>(o)->append(static_cast<const char*>(buf), n);
            return static_cast<la_ssize_t>(n);
        },
        nullptr);
    for (const member& m : members) {
        const std::unique_ptr<archive_entry, decltype(&archive_entry_free)> e(archive_entry_new(),
                                                                              archive_entry_free);
        archive_entry_set_pathname(e.get(), m.name.c_str());
        archive_entry_set_filetype(e.get(), m.type);
        if (!m.link.empty()) archive_entry_set_symlink(e.get(), m.link.c_str());
        archive_entry_set_size(e.get(), m.type == AE_IFREG ? static_cast<la_int64_t>(m.data.size()) : 0);
        archive_write_header(a.get(), e.get());
        archive_write_data(a.get(), m.data.data(), m.data.size());
    }
    archive_write_close(a.get());
    return out;
}

inline std::string drain(BIO* bio) {
    char* data = nullptr;
    const long n = BIO_get_mem_data(bio, &data);
    std::string text(data, static_cast<std::size_t>(n));
    BIO_free(bio);
    return text;
}

// A key and its certificate, issued by `issuer` (a self-signed version-1 certificate, which
// counts as a CA, without one), valid from `from` to `to` seconds around now.
struct signer {
    std::shared_ptr<EVP_PKEY> key{EVP_EC_gen("P-256"), EVP_PKEY_free};
    std::shared_ptr<X509> cert{X509_new(), X509_free};

    explicit signer(const signer* issuer, long from = -86400, long to = 86400 * 365) {
        X509* c = cert.get();
        ASN1_INTEGER_set(X509_get_serialNumber(c), std::rand());
        X509_gmtime_adj(X509_getm_notBefore(c), from);
        X509_gmtime_adj(X509_getm_notAfter(c), to);
        X509_NAME_add_entry_by_txt(X509_get_subject_name(c), "CN", MBSTRING_ASC,
                                   reinterpret_cast<const unsigned char*>(issuer ? "signer" : "ca"), -1, -1,
                                   0);
        X509_set_issuer_name(c, X509_get_subject_name(issuer ? issuer->cert.get() : c));
        X509_set_pubkey(c, key.get());
        X509_sign(c, issuer ? issuer->key.get() : key.get(), EVP_sha256());
    }
    std::string pem() const {
        BIO* bio = BIO_new(BIO_s_mem());
        PEM_write_bio_X509(bio, cert.get());
        return drain(bio);
    }
    std::string sign(const std::string& content) const {  // PEM PKCS#7, detached, binary
        BIO* in = BIO_new_mem_buf(content.data(), static_cast<int>(content.size()));
        PKCS7* p7 = PKCS7_sign(cert.get(), key.get(), nullptr, in, PKCS7_DETACHED | PKCS7_BINARY);
        BIO* out = BIO_new(BIO_s_mem());
        PEM_write_bio_PKCS7(out, p7);
        PKCS7_free(p7);
        BIO_free(in);
        return drain(out);
    }
};

inline std::string sha256_hex(const std::string& data) {
    unsigned char d[32];
    EVP_Digest(data.data(), data.size(), d, nullptr, EVP_sha256(), nullptr);
    std::string hex;
    for (unsigned char c : d) hex += {"0123456789abcdef"[c >> 4], "0123456789abcdef"[c & 15]};
    return hex;
}

struct ipk_options {
    std::string control = "Package: hello\nVersion: 1.0\n";
    std::string prefix;  // before every member's name
    bool with_signature = true;
    bool bad_digest = false;
    std::vector<member> extra;  // before the package's own members
};

// The package file's bytes, `edit` changing the defaults; the signature of its checksum list
// also goes to `sig`.
inline std::string build_ipk(const signer& by, const std::function<void(ipk_options&)>& edit = {},
                             std::string* sig = nullptr) {
    ipk_options opt;
    if (edit) edit(opt);
    const std::string control = gz_tar({{opt.prefix + "control", opt.control}});
    const std::string data = gz_tar({{"./usr/bin/hello", "#!/bin/sh\n"}});
    const std::string sums = (opt.bad_digest ? "0" + sha256_hex(data).substr(1) : sha256_hex(data)) +
                             " data.tar.gz\n" + sha256_hex(control) + " control.tar.gz\n";
    const std::string signature = by.sign(sums);
    if (sig) *sig = signature;
    std::vector<member> members = opt.extra;
    for (const auto& [name, text] : {std::pair<std::string, std::string>{"debian-binary", "2.0\n"},
                                     {"data.tar.gz", data},
                                     {"control.tar.gz", control},
                                     {"checksum.sha256", sums},
                                     {"checksum.sig", signature}})
        if (name != "checksum.sig" || opt.with_signature) members.emplace_back(opt.prefix + name, text);
    return gz_tar(members);
}

}  // namespace pkgd::testing
