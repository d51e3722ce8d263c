// JSON <-> blobmsg.
//
// Loading turns a JSON object into named blobmsg values appended to a buffer. Formatting writes
// blobmsg straight from the wire bytes as JSON text, the way the bus tools print it: a compact
// form without any whitespace and an indented form with tabs. Formatting never fails: members
// that are not well-formed print nothing (their separators stay), and output may be invalid JSON
// where the data is (non-finite doubles, unnamed table members).
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "ubus/blob.hpp"

namespace ubus {

// Appends the members of the JSON object `text` to `buf` (to its root table, or to the container
// currently open). Mapping: object -> TABLE, array -> ARRAY, string -> STRING (cut at an escaped
// NUL), true/false -> INT8 1/0, integers -> INT32 when they fit, else INT64 (saturated), numbers
// with a fraction or exponent -> DOUBLE, null -> UNSPEC. Of duplicate keys the last value counts,
// at the position of the first. Returns false, leaving `buf` exactly as it was, when the text is
// not a JSON object, cannot be parsed, or would not fit a blob attribute. The text ends at its
// first NUL byte, if any.
bool json_load(BlobBuf& buf, std::string_view text);

// The same for the whole content of a file. Only a regular file of at most 128 MiB is read; a
// missing or unreadable file, a FIFO, a device or a larger file fails (nothing appended). The
// bound only keeps a hostile file from exhausting memory: it is far above what the compact JSON
// of any blob (at most 16 MiB) takes, so every file written by formatting a blob reads back.
bool json_load_file(BlobBuf& buf, const std::string& path);

// Asked about each element before it is formatted. To print something else in place of its value
// (the name part is printed as usual), append that text verbatim to `out` and return true;
// otherwise leave `out` alone and return false.
using JsonElementHook = std::function<bool(Attr element, std::string& out)>;

struct JsonFormat {
    bool indent = false;  // tabs and newlines, ": " after names
    int level = 0;        // extra indentation of every line after the first (indented form)
    JsonElementHook element_hook;

    static JsonFormat indented(int level = 0) {
        JsonFormat f;
        f.indent = true;
        f.level = level;
        return f;
    }
};

// List form: the members of a container as one JSON value, `[...]` when `array`, `{...}`
// otherwise. The hook is asked about every member at every depth, not about the container.
void json_format_list(std::string& out, Bytes members, bool array, const JsonFormat& f = {});

// List form of a container attribute: an array for an extended ARRAY, an object for anything
// else (a TABLE, a root table, a DATA attribute).
void json_format_list(std::string& out, Attr container, const JsonFormat& f = {});

// Element form: `"name":value` for one attribute, without the name part when the name is empty.
// The hook is asked about the attribute itself first.
void json_format_element(std::string& out, Attr a, const JsonFormat& f = {});

// A whole buffer (its root table) as a JSON object.
std::string json_format(const BlobBuf& buf, const JsonFormat& f = {});

// An element hook for method signatures (one TABLE per method, one INT32 type number per
// argument): prints each argument's type by name, as object listings show it: "Array", "Table",
// "String", "Integer", "Boolean", and "(unknown)" for every other number. Other elements format
// normally.
bool json_type_name_hook(Attr element, std::string& out);

}  // namespace ubus
