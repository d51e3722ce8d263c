// The "add", "del" and "set" requests built from a package's records.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "pkgd/datamodel.hpp"
#include "ubus/json.hpp"

namespace {

pkgd::pkg_info package_with_units(std::initializer_list<std::int32_t> indexes) {
    pkgd::pkg_info pkg;
    for (const auto index : indexes) pkg.eu.push_back(pkgd::eu_info{.index = index, .euid = {}, .name = {}});
    return pkg;
}

std::string del_json(int kind, const pkgd::pkg_info& pkg) {
    ubus::BlobBuf msg;
    if (!pkgd::dm_del_message(msg, 77, kind, pkg)) {
        EXPECT_TRUE(msg.members().empty());
        return "nothing";
    }
    return ubus::json_format(msg);
}

TEST(DataModelMessages, AddCarriesThePidAndAnEmptyTableNamedWithThePath) {
    ubus::BlobBuf msg;
    pkgd::dm_add_message(msg, 4321, pkgd::kExecEnvPath);
    EXPECT_EQ(ubus::json_format(msg), R"({"pid":4321,"InternetGatewayDevice.SoftwareModules.ExecEnv.":{}})");
    auto it = msg.root().children().begin();
    EXPECT_EQ((*it).type(), ubus::Type::Int32);
    EXPECT_EQ((*++it).type(), ubus::Type::Table);
}

TEST(DataModelMessages, DelNamesEachInstanceOfTheKind) {
    pkgd::pkg_info pkg = package_with_units({4, 0, 6, -1});
    pkg.du.index = 2;
    pkg.ee = pkgd::ee_info{};
    pkg.ee->index = 3;
    EXPECT_EQ(del_json(pkgd::DM_INSTANCE_DU, pkg),
              R"({"pid":77,"InternetGatewayDevice.SoftwareModules.DeploymentUnit.":["2"]})");
    EXPECT_EQ(del_json(pkgd::DM_INSTANCE_EE, pkg),
              R"({"pid":77,"InternetGatewayDevice.SoftwareModules.ExecEnv.":["3"]})");
    // Units without an instance are left out, the others keep their order.
    EXPECT_EQ(del_json(pkgd::DM_INSTANCE_EU, pkg),
              R"({"pid":77,"InternetGatewayDevice.SoftwareModules.ExecutionUnit.":["4","6"]})");

    ubus::BlobBuf msg;
    ASSERT_TRUE(pkgd::dm_del_message(msg, 77, pkgd::DM_INSTANCE_EU, pkg));
    const ubus::Attr array = *std::next(msg.root().children().begin());
    ASSERT_EQ(array.type(), ubus::Type::Array);
    for (const ubus::Attr element : array.children()) {
        EXPECT_EQ(element.type(), ubus::Type::String);
        EXPECT_EQ(element.name(), "");
    }
}

TEST(DataModelMessages, DelSendsNothingWithoutAnInstance) {
    const pkgd::pkg_info bare;
    EXPECT_EQ(del_json(pkgd::DM_INSTANCE_DU, bare), "nothing");
    EXPECT_EQ(del_json(pkgd::DM_INSTANCE_EE, bare), "nothing");
    EXPECT_EQ(del_json(pkgd::DM_INSTANCE_EU, bare), "nothing");

    pkgd::pkg_info pkg = package_with_units({0, 5});
    pkg.du.index = 9;
    pkg.ee = pkgd::ee_info{};                                   // an environment that never got an instance
    EXPECT_EQ(del_json(pkgd::DM_INSTANCE_EU, pkg), "nothing");  // the first unit decides
    EXPECT_EQ(del_json(pkgd::DM_INSTANCE_EE, pkg), "nothing");
    EXPECT_EQ(del_json(3, pkg), "nothing");
    EXPECT_EQ(del_json(-1, pkg), "nothing");
}

TEST(DataModelMessages, SetNamesTheUnitsAutoStartParameter) {
    ubus::BlobBuf msg;
    pkgd::dm_set_message(msg, 7, "0");
    EXPECT_EQ(ubus::json_format(msg),
              R"({"object":{"InternetGatewayDevice.SoftwareModules.ExecutionUnit.7.AutoStart":"0"}})");
}

}  // namespace
