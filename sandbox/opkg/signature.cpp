#include "signature.hpp"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/pkcs7.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <climits>
#include <memory>

namespace opkg {
namespace {

template <auto Free>
struct Deleter {
    template <typename T>
    void operator()(T* object) const {
        Free(object);
    }
};
using Bio = std::unique_ptr<BIO, Deleter<BIO_free>>;
using Pkcs7 = std::unique_ptr<PKCS7, Deleter<PKCS7_free>>;
using Store = std::unique_ptr<X509_STORE, Deleter<X509_STORE_free>>;

// The first queued OpenSSL error as text, and the queue emptied.
std::string openssl_reason(const char* fallback) {
    const unsigned long code = ERR_get_error();
    ERR_clear_error();
    if (code == 0) return fallback;
    char text[256];
    ERR_error_string_n(code, text, sizeof text);
    return text;
}

Bio memory_bio(std::string_view bytes) {
    if (bytes.size() > static_cast<std::size_t>(INT_MAX)) return Bio();
    return Bio(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size())));
}

}  // namespace

std::string verify_detached_signature(std::string_view data, std::string_view signature,
                                      const std::string& ca_file, const std::string& ca_path) {
    ERR_clear_error();
    if (ca_file.empty() && ca_path.empty()) return "no signature_ca_file to check the signature against";
    Store store(X509_STORE_new());
    if (!store) return "out of memory";
    if (!ca_file.empty() && X509_STORE_load_file(store.get(), ca_file.c_str()) != 1)
        return "cannot load the certificates of " + ca_file + ": " + openssl_reason("no certificate");
    if (!ca_path.empty() && X509_STORE_load_path(store.get(), ca_path.c_str()) != 1)
        return "cannot use the certificate directory " + ca_path + ": " + openssl_reason("unusable");
    // Feed signing certificates are not e-mail certificates: any purpose will do.
    X509_STORE_set_purpose(store.get(), X509_PURPOSE_ANY);

    Bio signature_bio = memory_bio(signature);
    if (!signature_bio) return "out of memory";
    Pkcs7 p7(PEM_read_bio_PKCS7(signature_bio.get(), nullptr, nullptr, nullptr));
    if (!p7) return "the signature is not a PEM PKCS#7 block: " + openssl_reason("unreadable");
    Bio content = memory_bio(data);
    if (!content) return "out of memory";
    if (PKCS7_verify(p7.get(), nullptr, store.get(), content.get(), nullptr, PKCS7_BINARY) != 1)
        return "signature check failed: " + openssl_reason("invalid signature");
    return {};
}

}  // namespace opkg
