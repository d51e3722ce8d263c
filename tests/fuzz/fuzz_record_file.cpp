// Arbitrary bytes as the content of a record file, loaded, applied as each of the four kinds and
// written back as each; the round trip itself is pinned by the record file unit tests.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "pkgd/record_files.hpp"
#include "ubus/json.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace pkgd;
    ubus::BlobBuf file;
    if (!ubus::json_load(file, std::string_view(reinterpret_cast<const char*>(data), size))) return 0;
    pkg_info pkg;
    const pkg_record_links links = apply_pkg_record(pkg, file.members());
    apply_du_record(pkg.du, links.du.value_or(1), file.members());
    pkg.eu.push_back(eu_record_from(2, file.members()));
    pkg.ee = ee_record_from(3, file.members());
    ubus::BlobBuf out;
    du_record_message(out, pkg, "System");
    pkg_record_message(out, pkg);
    ee_record_message(out, pkg, *pkg.ee, "System");
    (void)ubus::json_format(out);
    return 0;
}
