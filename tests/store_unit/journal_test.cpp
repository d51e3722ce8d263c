// The operation journal on a scratch directory: what an entry keeps, private files, numbering in
// order across restarts, and files that are not entries.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "pkgd/journal.hpp"
#include "temp_dir.hpp"

namespace pkgd {
namespace {

operation_info update_op() {
    operation_info op;
    op.type = OPERATION_UPDATE;
    op.request_id = -4;
    op.operate_id = 7;
    op.operate_mid = 8;
    op.operate_duid = 9;
    op.time = "2024-03-05T07:08:09+01:00";
    op.opkg_reached = true;
    op.pkg = std::make_shared<pkg_info>();
    op.pkg->id = "3";
    op.pkg->object_name = "pkgs.3";
    op.pkg->url = "ftp://h/\"a\".ipk";
    op.pkg->username = "u";
    op.pkg->password = "p\\w\n";
    op.pkg->version = "2.0";
    op.pkg->du.uuid = "uu";
    op.pkg->du.index = 12;
    op.pkg->du.name = "app";
    op.pkg->disable_autostart = 1;
    return op;
}

mode_t mode_of(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
}

TEST(Journal, AnEntryComesBackWholeFromAPrivateFile) {
    bus_test::TempDir scratch;
    OperationJournal journal(scratch.path() + "/journal");
    ASSERT_TRUE(journal.prepare());
    operation_info op = update_op();
    ASSERT_TRUE(journal.accept(op));
    journal_entry entry = journal_entry_of(op);
    entry.started = entry.sent = true;
    entry.result = R"({"RequestID":-4,"FaultCode":0,"Fault":""})";
    ASSERT_TRUE(journal.write(entry));
    EXPECT_EQ(mode_of(scratch.path() + "/journal"), 0700u);
    EXPECT_EQ(mode_of(journal.path(op.seq)), 0600u);

    const auto back = journal.read(op.seq);
    ASSERT_TRUE(back);
    EXPECT_EQ(journal_entry_text(*back), journal_entry_text(entry));
    const operation_info& o = back->op;
    const pkg_info& p = *o.pkg;
    EXPECT_EQ(std::make_tuple(o.seq, o.type, o.request_id, o.operate_id, o.operate_mid, o.operate_duid, o.opkg_reached),
              std::make_tuple(1, 1, -4, 7, 8, 9, true));
    EXPECT_EQ(p.id + p.object_name + p.url.str() + p.username.str() + p.password.str() + p.version.str() +
                  p.du.uuid.str() + *p.du.name + o.time.str(),
              "3pkgs.3ftp://h/\"a\".ipkup\\w\n2.0uuapp2024-03-05T07:08:09+01:00");
    EXPECT_EQ(std::make_tuple(p.du.index, p.disable_autostart, back->started, back->sent, back->result),
              std::make_tuple(12, 1, true, true, entry.result));
}

TEST(Journal, LoadKeepsNumberOrderDropsWhatIsNoEntryAndNumbersOnAfterTheHighest) {
    bus_test::TempDir scratch;
    const std::string dir = scratch.path() + "/journal";
    OperationJournal journal(dir);
    ASSERT_TRUE(journal.prepare());
    operation_info op = update_op();
    for (int seq : {10, 9, 2}) {
        op.seq = seq;
        ASSERT_TRUE(journal.write(journal_entry_of(op)));
    }
    const std::string good = journal_entry_text(journal_entry_of(op));
    const std::vector<std::pair<std::string, std::string>> strays{
        {"11", good.substr(0, good.size() / 2)},                // torn
        {"12", "\x01garbage"},                                  // not JSON
        {"13", R"({"seq":13,"type":7,"pkg":{"id":"1"}})"},      // no such operation
        {"14", R"({"seq":14,"type":0,"pkg":{"id":""}})"},       // no package
        {"15", good},                                           // says it is number 2
        {"016", good}, {".tmp.1.1", good}, {"x", good},         // not entry names: left alone
    };
    for (const auto& [name, text] : strays) std::ofstream(dir + "/" + name) << text;
    std::vector<std::string> complaints;
    const auto entries = journal.load([&](const std::string& path) { complaints.push_back(path); });
    std::vector<std::int32_t> seqs;
    for (const auto& e : entries) seqs.push_back(e.op.seq);
    EXPECT_EQ(seqs, (std::vector<std::int32_t>{2, 9, 10}));
    EXPECT_EQ(complaints.size(), 5u);
    EXPECT_FALSE(std::filesystem::exists(dir + "/11") || std::filesystem::exists(dir + "/15"));
    EXPECT_TRUE(std::filesystem::exists(dir + "/016"));
    ASSERT_TRUE(journal.accept(op));
    EXPECT_EQ(op.seq, 16);
}

}  // namespace
}  // namespace pkgd
