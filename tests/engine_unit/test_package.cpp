#include "test_package.hpp"

#include <archive.h>
#include <archive_entry.h>
#include <openssl/pem.h>
#include <openssl/pkcs7.h>
#include <openssl/sha.h>
#include <openssl/x509v3.h>

namespace pkgd::testing {
namespace {

std::string bio_text(BIO* bio) {
    char* data = nullptr;
    const long n = BIO_get_mem_data(bio, &data);
    std::string text(data, static_cast<std::size_t>(n));
    BIO_free(bio);
    return text;
}

std::string sha256_hex(const std::string& data) {
    unsigned char d[SHA256_DIGEST_LENGTH];
    EVP_Digest(data.data(), data.size(), d, nullptr, EVP_sha256(), nullptr);
    std::string hex;
    for (unsigned char c : d) hex += "0123456789abcdef"[c >> 4], hex += "0123456789abcdef"[c & 15];
    return hex;
}

}  // namespace

std::string gz_tar(const std::vector<member>& members) {
    std::string out;
    archive* a = archive_write_new();
    archive_write_add_filter_gzip(a);
    archive_write_set_format_pax_restricted(a);
    archive_write_open(a, &out, nullptr,
                       [](archive*, void* o, const void* buf, size_t n) -> la_ssize_t {
                           static_cast<std::string*>(o)->append(static_cast<const char*>(buf), n);
                           return static_cast<la_ssize_t>(n);
                       },
                       nullptr);
    for (const member& m : members) {
        archive_entry* e = archive_entry_new();
        archive_entry_set_pathname(e, m.name.c_str());
        archive_entry_set_filetype(e, m.type);
        archive_entry_set_perm(e, 0644);
        if (!m.link.empty()) archive_entry_set_symlink(e, m.link.c_str());
        archive_entry_set_size(e, m.type == AE_IFREG ? static_cast<la_int64_t>(m.data.size()) : 0);
        archive_write_header(a, e);
        if (m.type == AE_IFREG) archive_write_data(a, m.data.data(), m.data.size());
        archive_entry_free(e);
    }
    archive_write_close(a);
    archive_write_free(a);
    return out;
}

signer make_signer(const signer* issuer, long from, long to) {
    signer s{std::shared_ptr<EVP_PKEY>(EVP_EC_gen("P-256"), EVP_PKEY_free),
             std::shared_ptr<X509>(X509_new(), X509_free)};
    X509* c = s.cert.get();
    X509_set_version(c, 2);
    static long serial = 1;
    ASN1_INTEGER_set(X509_get_serialNumber(c), serial++);
    X509_gmtime_adj(X509_getm_notBefore(c), from);
    X509_gmtime_adj(X509_getm_notAfter(c), to);
    X509_NAME_add_entry_by_txt(X509_get_subject_name(c), "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>(issuer ? "signer" : "ca"), -1, -1, 0);
    X509_set_issuer_name(c, X509_get_subject_name(issuer ? issuer->cert.get() : c));
    X509_set_pubkey(c, s.key.get());
    if (!issuer) {
        X509V3_CTX v3;
        X509V3_set_ctx(&v3, c, c, nullptr, nullptr, 0);
        X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, &v3, NID_basic_constraints, "critical,CA:TRUE");
        X509_add_ext(c, ext, -1);
        X509_EXTENSION_free(ext);
    }
    X509_sign(c, issuer ? issuer->key.get() : s.key.get(), EVP_sha256());
    return s;
}

std::string signer::pem() const {
    BIO* bio = BIO_new(BIO_s_mem());
    PEM_write_bio_X509(bio, cert.get());
    return bio_text(bio);
}

std::string signer::sign(const std::string& content) const {
    BIO* in = BIO_new_mem_buf(content.data(), static_cast<int>(content.size()));
    PKCS7* p7 = PKCS7_sign(cert.get(), key.get(), nullptr, in, PKCS7_DETACHED | PKCS7_BINARY);
    BIO* out = BIO_new(BIO_s_mem());
    PEM_write_bio_PKCS7(out, p7);
    PKCS7_free(p7);
    BIO_free(in);
    return bio_text(out);
}

std::string build_ipk(const signer& by, const std::function<void(ipk_options&)>& edit, std::string* sig) {
    ipk_options opt;
    if (edit) edit(opt);
    const std::string control = gz_tar({{opt.prefix + "control", opt.control}});
    const std::string data = gz_tar({{"./usr/bin/" + opt.name, "#!/bin/sh\n"}});
    const std::string sums = (opt.bad_digest ? "0" + sha256_hex(data).substr(1) : sha256_hex(data)) +
                             " data.tar.gz\n" + sha256_hex(control) + " control.tar.gz\n";
    const std::string signature = by.sign(sums);
    if (sig) *sig = signature;
    std::vector<member> members = opt.extra;
    for (const auto& [name, text] : {std::pair<std::string, std::string>{"debian-binary", "2.0\n"},
                                     {"data.tar.gz", data}, {"control.tar.gz", control},
                                     {"checksum.sha256", sums}, {"checksum.sig", signature}})
        if (name != "checksum.sig" || opt.with_signature) members.push_back({opt.prefix + name, text});
    return gz_tar(members);
}

}  // namespace pkgd::testing
