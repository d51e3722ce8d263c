// JSON text loaded into a buffer that already holds a member, then formatted. A refused text must
// leave the buffer as it was.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "ubus/json.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    ubus::BlobBuf buf;
    buf.add_string("before", "x");
    const ubus::Bytes all = buf.all();
    const std::vector<std::uint8_t> before(all.begin(), all.end());

    if (!ubus::json_load(buf, text)) {
        const ubus::Bytes after = buf.all();
        if (!std::equal(after.begin(), after.end(), before.begin(), before.end())) std::abort();
        return 0;
    }
    (void)ubus::json_format(buf);
    (void)ubus::json_format(buf, ubus::JsonFormat::indented());
    return 0;
}
