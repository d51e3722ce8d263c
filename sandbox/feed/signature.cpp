#include "sandbox/feed/signature.hpp"

#include <array>

#include "openssl_handles.hpp"

namespace sandbox::feed {
namespace {

std::string digest_hex(std::string_view bytes, const char* algorithm) {
    std::array<unsigned char, EVP_MAX_MD_SIZE> md{};
    unsigned int n = 0;
    std::unique_ptr<EVP_MD, OpenSslFree<EVP_MD_free>> type(EVP_MD_fetch(nullptr, algorithm, nullptr));
    if (!type || EVP_Digest(bytes.data(), bytes.size(), md.data(), &n, type.get(), nullptr) != 1)
        throw_openssl(std::string(algorithm) + " digest");
    static constexpr char kHex[] = "0123456789abcdef";
    std::string out;
    for (unsigned int i = 0; i < n; ++i) {
        out += kHex[md[i] >> 4];
        out += kHex[md[i] & 0xf];
    }
    return out;
}

}  // namespace

std::string sign_detached(std::string_view content, const Credential& signer) {
    if (signer.empty() || signer.key_pem.empty()) throw FeedError("no signer certificate and key to sign with");
    X509Ptr cert = read_cert(signer.cert_pem, "the signer's certificate");
    PkeyPtr key = read_key(signer.key_pem, "the signer's key");
    BioPtr data = memory_bio(content);
    Pkcs7Ptr p7(PKCS7_sign(cert.get(), key.get(), nullptr, data.get(), PKCS7_DETACHED | PKCS7_BINARY));
    if (!p7) throw_openssl("PKCS7_sign");
    BioPtr out(BIO_new(BIO_s_mem()));
    if (!out || PEM_write_bio_PKCS7(out.get(), p7.get()) != 1) throw_openssl("PEM_write_bio_PKCS7");
    return bio_text(out.get());
}

std::string sha256_hex(std::string_view bytes) { return digest_hex(bytes, "SHA256"); }
std::string md5_hex(std::string_view bytes) { return digest_hex(bytes, "MD5"); }

}  // namespace sandbox::feed
