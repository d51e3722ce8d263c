// JSON text -> blobmsg values, parsed with json-c.
#include <json-c/json.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <limits>
#include <memory>
#include <string>

#include "ubus/fd.hpp"
#include "ubus/json.hpp"

namespace ubus {

namespace {

// The length field of a blob header is 24 bits wide; the root holds everything loaded, so once
// the root fits, every attribute inside it does.
constexpr std::size_t kMaxAttrLen = 0xffffff;
// Only a bound against hostile files: whatever a blob that fits kMaxAttrLen formats to must read
// back (files written from blobs hold more than a bus message), and compact JSON of a blob is at
// most six times its length (every byte of a string escaped as "\u00XX").
constexpr std::uint64_t kMaxJsonFileLen = std::uint64_t{8} * (kMaxAttrLen + 1);

struct TokenerFree {
    void operator()(json_tokener* t) const { json_tokener_free(t); }
};
struct ObjectPut {
    void operator()(json_object* o) const { json_object_put(o); }
};

void add_value(BlobBuf& buf, std::string_view name, json_object* v);

void add_members(BlobBuf& buf, json_object* obj) {
    // json-c keeps members in document order; a repeated key replaced the earlier value in place.
    json_object_iterator it = json_object_iter_begin(obj);
    const json_object_iterator end = json_object_iter_end(obj);
    for (; !json_object_iter_equal(&it, &end); json_object_iter_next(&it))
        add_value(buf, json_object_iter_peek_name(&it), json_object_iter_peek_value(&it));
}

// Recursion is bounded by the tokener's nesting limit.
void add_value(BlobBuf& buf, std::string_view name, json_object* v) {
    switch (json_object_get_type(v)) {
        case json_type_object: {
            const std::size_t c = buf.open_table(name);
            add_members(buf, v);
            buf.close(c);
            break;
        }
        case json_type_array: {
            const std::size_t c = buf.open_array(name);
            const std::size_t n = json_object_array_length(v);
            for (std::size_t i = 0; i < n; ++i) add_value(buf, {}, json_object_array_get_idx(v, i));
            buf.close(c);
            break;
        }
        case json_type_string: {
            const std::string_view s(json_object_get_string(v),
                                     static_cast<std::size_t>(json_object_get_string_len(v)));
            buf.add_string(name, s.substr(0, s.find('\0')));
            break;
        }
        case json_type_boolean:
            buf.add_bool(name, json_object_get_boolean(v) != 0);
            break;
        case json_type_int: {
            // json-c saturates integers beyond the 64-bit range.
            const std::int64_t i = json_object_get_int64(v);
            if (i >= std::numeric_limits<std::int32_t>::min() &&
                i <= std::numeric_limits<std::int32_t>::max())
                buf.add_i32(name, static_cast<std::int32_t>(i));
            else
                buf.add_i64(name, i);
            break;
        }
        case json_type_double:
            buf.add_double(name, json_object_get_double(v));
            break;
        case json_type_null:
            buf.add_unspec(name);
            break;
    }
}

}  // namespace

bool json_load(BlobBuf& buf, std::string_view text) {
    text = text.substr(0, text.find('\0'));
    if (text.empty() || text.size() > static_cast<std::size_t>(INT_MAX)) return false;
    const std::unique_ptr<json_tokener, TokenerFree> tok(json_tokener_new());
    if (!tok) return false;
    // Text after the top-level value is ignored; an unfinished value gives no object.
    const std::unique_ptr<json_object, ObjectPut> root(
        json_tokener_parse_ex(tok.get(), text.data(), static_cast<int>(text.size())));
    if (!root || !json_object_is_type(root.get(), json_type_object)) return false;

    const std::size_t mark = buf.size();
    add_members(buf, root.get());
    if (buf.size() - buf.headroom() > kMaxAttrLen) {
        buf.truncate(mark);
        return false;
    }
    return true;
}

bool json_load_file(BlobBuf& buf, const std::string& path) {
    // Non-blocking open and a regular-file check: a FIFO or a device among the files a daemon
    // reads must be skipped, not block it forever or feed it without end.
    const UniqueFd fd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat st {};
    if (!fd || ::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
    if (static_cast<std::uint64_t>(st.st_size) > kMaxJsonFileLen) return false;
    std::string text(static_cast<std::size_t>(st.st_size), '\0');
    std::size_t got = 0;
    while (got < text.size()) {
        const ssize_t n = ::read(fd.get(), text.data() + got, text.size() - got);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return false;
        if (n == 0) break;  // the file shrank while being read
        got += static_cast<std::size_t>(n);
    }
    text.resize(got);
    return json_load(buf, text);
}

}  // namespace ubus
