// Resolving the environment's identity from the catalog's replies (the sandbox tests see the
// usual cases through the bus): partial, late, mistyped and failed answers.
#include "pkgd/identity.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace pkgd {
namespace {

std::string describe(const ee_identity& ee) {
    return ee.id.str() + "|" + ee.name.str() + "|" + std::to_string(ee.enabled) + "|" + ee.version.str() +
           "|" + ee.vendor.str() + "|" + ee.type.str();
}

// The identity for EXECENV_INDEX "x" from a catalog that answers `replies` and then `status`.
std::string resolve(std::vector<ubus::BlobBuf>& replies, int status) {
    return describe(resolve_ee_identity("x", [&](std::string_view name, ubus::DataCallback on_reply) {
        EXPECT_EQ(name, "x");
        for (const auto& r : replies) on_reply(r.members());
        return status;
    }));
}

TEST(EeIdentity, LaterRepliesOverwriteMistypedFieldsCountAsAbsentAndAFailureCostsTheIdentifier) {
    std::vector<ubus::BlobBuf> replies(2);
    replies[0].add_string("id", "4");
    replies[0].add_string("name", "SomethingElse");  // the variable names the environment
    replies[0].add_bool("enabled", true);
    replies[0].add_string("version", "1.0");
    replies[0].add_string("vendor", "First");
    replies[1].add_string("vendor", "Second");
    replies[1].add_string("enabled", "false");  // not a BOOL: absent
    replies[1].add_i32("version", 2);           // not a string: absent
    EXPECT_EQ(resolve(replies, 0), "4|x|1|1.0|Second|");
    // A reply that arrived before the failure is kept, except for its identifier.
    EXPECT_EQ(resolve(replies, 7), "1|x|1|1.0|Second|");
}

}  // namespace
}  // namespace pkgd
