// blobmsg -> JSON text, written straight from the wire bytes.
//
// Containers are walked with an explicit stack rather than by recursion: a 1 MiB message can nest
// over a hundred thousand levels deep, and formatting untrusted data must not exhaust the stack.
#include <algorithm>
#include <bit>
#include <charconv>
#include <vector>

#include "ubus/json.hpp"

namespace ubus {

namespace {

constexpr int kMaxTabs = 16;

// Any double in fixed notation with six decimals: up to 309 integer digits, sign, point, decimals.
constexpr std::size_t kDoubleChars = 320;

std::string_view text_of(Bytes b) {
    return {reinterpret_cast<const char*>(b.data()), b.size()};
}

// Strings and names are printed up to their first NUL.
std::string_view up_to_nul(std::string_view s) {
    return s.substr(0, s.find('\0'));
}

void append_escaped(std::string& out, std::string_view s) {
    static constexpr char kHex[] = "0123456789abcdef";
    out += '"';
    std::size_t run = 0;  // start of the bytes not yet written
    for (std::size_t i = 0; i < s.size(); ++i) {
        const auto c = static_cast<unsigned char>(s[i]);
        if (c >= 0x20 && c != '"' && c != '\\') continue;
        out.append(s.data() + run, i - run);
        run = i + 1;
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\b':
                out += "\\b";
                break;
            case '\t':
                out += "\\t";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            default: {
                const char u[] = {'\\', 'u', '0', '0', kHex[c >> 4], kHex[c & 15]};
                out.append(u, sizeof u);
            }
        }
    }
    out.append(s.data() + run, s.size() - run);
    out += '"';
}

template <typename Int>
void append_int(std::string& out, Int v) {
    char b[24];
    const auto r = std::to_chars(b, b + sizeof b, v);
    out.append(b, r.ptr);
}

// Like printf's %f (six decimals, "nan", "-nan", "inf", "-inf"), but independent of the locale.
void append_double(std::string& out, double v) {
    char b[kDoubleChars];
    const auto r = std::to_chars(b, b + sizeof b, v, std::chars_format::fixed, 6);
    out.append(b, r.ptr);
}

// Values of valid attributes only: the sizes were checked by Attr::valid().
void append_scalar(std::string& out, Type type, Bytes d) {
    switch (type) {
        case Type::Int8:
            out += d[0] ? "true" : "false";
            break;
        case Type::Int16:
            append_int(out, static_cast<std::int16_t>(wire::get16(d.data())));
            break;
        case Type::Int32:
            append_int(out, static_cast<std::int32_t>(wire::get32(d.data())));
            break;
        case Type::Int64:
            append_int(out, static_cast<std::int64_t>(wire::get64(d.data())));
            break;
        case Type::Double:
            append_double(out, std::bit_cast<double>(wire::get64(d.data())));
            break;
        case Type::String:
            append_escaped(out, up_to_nul(text_of(d)));
            break;
        default:
            out += "null";
            break;
    }
}

class Writer {
public:
    Writer(std::string& out, const JsonFormat& f)
        : out_(out),
          hook_(f.element_hook ? &f.element_hook : nullptr),
          indent_(f.indent),
          depth_(std::max(f.level, 0)) {}

    void list(Bytes members, bool array) {
        open(members, array);
        run();
    }

    void element(Attr a) {
        begin_element(a, true);
        run();
    }

private:
    struct Level {
        AttrList::iterator next;
        bool array;
        bool first;
    };

    void newline() {
        if (!indent_) return;
        out_ += '\n';
        out_.append(static_cast<std::size_t>(std::min(depth_, kMaxTabs)), '\t');
    }

    void open(Bytes members, bool array) {
        out_ += array ? '[' : '{';
        ++depth_;
        newline();
        stack_.push_back({AttrList(members).begin(), array, true});
    }

    void close(bool array) {
        --depth_;
        newline();
        out_ += array ? ']' : '}';
    }

    // Writes the name part and the value of one element; a container is opened and its members
    // are left on the stack for run().
    void begin_element(Attr a, bool with_name) {
        if (!a.valid(false)) return;
        if (with_name) {
            const std::string_view name = up_to_nul(a.name());
            if (!name.empty()) {
                append_escaped(out_, name);
                out_ += indent_ ? ": " : ":";
            }
        }
        if (hook_ && (*hook_)(a, out_)) return;
        switch (a.type()) {
            case Type::Table:
                open(a.data(), false);
                break;
            case Type::Array:
                open(a.data(), true);
                break;
            default:
                append_scalar(out_, a.type(), a.data());
                break;
        }
    }

    void run() {
        while (!stack_.empty()) {
            Level& top = stack_.back();
            const Attr a = *top.next;
            if (!a) {
                const bool array = top.array;
                stack_.pop_back();
                close(array);
                continue;
            }
            ++top.next;
            // Members that turn out malformed still get their separator.
            if (!top.first) {
                out_ += ',';
                newline();
            }
            top.first = false;
            begin_element(a, !top.array);  // may grow the stack: `top` is not used after this
        }
    }

    std::string& out_;
    const JsonElementHook* hook_;
    bool indent_;
    int depth_;
    std::vector<Level> stack_;
};

}  // namespace

void json_format_list(std::string& out, Bytes members, bool array, const JsonFormat& f) {
    Writer(out, f).list(members, array);
}

void json_format_list(std::string& out, Attr container, const JsonFormat& f) {
    Writer(out, f).list(container.data(), container.extended() && container.type() == Type::Array);
}

void json_format_element(std::string& out, Attr a, const JsonFormat& f) {
    Writer(out, f).element(a);
}

std::string json_format(const BlobBuf& buf, const JsonFormat& f) {
    std::string out;
    json_format_list(out, buf.members(), false, f);
    return out;
}

}  // namespace ubus
