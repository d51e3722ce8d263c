#include "daemon/packages_object.hpp"

#include "daemon/ee_object.hpp"
#include "daemon/package_install.hpp"
#include "daemon/package_list.hpp"
#include "pkgd/records.hpp"

namespace pkgd {

std::string packages_object_name(std::string_view ee_id) {
    FixedText<256> name(ee_object_name(ee_id).append(".Packages"));
    return name.str();
}

ubus::AddResult add_package_object(daemon_context& d) {
    const auto package_methods = ubus::ObjectType::make({
        package_list_method("List", d),
        package_list_method("get", d),
        package_install_method("Install", d),
        package_install_method("add", d),
    });
    return d.ctx.add_object(d.object.view(), package_methods);
}

}  // namespace pkgd
