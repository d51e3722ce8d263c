// Reading record files back: round trips through the JSON text, and what badly typed or missing
// members do to a record.
#include <gtest/gtest.h>

#include "pkgd/record_files.hpp"
#include "sample_records.hpp"
#include "ubus/json.hpp"

namespace {

using namespace pkgd;

// The members of a record file whose text is `json`.
struct Loaded {
    explicit Loaded(std::string_view json) { ok = ubus::json_load(buf, json); }
    ubus::Bytes members() const { return buf.members(); }
    ubus::BlobBuf buf;
    bool ok = false;
};

// A record message written out as its file's text and loaded again.
template <typename Build>
Loaded through_json(Build build) {
    ubus::BlobBuf msg;
    build(msg);
    return Loaded(ubus::json_format(msg));
}

void expect_same_du(const du_info& a, const du_info& b) {
    EXPECT_EQ(a.index, b.index);
    EXPECT_EQ(a.pkgtype, b.pkgtype);
    EXPECT_EQ(a.uuid, b.uuid);
    EXPECT_EQ(a.version, b.version);
    EXPECT_EQ(a.name, b.name);
    EXPECT_EQ(a.vendor, b.vendor);
    EXPECT_EQ(a.resolved, b.resolved);
    EXPECT_EQ(a.enabled, b.enabled);
    EXPECT_EQ(a.description, b.description);
    EXPECT_EQ(a.files, b.files);
    EXPECT_EQ(a.dependency, b.dependency);
    EXPECT_EQ(a.section, b.section);
    EXPECT_EQ(a.license, b.license);
    EXPECT_EQ(a.licensefiles, b.licensefiles);
    EXPECT_EQ(a.architecture, b.architecture);
    EXPECT_EQ(a.provides, b.provides);
    EXPECT_EQ(a.size, b.size);
    EXPECT_EQ(a.installedsize, b.installedsize);
    EXPECT_EQ(a.time, b.time);
}

TEST(RecordRoundTrip, DeploymentUnitComesBackWhole) {
    const pkg_info pkg = store_test::ordinary_package();
    const Loaded file = through_json([&](auto& m) { du_record_message(m, pkg, "System"); });
    ASSERT_TRUE(file.ok);
    du_info du;
    apply_du_record(du, pkg.du.index, file.members());
    expect_same_du(du, pkg.du);

    // Absent optional texts stay absent in a fresh record, they do not become empty.
    pkg_info sparse;
    sparse.du.index = 2;
    sparse.du.name = "n";
    sparse.du.pkgtype = PKGTYPE_EE;
    const Loaded sparse_file = through_json([&](auto& m) { du_record_message(m, sparse, "System"); });
    du_info back;
    apply_du_record(back, 2, sparse_file.members());
    expect_same_du(back, sparse.du);
}

TEST(RecordRoundTrip, UnitsEnvironmentAndPackage) {
    const pkg_info pkg = store_test::ordinary_package();
    for (const eu_info& eu : pkg.eu) {
        const Loaded file = through_json([&](auto& m) { eu_record_message(m, pkg, eu, "System"); });
        const eu_info back = eu_record_from(eu.index, file.members());
        EXPECT_EQ(back.index, eu.index);
        EXPECT_EQ(back.euid, eu.euid);
        EXPECT_EQ(back.name, eu.name);
    }

    const pkg_info env = store_test::environment_package();
    const Loaded ee_file = through_json([&](auto& m) { ee_record_message(m, env, *env.ee, "System"); });
    const ee_info ee = ee_record_from(2, ee_file.members());
    EXPECT_EQ(ee.index, 2);
    EXPECT_EQ(ee.name, env.ee->name);
    EXPECT_EQ(ee.version, env.ee->version);
    EXPECT_EQ(ee.vendor, env.ee->vendor);
    EXPECT_EQ(ee.type, env.ee->type);
    EXPECT_EQ(ee.file, env.ee->file);

    pkg_info with_flag = pkg;
    with_flag.disable_autostart = 1;
    const Loaded pkg_file = through_json([&](auto& m) { pkg_record_message(m, with_flag); });
    pkg_info back;
    const pkg_record_links links = apply_pkg_record(back, pkg_file.members());
    EXPECT_EQ(links.du, 7);
    EXPECT_EQ(links.ee, std::nullopt);
    EXPECT_EQ(links.eu, (std::vector<std::int32_t>{4, 6}));
    EXPECT_EQ(back.url, pkg.url);
    EXPECT_EQ(back.username, pkg.username);
    EXPECT_EQ(back.password, pkg.password);
    EXPECT_EQ(back.disable_autostart, 1);
    EXPECT_EQ(back.du.uuid, "");  // "UUID" is written for the catalog's readers, never read back

    const Loaded env_file = through_json([&](auto& m) { pkg_record_message(m, env); });
    pkg_info env_back;
    EXPECT_EQ(apply_pkg_record(env_back, env_file.members()).ee, 2);
}

TEST(RecordRead, WronglyTypedMembersCountAsAbsent) {
    du_info du;
    du.size = 99;
    du.resolved = 1;
    du.name = "kept";
    const Loaded file(R"({"size":"12","resolved":0.0,"name":7,"installedsize":5,"enabled":true})");
    ASSERT_TRUE(file.ok);
    apply_du_record(du, 4, file.members());
    EXPECT_EQ(du.size, 99u);
    EXPECT_EQ(du.resolved, 1);
    EXPECT_EQ(du.name, "kept");
    EXPECT_EQ(du.installedsize, 5u);
    EXPECT_EQ(du.enabled, 1);
    EXPECT_EQ(du.index, 4);

    pkg_info pkg;
    pkg.url = "http://old/";
    const pkg_record_links links = apply_pkg_record(
        pkg, Loaded(R"({"DU":"7","EE":true,"resource.url":3,"disableautostart":1})").members());
    EXPECT_FALSE(links.du);
    EXPECT_FALSE(links.ee);
    EXPECT_EQ(pkg.url, "http://old/");
    EXPECT_EQ(pkg.disable_autostart, 0);
}

TEST(RecordRead, PackageLinksSkipElementsThatAreNotIndexes) {
    pkg_info pkg;
    const pkg_record_links links =
        apply_pkg_record(pkg, Loaded(R"({"EU":[4,"x",7,true,8.5,[1]],"resource.username":"bob"})").members());
    EXPECT_EQ(links.eu, (std::vector<std::int32_t>{4, 7}));
    // No "DU": the package's own members are still applied.
    EXPECT_FALSE(links.du);
    EXPECT_EQ(pkg.username, "bob");

    // An "EU" that is not an array gives no units.
    EXPECT_TRUE(apply_pkg_record(pkg, Loaded(R"({"EU":4})").members()).eu.empty());
}

}  // namespace
