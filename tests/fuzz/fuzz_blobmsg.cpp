// blobmsg read from arbitrary bytes: the walk, the validity checks, policy parsing and JSON
// formatting in every form. Re-building the walked members must format exactly the same.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <string>

#include "ubus/blob.hpp"
#include "ubus/json.hpp"

namespace {

constexpr ubus::Policy kPolicy[] = {
    {"a", ubus::Type::Unspec}, {"b", ubus::Type::Int32}, {"c", ubus::Type::String},
    {"d", ubus::Type::Table},  {"e", ubus::Type::Array}, {"", ubus::Type::Int8},
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const ubus::Bytes in(data, size);

    // The bytes as the members of a table, like a DATA payload.
    ubus::JsonFormat with_hook = ubus::JsonFormat::indented();
    with_hook.element_hook = ubus::json_type_name_hook;
    ubus::BlobBuf copy;
    std::string element;
    for (ubus::Attr a : ubus::AttrList(in)) {
        (void)a.valid(true);
        copy.add_attr(a);
        ubus::json_format_element(element, a, with_hook);
    }
    (void)ubus::parse(kPolicy, in);
    ubus::Attr positional[std::size(kPolicy)];
    (void)ubus::parse_array(kPolicy, in, positional);

    std::string compact;
    ubus::json_format_list(compact, in, false);
    if (ubus::json_format(copy) != compact) std::abort();
    std::string indented;
    ubus::json_format_list(indented, in, true, ubus::JsonFormat::indented(1));

    // The bytes as one attribute: a root table or a single value.
    const ubus::Attr whole = ubus::Attr::at(in);
    std::string out;
    ubus::json_format_list(out, whole);
    ubus::json_format_element(out, whole, ubus::JsonFormat::indented());
    return 0;
}
