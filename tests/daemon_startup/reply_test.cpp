// The reply envelope every method of pkgd's objects answers in, the execution environment's "Get"
// body, the objects' names and the request arguments read from nested tables.
#include <gtest/gtest.h>

#include "daemon/ee_object.hpp"
#include "daemon/package_install.hpp"
#include "daemon/package_operation_object.hpp"
#include "daemon/package_x_object.hpp"
#include "daemon/packages_object.hpp"
#include "daemon/reply_envelope.hpp"
#include "ubus/json.hpp"

namespace pkgd {
namespace {

std::string envelope(std::int32_t result, ubus::Attr body) {
    ubus::BlobBuf reply;
    reply.add_string("left", "over");  // whatever the buffer held before is dropped
    hlapi_reply(result, body, reply);
    return ubus::json_format(reply);
}

TEST(ReplyEnvelope, HeaderNamesTheOutcomeAndTheBodyFollowsOnlyWhenGiven) {
    EXPECT_EQ(envelope(HLAPI_OK, {}), R"({"Header":{"Name":"OK"}})");
    EXPECT_EQ(envelope(HLAPI_ARGUMENT_VALUE_NOT_SUPPORTED, {}),
              R"({"Header":{"Name":"ARGUMENT_VALUE_NOT_SUPPORTED"}})");
    EXPECT_EQ(envelope(HLAPI_OK, ubus::BlobBuf().root()), R"({"Header":{"Name":"OK"},"Body":{}})");
    // Results outside the table give an empty table.
    ubus::BlobBuf body;
    body.add_string("Id", "1");
    for (std::int32_t result : {-1, 12, 1000}) EXPECT_EQ(envelope(result, body.root()), "{}") << result;
}

TEST(ObjectNames, EachIsCutToItsOwnBuffer) {
    const std::string id(300, 'i');
    const std::string environment = ("Services.Management.LCM.ExecutionEnvironments." + id).substr(0, 255);
    EXPECT_EQ(ee_object_name(id), environment);
    // Cut again after ".Packages": the same name as the environment's, whose object is then refused.
    EXPECT_EQ(packages_object_name(id), environment);
    EXPECT_EQ(package_operation_object_name(id), ("SoftwareModules.Package." + id).substr(0, 63));
    EXPECT_EQ(package_object_name("P", id), "P." + id.substr(0, 253));
}

TEST(RequestArguments, SourceIsReadNestedAndMembersOfAnotherTypeCountAsAbsent) {
    ubus::BlobBuf args;
    ASSERT_TRUE(ubus::json_load(args, R"({"Id":"5","Source.Address":"flat","DisableAutoStart":true,)"
                                      R"("Source":{"Protocol":"ftp","Port":"21","Resource":"/a.ipk",)"
                                      R"("Credentials":{"Username":"u","Password":7}}})"));
    const install_args install = read_install_args(args.members());
    EXPECT_EQ(install.id, "5");
    EXPECT_FALSE(install.uuid);
    EXPECT_EQ(install.disable_autostart, 1);
    for (const source_args& source : {install.source, read_update_args(args.members())}) {
        EXPECT_EQ(source.protocol, "ftp");
        EXPECT_EQ(source.resource, "/a.ipk");
        EXPECT_EQ(source.username, "u");
        EXPECT_FALSE(source.address || source.port || source.password);
    }
    EXPECT_FALSE(read_update_args({}).protocol);
}

}  // namespace
}  // namespace pkgd
