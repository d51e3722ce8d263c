// Version 3 and 5 UUIDs: the digest of the namespace's standard 16 bytes followed by the name.
#include <md5.h>
#include <openssl/evp.h>

#include <cstring>
#include <memory>

#include "pkgd/uuid.hpp"
#include "ubus/blob.hpp"

namespace pkgd {
namespace {

using Bytes16 = std::array<std::uint8_t, 16>;

// The standard (network byte order) form, which is what gets hashed.
Bytes16 to_bytes(const uuid_fields& u) {
    Bytes16 b{};
    ubus::wire::put32(b.data(), u.time_low);
    ubus::wire::put16(b.data() + 4, u.time_mid);
    ubus::wire::put16(b.data() + 6, u.time_hi_and_version);
    b[8] = u.clock_seq_hi_and_reserved;
    b[9] = u.clock_seq_low;
    std::memcpy(b.data() + 10, u.node.data(), u.node.size());
    return b;
}

// The first 16 digest bytes as a UUID of the given version with the RFC 4122 variant.
uuid_fields from_digest(const std::uint8_t* digest, std::uint16_t version) {
    uuid_fields u;
    u.time_low = ubus::wire::get32(digest);
    u.time_mid = ubus::wire::get16(digest + 4);
    u.time_hi_and_version =
        static_cast<std::uint16_t>((ubus::wire::get16(digest + 6) & 0x0FFF) | (version << 12));
    u.clock_seq_hi_and_reserved = static_cast<std::uint8_t>((digest[8] & 0x3F) | 0x80);
    u.clock_seq_low = digest[9];
    std::memcpy(u.node.data(), digest + 10, u.node.size());
    return u;
}

struct MdCtxFree {
    void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
};

}  // namespace

uuid_fields uuid_create_md5_from_name(uuid_fields nsid, std::span<const std::uint8_t> name) {
    const Bytes16 ns = to_bytes(nsid);
    MD5_CTX ctx;
    MD5Init(&ctx);
    MD5Update(&ctx, ns.data(), ns.size());
    MD5Update(&ctx, name.data(), name.size());
    std::uint8_t digest[MD5_DIGEST_LENGTH];
    MD5Final(digest, &ctx);
    return from_digest(digest, 3);
}

std::optional<uuid_fields> uuid_create_sha1_from_name(uuid_fields nsid, std::span<const std::uint8_t> name) {
    const Bytes16 ns = to_bytes(nsid);
    const std::unique_ptr<EVP_MD_CTX, MdCtxFree> ctx(EVP_MD_CTX_new());
    std::uint8_t digest[EVP_MAX_MD_SIZE];
    unsigned int len = 0;
    if (!ctx || EVP_DigestInit_ex(ctx.get(), EVP_sha1(), nullptr) != 1 ||
        EVP_DigestUpdate(ctx.get(), ns.data(), ns.size()) != 1 ||
        EVP_DigestUpdate(ctx.get(), name.data(), name.size()) != 1 ||
        EVP_DigestFinal_ex(ctx.get(), digest, &len) != 1 || len < 16) {
        return std::nullopt;
    }
    return from_digest(digest, 5);
}

}  // namespace pkgd
