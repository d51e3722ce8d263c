#include "ipk_builder.hpp"

#include <archive.h>
#include <archive_entry.h>
#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/pkcs7.h>
#include <openssl/x509.h>
#include <sys/stat.h>

#include <memory>
#include <stdexcept>

namespace opkgtest {
namespace {

template <auto Free>
struct Deleter {
    template <typename T>
    void operator()(T* object) const {
        Free(object);
    }
};
using Writer = std::unique_ptr<archive, Deleter<archive_write_free>>;
using Entry = std::unique_ptr<archive_entry, Deleter<archive_entry_free>>;
using Bio = std::unique_ptr<BIO, Deleter<BIO_free>>;

void check(bool ok, const char* what) {
    if (!ok) throw std::runtime_error(what);
}

// Writes with `setup` choosing the format into a string.
template <typename Setup, typename Body>
std::string write_archive(Setup setup, Body body) {
    std::string out(1 << 20, '\0');
    std::size_t used = 0;
    for (;;) {
        Writer a(archive_write_new());
        setup(a.get());
        archive_write_set_bytes_in_last_block(a.get(), 1);
        check(archive_write_open_memory(a.get(), out.data(), out.size(), &used) == ARCHIVE_OK, "open");
        if (body(a.get()) && archive_write_close(a.get()) == ARCHIVE_OK) break;
        out.resize(out.size() * 4);  // too small a buffer: try again with more room
    }
    out.resize(used);
    return out;
}

std::string pem_of(BIO* bio) {
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio, &data);
    return std::string(data, static_cast<std::size_t>(size));
}

}  // namespace

std::string tar_gz(const std::vector<Member>& members) {
    return write_archive(
        [](archive* a) {
            archive_write_set_format_pax_restricted(a);
            archive_write_add_filter_gzip(a);
        },
        [&](archive* a) {
            for (const Member& m : members) {
                Entry e(archive_entry_new());
                archive_entry_set_pathname(e.get(), m.name.c_str());
                archive_entry_set_perm(e.get(), m.mode);
                switch (m.kind) {
                    case Member::Kind::file:
                        archive_entry_set_filetype(e.get(), AE_IFREG);
                        archive_entry_set_size(e.get(), static_cast<la_int64_t>(m.data.size()));
                        break;
                    case Member::Kind::directory:
                        archive_entry_set_filetype(e.get(), AE_IFDIR);
                        break;
                    case Member::Kind::symlink:
                        archive_entry_set_filetype(e.get(), AE_IFLNK);
                        archive_entry_set_symlink(e.get(), m.data.c_str());
                        break;
                    case Member::Kind::fifo:
                        archive_entry_set_filetype(e.get(), AE_IFIFO);
                        break;
                }
                if (archive_write_header(a, e.get()) != ARCHIVE_OK) return false;
                if (m.kind == Member::Kind::file && !m.data.empty() &&
                    archive_write_data(a, m.data.data(), m.data.size()) < 0)
                    return false;
            }
            return true;
        });
}

std::string gzip(std::string_view data) {
    return write_archive(
        [](archive* a) {
            archive_write_set_format_raw(a);
            archive_write_add_filter_gzip(a);
        },
        [&](archive* a) {
            Entry e(archive_entry_new());
            archive_entry_set_filetype(e.get(), AE_IFREG);
            if (archive_write_header(a, e.get()) != ARCHIVE_OK) return false;
            return data.empty() || archive_write_data(a, data.data(), data.size()) >= 0;
        });
}

std::string ipk(std::string_view control, const std::vector<Member>& data,
                const std::vector<Member>& scripts) {
    std::vector<Member> control_members{{"./control", std::string(control)}};
    control_members.insert(control_members.end(), scripts.begin(), scripts.end());
    return tar_gz({{"./debian-binary", "2.0\n"},
                   {"./control.tar.gz", tar_gz(control_members)},
                   {"./data.tar.gz", tar_gz(data)}});
}

struct Signer::Keys {
    std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY_free>> key;
    std::unique_ptr<X509, Deleter<X509_free>> cert;
};

Signer::Signer(long valid_from_days, long valid_days) : keys_(std::make_unique<Keys>()) {
    keys_->key.reset(EVP_EC_gen("P-256"));
    keys_->cert.reset(X509_new());
    X509* cert = keys_->cert.get();
    check(keys_->key && cert, "key");
    X509_set_version(cert, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(cert), 1);
    X509_gmtime_adj(X509_getm_notBefore(cert), valid_from_days * 86400);
    X509_gmtime_adj(X509_getm_notAfter(cert), (valid_from_days + valid_days) * 86400);
    X509_NAME* name = X509_get_subject_name(cert);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("feed"), -1,
                               -1, 0);
    X509_set_issuer_name(cert, name);
    X509_set_pubkey(cert, keys_->key.get());
    check(X509_sign(cert, keys_->key.get(), EVP_sha256()) > 0, "certificate");
}

Signer::~Signer() = default;

std::string Signer::certificate_pem() const {
    Bio out(BIO_new(BIO_s_mem()));
    PEM_write_bio_X509(out.get(), keys_->cert.get());
    return pem_of(out.get());
}

std::string Signer::sign(std::string_view data) const {
    Bio in(BIO_new_mem_buf(data.data(), static_cast<int>(data.size())));
    std::unique_ptr<PKCS7, Deleter<PKCS7_free>> p7(
        PKCS7_sign(keys_->cert.get(), keys_->key.get(), nullptr, in.get(), PKCS7_DETACHED | PKCS7_BINARY));
    check(p7 != nullptr, "sign");
    Bio out(BIO_new(BIO_s_mem()));
    PEM_write_bio_PKCS7(out.get(), p7.get());
    return pem_of(out.get());
}

}  // namespace opkgtest
