#include "ubus/blob.hpp"

#include <bit>
#include <cstring>
#include <limits>

namespace ubus {

namespace {
constexpr std::size_t kBad = std::numeric_limits<std::size_t>::max();
constexpr std::uint32_t kExtBit = 0x80000000u;

std::uint32_t header_word(std::uint32_t id, bool ext, std::size_t len) {
    return (ext ? kExtBit : 0u) | ((id & 0x7fu) << 24) | (static_cast<std::uint32_t>(len) & 0xffffffu);
}
}  // namespace

// ---------------------------------------------------------------------------------------------
// Attr

Attr Attr::at(Bytes bytes) {
    if (bytes.size() < 4) return {};
    const std::size_t len = wire::get32(bytes.data()) & 0xffffffu;
    if (len < 4 || len > bytes.size()) return {};
    return Attr(bytes.data());
}

std::string_view Attr::str() const {
    if (!is_string()) return {};
    const char* s = reinterpret_cast<const char*>(p_ + 4);
    return {s, ::strnlen(s, raw_len() - 4)};
}

AttrList Attr::nested() const { return AttrList(payload()); }

std::size_t Attr::name_header_len() const {
    if (!p_) return kBad;
    if (!extended()) return 0;
    const std::size_t plen = raw_len() - 4;
    if (plen < 2) return kBad;
    const std::size_t n = wire::get16(p_ + 4);
    const std::size_t h = pad4(n + 3);
    if (plen < h) return kBad;
    if (p_[4 + 2 + n] != 0) return kBad;
    return h;
}

bool Attr::valid(bool need_name) const {
    if (!p_) return false;
    const std::size_t h = name_header_len();
    if (h == kBad) return false;
    if (need_name && (!extended() || wire::get16(p_ + 4) == 0)) return false;
    if (id() > kTypeMax) return false;
    const std::size_t vlen = raw_len() - 4 - h;
    const std::uint8_t* v = p_ + 4 + h;
    switch (type()) {
    case Type::Int8: return vlen == 1;
    case Type::Int16: return vlen == 2;
    case Type::Int32: return vlen == 4;
    case Type::Int64: return vlen == 8;
    case Type::Double: return vlen >= 8;
    case Type::String: return vlen >= 1 && v[vlen - 1] == 0;
    default: return true;
    }
}

std::string_view Attr::name() const {
    const std::size_t h = name_header_len();
    if (h == kBad || h == 0) return {};
    return {reinterpret_cast<const char*>(p_ + 6), wire::get16(p_ + 4)};
}

Bytes Attr::data() const {
    const std::size_t h = name_header_len();
    if (h == kBad) return {};
    return {p_ + 4 + h, raw_len() - 4 - h};
}

std::uint8_t Attr::as_u8() const {
    Bytes d = data();
    return d.size() == 1 ? d[0] : 0;
}

std::int16_t Attr::as_i16() const {
    Bytes d = data();
    return d.size() == 2 ? static_cast<std::int16_t>(wire::get16(d.data())) : 0;
}

std::int32_t Attr::as_i32() const {
    Bytes d = data();
    return d.size() == 4 ? static_cast<std::int32_t>(wire::get32(d.data())) : 0;
}

std::int64_t Attr::as_i64() const {
    Bytes d = data();
    return d.size() == 8 ? static_cast<std::int64_t>(wire::get64(d.data())) : 0;
}

double Attr::as_double() const {
    Bytes d = data();
    return d.size() >= 8 ? std::bit_cast<double>(wire::get64(d.data())) : 0.0;
}

std::string_view Attr::as_string() const {
    Bytes d = data();
    if (d.empty() || d.back() != 0) return {};
    const char* s = reinterpret_cast<const char*>(d.data());
    return {s, ::strnlen(s, d.size())};
}

AttrList Attr::children() const { return AttrList(data()); }

void AttrList::iterator::settle() {
    if (p_ == nullptr || end_ - p_ < 4) {
        cur_ = Attr();
        return;
    }
    const std::size_t len = wire::get32(p_) & 0xffffffu;
    if (len < 4 || pad4(len) > static_cast<std::size_t>(end_ - p_)) {
        cur_ = Attr();
        return;
    }
    cur_ = Attr(p_);
}

// ---------------------------------------------------------------------------------------------
// Policy parsing

int parse(std::span<const Policy> policy, Bytes members, std::span<Attr> out) {
    for (auto& a : out) a = Attr();
    if (members.empty()) return -22;
    // The walk stops quietly at a zero length or at a member that runs past the end; a length
    // of 1 to 3 is a malformed member and fails the parse like any other.
    const std::uint8_t* p = members.data();
    const std::uint8_t* end = p + members.size();
    while (end - p >= 4) {
        const std::size_t len = wire::get32(p) & 0xffffffu;
        if (len == 0 || pad4(len) > static_cast<std::size_t>(end - p)) break;
        Attr a = Attr::at(Bytes(p, static_cast<std::size_t>(end - p)));
        if (!a.valid(false)) return -1;
        if (a.extended()) {
            const std::string_view name = a.name();
            for (std::size_t i = 0; i < policy.size() && i < out.size(); ++i) {
                if (out[i] || policy[i].name != name) continue;
                if (policy[i].type != Type::Unspec && policy[i].type != a.type()) continue;
                out[i] = a;
            }
        }
        p += pad4(len);
    }
    return 0;
}

int parse_array(std::span<const Policy> policy, Bytes elements, std::span<Attr> out) {
    for (auto& a : out) a = Attr();
    std::size_t i = 0;
    for (Attr a : AttrList(elements)) {
        if (i >= policy.size() || i >= out.size()) break;
        if (!a.valid(false)) return -1;
        if (policy[i].type != Type::Unspec && policy[i].type != a.type()) continue;
        out[i++] = a;
    }
    return 0;
}

// ---------------------------------------------------------------------------------------------
// BlobBuf

BlobBuf::BlobBuf(std::uint32_t root_id, std::size_t headroom) : headroom_(headroom) {
    buf_.reserve(256);
    reset(root_id);
}

void BlobBuf::reset(std::uint32_t root_id) {
    buf_.assign(headroom_ + 4, 0);
    wire::put32(buf_.data() + headroom_, header_word(root_id, false, 4));
}

std::uint8_t* BlobBuf::grow(std::size_t n) {
    const std::size_t off = buf_.size();
    buf_.resize(off + n);
    return buf_.data() + off;
}

// Writes a header (and blobmsg name header) for a value of `value_len` bytes, followed by
// room for the value and its padding. Returns the attribute's offset.
std::size_t BlobBuf::open_attr(std::uint32_t hdr_id, bool ext, std::string_view name, std::size_t value_len) {
    name = name.substr(0, 0xffff);
    const std::size_t h = ext ? pad4(name.size() + 3) : 0;
    const std::size_t len = 4 + h + value_len;
    const std::size_t off = buf_.size();
    std::uint8_t* p = grow(pad4(len));
    wire::put32(p, header_word(hdr_id, ext, len));
    if (ext) {
        wire::put16(p + 4, static_cast<std::uint16_t>(name.size()));
        if (!name.empty()) std::memcpy(p + 6, name.data(), name.size());
    }
    return off;
}

void BlobBuf::finish(std::size_t) {
    // Root length is kept in step lazily: recompute from the buffer size.
    wire::put32(buf_.data() + headroom_,
                (wire::get32(buf_.data() + headroom_) & 0xff000000u) |
                    (static_cast<std::uint32_t>(buf_.size() - headroom_) & 0xffffffu));
}

// The value of the blobmsg attribute at `off` starts after its name header.
std::uint8_t* BlobBuf::value_ptr(std::size_t off) {
    std::uint8_t* p = buf_.data() + off;
    return p + 4 + pad4(std::size_t{wire::get16(p + 4)} + 3);
}

void BlobBuf::put_u8(std::uint32_t id, std::uint8_t v) {
    std::size_t off = open_attr(id, false, {}, 1);
    buf_[off + 4] = v;
    finish(off);
}

void BlobBuf::put_u32(std::uint32_t id, std::uint32_t v) {
    std::size_t off = open_attr(id, false, {}, 4);
    wire::put32(buf_.data() + off + 4, v);
    finish(off);
}

void BlobBuf::put_string(std::uint32_t id, std::string_view s) {
    std::size_t off = open_attr(id, false, {}, s.size() + 1);
    if (!s.empty()) std::memcpy(buf_.data() + off + 4, s.data(), s.size());
    finish(off);
}

void BlobBuf::put_raw(std::uint32_t id, Bytes payload) {
    std::size_t off = open_attr(id, false, {}, payload.size());
    if (!payload.empty()) std::memcpy(buf_.data() + off + 4, payload.data(), payload.size());
    finish(off);
}

std::size_t BlobBuf::nest_open(std::uint32_t id) {
    std::size_t off = open_attr(id, false, {}, 0);
    finish(off);
    return off;
}

void BlobBuf::add_value(std::string_view name, Type type, Bytes value) {
    std::size_t off = open_attr(static_cast<std::uint32_t>(type), true, name, value.size());
    if (!value.empty()) std::memcpy(value_ptr(off), value.data(), value.size());
    finish(off);
}

void BlobBuf::add_u8(std::string_view name, std::uint8_t v) { add_value(name, Type::Int8, Bytes(&v, 1)); }

void BlobBuf::add_i16(std::string_view name, std::int16_t v) {
    std::uint8_t b[2];
    wire::put16(b, static_cast<std::uint16_t>(v));
    add_value(name, Type::Int16, b);
}

void BlobBuf::add_i32(std::string_view name, std::int32_t v) {
    std::uint8_t b[4];
    wire::put32(b, static_cast<std::uint32_t>(v));
    add_value(name, Type::Int32, b);
}

void BlobBuf::add_i64(std::string_view name, std::int64_t v) {
    std::uint8_t b[8];
    wire::put64(b, static_cast<std::uint64_t>(v));
    add_value(name, Type::Int64, b);
}

void BlobBuf::add_double(std::string_view name, double v) {
    std::uint8_t b[8];
    wire::put64(b, std::bit_cast<std::uint64_t>(v));
    add_value(name, Type::Double, b);
}

void BlobBuf::add_string(std::string_view name, std::string_view s) {
    std::size_t off = open_attr(static_cast<std::uint32_t>(Type::String), true, name, s.size() + 1);
    if (!s.empty()) std::memcpy(value_ptr(off), s.data(), s.size());
    finish(off);
}

void BlobBuf::add_unspec(std::string_view name) { add_value(name, Type::Unspec, {}); }

std::size_t BlobBuf::open_table(std::string_view name) {
    std::size_t off = open_attr(static_cast<std::uint32_t>(Type::Table), true, name, 0);
    finish(off);
    return off;
}

std::size_t BlobBuf::open_array(std::string_view name) {
    std::size_t off = open_attr(static_cast<std::uint32_t>(Type::Array), true, name, 0);
    finish(off);
    return off;
}

void BlobBuf::add_attr(Attr a) {
    if (!a) return;
    const std::size_t len = a.raw_len();
    std::uint8_t* p = grow(pad4(len));
    std::memcpy(p, a.ptr(), len);
    finish(0);
}

void BlobBuf::add_members(Bytes payload) {
    if (payload.empty()) return;
    std::uint8_t* p = grow(pad4(payload.size()));
    std::memcpy(p, payload.data(), payload.size());
    finish(0);
}

void BlobBuf::close(std::size_t cookie) {
    // A container's length counts its children with their padding.
    if (cookie < headroom_ || cookie + 4 > buf_.size()) return;
    std::uint8_t* p = buf_.data() + cookie;
    const std::uint32_t hdr = wire::get32(p);
    wire::put32(p, (hdr & 0xff000000u) | (static_cast<std::uint32_t>(buf_.size() - cookie) & 0xffffffu));
}

void BlobBuf::truncate(std::size_t size) {
    if (size < headroom_ + 4 || size >= buf_.size()) return;
    buf_.resize(size);
    finish(0);
}

Bytes BlobBuf::root_bytes() const { return {buf_.data() + headroom_, buf_.size() - headroom_}; }

Bytes BlobBuf::members() const { return {buf_.data() + headroom_ + 4, buf_.size() - headroom_ - 4}; }

}  // namespace ubus
