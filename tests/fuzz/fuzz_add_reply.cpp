// The data-model agent's answer to "add" read from arbitrary bytes: the reader never reads outside
// the reply, and it either leaves the result alone or sets an instance number, never a negative one.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "pkgd/datamodel.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::int32_t result = -1;
    pkgd::_req_cwmp_add_node_cb(ubus::Bytes(data, size), result);
    if (result < -1) std::abort();
    return 0;
}
