#include "pkgd/identity.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ubus/blob.hpp"

namespace pkgd {
namespace {

// A catalog that answers with prepared replies and a prepared status, and remembers what it was
// asked.
struct FakeCatalog {
    std::vector<ubus::BlobBuf> replies;
    int status = 0;
    std::vector<std::string> asked;

    int operator()(std::string_view name, ubus::DataCallback on_reply) {
        asked.emplace_back(name);
        for (const auto& r : replies) on_reply(r.members());
        return status;
    }
    ubus::BlobBuf& reply() { return replies.emplace_back(); }
};

ee_identity resolve(const char* var, FakeCatalog& catalog) {
    return resolve_ee_identity(var, [&catalog](std::string_view name, ubus::DataCallback on_reply) {
        return catalog(name, on_reply);
    });
}

TEST(EeIdentity, WithoutTheVariableTheCatalogIsNotAsked) {
    FakeCatalog catalog;
    catalog.reply().add_string("id", "9");
    const ee_identity ee = resolve(nullptr, catalog);
    EXPECT_TRUE(catalog.asked.empty());
    EXPECT_EQ(ee.id, "System");
    EXPECT_EQ(ee.name, "System");
}

TEST(EeIdentity, TheIdentifierFallsBackToTheVariableThenToOneWhenTheRequestFailed) {
    {
        FakeCatalog answered_without_id;
        answered_without_id.reply().add_string("version", "1.0");
        const ee_identity ee = resolve("lxc-b", answered_without_id);
        EXPECT_EQ(ee.id, "lxc-b");
        EXPECT_EQ(ee.version, "1.0");
    }
    {
        FakeCatalog no_answer;
        no_answer.status = 7;  // timed out
        const ee_identity ee = resolve("lxc-b", no_answer);
        EXPECT_EQ(ee.id, "1");
        EXPECT_EQ(ee.name, "lxc-b");
    }
    {
        // A reply that arrived before the failure is kept, except for its identifier.
        FakeCatalog failed_after_a_reply;
        auto& r = failed_after_a_reply.reply();
        r.add_string("id", "5");
        r.add_string("vendor", "Acme");
        failed_after_a_reply.status = 9;
        const ee_identity ee = resolve("lxc-b", failed_after_a_reply);
        EXPECT_EQ(ee.id, "1");
        EXPECT_EQ(ee.vendor, "Acme");
    }
}

TEST(EeIdentity, LaterRepliesOverwriteAndAbsentOrMistypedFieldsLeaveValuesAlone) {
    FakeCatalog catalog;
    auto& first = catalog.reply();
    first.add_string("id", "4");
    first.add_string("name", "SomethingElse");  // the variable names the environment
    first.add_bool("enabled", true);
    first.add_string("version", "1.0");
    first.add_string("vendor", "First");
    auto& second = catalog.reply();
    second.add_string("vendor", "Second");
    second.add_string("enabled", "false");  // not a BOOL: absent
    second.add_i32("version", 2);           // not a string: absent
    const ee_identity ee = resolve("x", catalog);
    EXPECT_EQ(catalog.asked, std::vector<std::string>{"x"});
    EXPECT_EQ(ee.id, "4");
    EXPECT_EQ(ee.name, "x");
    EXPECT_EQ(ee.enabled, 1);
    EXPECT_EQ(ee.version, "1.0");
    EXPECT_EQ(ee.vendor, "Second");
}

TEST(EeIdentity, OverLongTextsAreCutToTheirFields) {
    const std::string long_text(400, 'v');
    FakeCatalog catalog;
    auto& r = catalog.reply();
    r.add_string("id", long_text);
    r.add_string("version", long_text);
    r.add_string("vendor", long_text);
    r.add_string("type", long_text);
    const ee_identity ee = resolve(long_text.c_str(), catalog);
    // The catalog is asked with the whole name; only what is kept is cut.
    ASSERT_EQ(catalog.asked.size(), 1u);
    EXPECT_EQ(catalog.asked[0].size(), 400u);
    EXPECT_EQ(ee.id.size(), 255u);
    EXPECT_EQ(ee.name.size(), 255u);
    EXPECT_EQ(ee.version.size(), 63u);
    EXPECT_EQ(ee.vendor.size(), 255u);
    EXPECT_EQ(ee.type.size(), 255u);
}

}  // namespace
}  // namespace pkgd
