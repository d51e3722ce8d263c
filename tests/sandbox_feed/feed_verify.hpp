// Independent checks of what the feed tools make, written against OpenSSL and libarchive directly.
#pragma once

#include <archive.h>
#include <archive_entry.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/pkcs7.h>
#include <openssl/x509.h>

#include <cstdio>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace feedcheck {

struct Member {
    std::string name;
    bool symlink = false;
    std::string content;  // a symlink's target
    unsigned mode = 0;
    long long size = 0;   // as the header says
};

// The members of a (gzip) tar; with `first_header_only`, the first header and nothing else (a
// bomb's data is never inflated).
inline std::vector<Member> members(const std::string& bytes, bool first_header_only = false) {
    std::unique_ptr<archive, int (*)(archive*)> a(archive_read_new(), archive_read_free);
    archive_read_support_filter_all(a.get());
    archive_read_support_format_all(a.get());
    std::vector<Member> out;
    if (archive_read_open_memory(a.get(), bytes.data(), bytes.size()) != ARCHIVE_OK) return out;
    archive_entry* e = nullptr;
    while (archive_read_next_header(a.get(), &e) == ARCHIVE_OK) {
        Member m{archive_entry_pathname(e), archive_entry_filetype(e) == AE_IFLNK, "",
                 static_cast<unsigned>(archive_entry_perm(e)), archive_entry_size(e)};
        if (m.symlink) m.content = archive_entry_symlink(e);
        char buf[4096];
        la_ssize_t n;
        while (!first_header_only && (n = archive_read_data(a.get(), buf, sizeof buf)) > 0)
            m.content.append(buf, static_cast<size_t>(n));
        out.push_back(m);
        if (first_header_only) break;
    }
    return out;
}

inline std::optional<std::string> member(const std::string& bytes, const std::string& name) {
    for (const Member& m : members(bytes))
        if (m.name == name) return m.content;
    return std::nullopt;
}

inline std::string sha256(const std::string& bytes) {
    unsigned char md[32];
    unsigned n = 0;
    EVP_Digest(bytes.data(), bytes.size(), md, &n, EVP_sha256(), nullptr);
    std::string hex;
    char two[3];
    for (unsigned i = 0; i < n; ++i) {
        std::snprintf(two, sizeof two, "%02x", md[i]);
        hex += two;
    }
    return hex;
}

// The gateway's check: PKCS7_verify, binary, no extra certificates, the CA's certificate as the
// store's only member; `at` moves the check's clock.
inline bool verify(const std::string& sig_pem, const std::string& content, const std::string& ca_pem,
                   std::optional<time_t> at = std::nullopt) {
    std::unique_ptr<BIO, int (*)(BIO*)> ca_bio(BIO_new_mem_buf(ca_pem.data(), static_cast<int>(ca_pem.size())), BIO_free);
    std::unique_ptr<X509, void (*)(X509*)> ca(PEM_read_bio_X509(ca_bio.get(), nullptr, nullptr, nullptr), X509_free);
    std::unique_ptr<X509_STORE, void (*)(X509_STORE*)> store(X509_STORE_new(), X509_STORE_free);
    if (!ca || X509_STORE_add_cert(store.get(), ca.get()) != 1) return false;
    if (at) X509_VERIFY_PARAM_set_time(X509_STORE_get0_param(store.get()), *at);
    std::unique_ptr<BIO, int (*)(BIO*)> sig_bio(BIO_new_mem_buf(sig_pem.data(), static_cast<int>(sig_pem.size())), BIO_free);
    std::unique_ptr<PKCS7, void (*)(PKCS7*)> p7(PEM_read_bio_PKCS7(sig_bio.get(), nullptr, nullptr, nullptr), PKCS7_free);
    std::unique_ptr<BIO, int (*)(BIO*)> data(BIO_new_mem_buf(content.data(), static_cast<int>(content.size())), BIO_free);
    return p7 && PKCS7_verify(p7.get(), nullptr, store.get(), data.get(), nullptr, PKCS7_BINARY) == 1;
}

}  // namespace feedcheck

namespace feedcheck {

inline std::string gunzip(const std::string& bytes) {
    std::unique_ptr<archive, int (*)(archive*)> a(archive_read_new(), archive_read_free);
    archive_read_support_filter_gzip(a.get());
    archive_read_support_format_raw(a.get());
    archive_entry* e = nullptr;
    std::string out;
    if (archive_read_open_memory(a.get(), bytes.data(), bytes.size()) != ARCHIVE_OK ||
        archive_read_next_header(a.get(), &e) != ARCHIVE_OK)
        return out;
    char buf[4096];
    la_ssize_t n;
    while ((n = archive_read_data(a.get(), buf, sizeof buf)) > 0) out.append(buf, static_cast<size_t>(n));
    return out;
}

}  // namespace feedcheck
