// The blob / blobmsg wire format: read-only views over untrusted bytes and a growable builder.
//
// Every view is bounded by the bytes it was made from: a malformed buffer makes an accessor
// return an empty or default value, never read outside the buffer. Multi-byte integers on the
// wire are big-endian.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace ubus {

using Bytes = std::span<const std::uint8_t>;

constexpr std::size_t pad4(std::size_t n) { return (n + 3) & ~std::size_t{3}; }

// blobmsg value types. There is one boolean type and it is INT8.
enum class Type : std::uint8_t {
    Unspec = 0,
    Array = 1,
    Table = 2,
    String = 3,
    Int64 = 4,
    Int32 = 5,
    Int16 = 6,
    Int8 = 7,
    Bool = 7,
    Double = 8,
};
constexpr std::uint8_t kTypeMax = 8;

namespace wire {
inline std::uint16_t get16(const std::uint8_t* p) {
    return static_cast<std::uint16_t>((p[0] << 8) | p[1]);
}
inline std::uint32_t get32(const std::uint8_t* p) {
    return (std::uint32_t{p[0]} << 24) | (std::uint32_t{p[1]} << 16) | (std::uint32_t{p[2]} << 8) | p[3];
}
inline std::uint64_t get64(const std::uint8_t* p) {
    return (std::uint64_t{get32(p)} << 32) | get32(p + 4);
}
inline void put16(std::uint8_t* p, std::uint16_t v) {
    p[0] = static_cast<std::uint8_t>(v >> 8);
    p[1] = static_cast<std::uint8_t>(v);
}
inline void put32(std::uint8_t* p, std::uint32_t v) {
    p[0] = static_cast<std::uint8_t>(v >> 24);
    p[1] = static_cast<std::uint8_t>(v >> 16);
    p[2] = static_cast<std::uint8_t>(v >> 8);
    p[3] = static_cast<std::uint8_t>(v);
}
inline void put64(std::uint8_t* p, std::uint64_t v) {
    put32(p, static_cast<std::uint32_t>(v >> 32));
    put32(p + 4, static_cast<std::uint32_t>(v));
}
}  // namespace wire

class AttrList;

// One attribute: header word plus payload. A default-constructed Attr is "absent".
// An Attr made by walking a container (AttrList) always has its raw length inside the
// container; blobmsg accessors additionally bound themselves and return defaults when the
// attribute is not a well-formed blobmsg value of the asked type (use `valid()` to tell).
class Attr {
public:
    Attr() = default;
    // View of the attribute at the start of `bytes`; absent when the header does not fit or its
    // length is below 4 or beyond `bytes`.
    static Attr at(Bytes bytes);

    explicit operator bool() const { return p_ != nullptr; }

    // All accessors are safe on an absent attribute (they return 0 / empty).
    std::uint32_t id() const { return (hdr() >> 24) & 0x7f; }
    bool extended() const { return (hdr() & 0x80000000u) != 0; }
    std::size_t raw_len() const { return hdr() & 0x00ffffffu; }
    std::size_t padded_len() const { return pad4(raw_len()); }
    Bytes raw() const { return {p_, raw_len()}; }  // header + payload, no padding
    Bytes payload() const { return p_ ? Bytes{p_ + 4, raw_len() - 4} : Bytes{}; }

    // ----- plain attributes (ubus message bodies) -----
    // Checked readers: nullopt-like defaults when the payload has the wrong size.
    bool is_u8() const { return raw_len() == 5; }
    bool is_u32() const { return raw_len() == 8; }
    bool is_string() const { return raw_len() > 4 && p_[raw_len() - 1] == 0; }
    std::uint8_t u8() const { return is_u8() ? p_[4] : 0; }
    std::uint32_t u32() const { return is_u32() ? wire::get32(p_ + 4) : 0; }
    std::string_view str() const;  // up to the first NUL; empty when not a string
    AttrList nested() const;       // the payload walked as a container

    // ----- blobmsg values -----
    // The validity rules of the reference reader. `need_name`: a table member needs the
    // extended header and a non-empty name.
    bool valid(bool need_name = false) const;
    Type type() const { return static_cast<Type>(id()); }
    std::string_view name() const;  // empty when not extended or malformed
    Bytes data() const;             // the value bytes (after the name header, if any)

    // Typed value readers; each returns the default when the value is not well-formed for
    // that type. as_bool/as_u8 read INT8.
    bool as_bool() const { return as_u8() != 0; }
    std::uint8_t as_u8() const;
    std::int16_t as_i16() const;
    std::int32_t as_i32() const;
    std::uint32_t as_u32() const { return static_cast<std::uint32_t>(as_i32()); }
    std::int64_t as_i64() const;
    double as_double() const;
    std::string_view as_string() const;  // up to the first NUL
    AttrList children() const;           // members of a TABLE / elements of an ARRAY

    const std::uint8_t* ptr() const { return p_; }

private:
    friend class AttrList;
    explicit Attr(const std::uint8_t* p) : p_(p) {}
    std::uint32_t hdr() const { return p_ ? wire::get32(p_) : 0; }
    std::size_t name_header_len() const;  // 0 when not extended; SIZE_MAX when malformed
    const std::uint8_t* p_ = nullptr;
};

// The attributes of a container payload, walked as the reference reader does: stop at the
// first attribute whose length is below 4 or whose padded length passes the end.
class AttrList {
public:
    AttrList() = default;
    explicit AttrList(Bytes payload) : b_(payload) {}

    class iterator {
    public:
        using value_type = Attr;
        using difference_type = std::ptrdiff_t;
        iterator() = default;
        iterator(const std::uint8_t* p, const std::uint8_t* end) : p_(p), end_(end) { settle(); }
        Attr operator*() const { return cur_; }
        iterator& operator++() {
            p_ += cur_.padded_len();
            settle();
            return *this;
        }
        iterator operator++(int) {
            auto t = *this;
            ++*this;
            return t;
        }
        bool operator==(const iterator& o) const { return cur_.ptr() == o.cur_.ptr(); }

    private:
        void settle();
        const std::uint8_t* p_ = nullptr;
        const std::uint8_t* end_ = nullptr;
        Attr cur_;
    };

    iterator begin() const { return {b_.data(), b_.data() + b_.size()}; }
    iterator end() const { return {}; }
    bool empty() const { return begin() == end(); }
    Bytes bytes() const { return b_; }

private:
    Bytes b_;
};

// ---------------------------------------------------------------------------------------------
// Policy parsing

struct Policy {
    std::string_view name;
    Type type;  // Unspec matches any type
};

// Fills `out[i]` with the member chosen for `policy[i]` (or leaves it absent). Members are the
// payload of a table. Returns 0 when the walk completed, -1 when it stopped at a malformed
// member (earlier results stay), -22 for empty input. Of repeated keys the first member of the
// matching type counts; a member of another type counts as absent.
int parse(std::span<const Policy> policy, Bytes members, std::span<Attr> out);

// Positional parsing of array elements: entry i takes the next element whose type matches.
int parse_array(std::span<const Policy> policy, Bytes elements, std::span<Attr> out);

// Convenience for fixed-size policies:
//   static constexpr ubus::Policy kPolicy[] = {{"Id", Type::String}, ...};
//   auto tb = ubus::parse(kPolicy, msg);   // std::array<Attr, N>
template <std::size_t N>
struct Parsed {
    std::array<Attr, N> at{};
    int status = 0;
    Attr operator[](std::size_t i) const { return at[i]; }
};
template <std::size_t N>
Parsed<N> parse(const Policy (&policy)[N], Bytes members) {
    Parsed<N> r;
    r.status = parse(std::span<const Policy>(policy, N), members, std::span<Attr>(r.at));
    return r;
}

// ---------------------------------------------------------------------------------------------
// Builder

// A growable buffer holding one root container (header word at `headroom()`), optionally
// preceded by reserved bytes (for a message header, so a frame is built in place).
// Nested containers are opened with open_*() and closed with close(cookie), innermost first.
class BlobBuf {
public:
    // root_id 2 (table) for a blobmsg buffer, 0 for a ubus message body.
    explicit BlobBuf(std::uint32_t root_id = 2, std::size_t headroom = 0);
    void reset(std::uint32_t root_id = 2);

    // ----- plain attributes (ubus message bodies) -----
    void put_u8(std::uint32_t id, std::uint8_t v);
    void put_u32(std::uint32_t id, std::uint32_t v);
    void put_string(std::uint32_t id, std::string_view s);
    void put_raw(std::uint32_t id, Bytes payload);  // any payload, e.g. a forwarded DATA
    std::size_t nest_open(std::uint32_t id);

    // ----- blobmsg values -----
    void add_bool(std::string_view name, bool v) { add_u8(name, v ? 1 : 0); }
    void add_u8(std::string_view name, std::uint8_t v);
    void add_i16(std::string_view name, std::int16_t v);
    void add_i32(std::string_view name, std::int32_t v);
    void add_i64(std::string_view name, std::int64_t v);
    void add_double(std::string_view name, double v);
    void add_string(std::string_view name, std::string_view s);
    void add_unspec(std::string_view name);
    void add_value(std::string_view name, Type type, Bytes value);  // raw value bytes
    std::size_t open_table(std::string_view name);
    std::size_t open_array(std::string_view name);
    // Appends an existing attribute byte for byte (its padding zeroed).
    void add_attr(Attr a);
    // Appends every member of a container payload byte for byte.
    void add_members(Bytes payload);

    void close(std::size_t cookie);

    // The whole root attribute (header word included).
    Bytes root_bytes() const;
    // The root's payload: the top-level members.
    Bytes members() const;
    Attr root() const { return Attr::at(root_bytes()); }
    // The whole buffer including the headroom.
    std::span<std::uint8_t> all() { return {buf_.data(), buf_.size()}; }
    Bytes all() const { return {buf_.data(), buf_.size()}; }
    std::size_t headroom() const { return headroom_; }
    // Bytes used so far, headroom included. truncate(n) with an earlier size() drops everything
    // appended since then; containers opened since then must not be closed afterwards.
    std::size_t size() const { return buf_.size(); }
    void truncate(std::size_t size);

private:
    std::uint8_t* grow(std::size_t n);  // appends n zero bytes, returns pointer to them
    std::size_t open_attr(std::uint32_t hdr_id, bool ext, std::string_view name, std::size_t value_len);
    void finish(std::size_t off);
    std::uint8_t* value_ptr(std::size_t off);
    std::vector<std::uint8_t> buf_;
    std::size_t headroom_;
};

}  // namespace ubus
