// Owners for the OpenSSL objects the feed tools use, and the error text of a failed call.
#pragma once

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/pkcs7.h>
#include <openssl/x509.h>

#include <memory>
#include <string>
#include <string_view>

#include "sandbox/feed/pki.hpp"

namespace sandbox::feed {

template <auto Free>
struct OpenSslFree {
    template <typename T>
    void operator()(T* p) const { Free(p); }
};

using BioPtr = std::unique_ptr<BIO, OpenSslFree<BIO_free_all>>;
using PkeyPtr = std::unique_ptr<EVP_PKEY, OpenSslFree<EVP_PKEY_free>>;
using X509Ptr = std::unique_ptr<X509, OpenSslFree<X509_free>>;
using Pkcs7Ptr = std::unique_ptr<PKCS7, OpenSslFree<PKCS7_free>>;

// "what: <OpenSSL's first queued error>" as an exception; clears the queue.
[[noreturn]] inline void throw_openssl(std::string_view what) {
    unsigned long code = ERR_get_error();
    ERR_clear_error();
    char text[256] = "unknown error";
    if (code != 0) ERR_error_string_n(code, text, sizeof text);
    throw FeedError(std::string(what) + ": " + text);
}

// A read-only memory BIO over `bytes`, which must outlive it.
inline BioPtr memory_bio(std::string_view bytes) {
    BioPtr bio(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size())));
    if (!bio) throw_openssl("BIO_new_mem_buf");
    return bio;
}

// What was written to a memory BIO.
inline std::string bio_text(BIO* bio) {
    char* data = nullptr;
    long n = BIO_get_mem_data(bio, &data);
    return n > 0 ? std::string(data, static_cast<std::size_t>(n)) : std::string();
}

inline X509Ptr read_cert(std::string_view pem, std::string_view what) {
    BioPtr bio = memory_bio(pem);
    X509Ptr cert(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
    if (!cert) throw_openssl(std::string("no certificate in ") + std::string(what));
    return cert;
}

inline PkeyPtr read_key(std::string_view pem, std::string_view what) {
    BioPtr bio = memory_bio(pem);
    PkeyPtr key(PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr));
    if (!key) throw_openssl(std::string("no private key in ") + std::string(what));
    return key;
}

}  // namespace sandbox::feed
