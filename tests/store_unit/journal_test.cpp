// The operation journal on a scratch directory: what an entry keeps, private files, numbering in
// order across restarts, and files that are not entries.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "pkgd/journal.hpp"
#include "temp_dir.hpp"

namespace pkgd {
namespace {

// Every field, in the order written, with text that needs escaping.
constexpr std::string_view kEntry =
    R"({"seq":1,"type":1,"requestid":-4,"operateid":7,"operatemid":8,"operateduid":9,"time":"2024-03-05T07:08:09",)"
    R"("started":true,"opkg":true,"pkg":{"id":"3","object":"pkgs.3","url":"ftp://h/\"a\".ipk","username":"u",)"
    R"("password":"p\\w\n","version":"2.0","uuid":"uu","du":12,"duname":"app","disableautostart":1},)"
    R"("result":{"RequestID":-4,"FaultCode":0,"Fault":""},"sent":true,"euinstances":[4,11]})";

mode_t mode_of(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
}

TEST(Journal, AnEntryComesBackWholeFromAPrivateFile) {
    bus_test::TempDir scratch;
    OperationJournal journal(scratch.path() + "/journal");
    ASSERT_TRUE(journal.prepare());
    const auto entry = parse_journal_entry(kEntry);
    ASSERT_TRUE(entry);
    operation_info op = entry->op;
    ASSERT_TRUE(journal.accept(op));
    ASSERT_TRUE(journal.write(*entry));
    EXPECT_EQ(mode_of(scratch.path() + "/journal"), 0700u);
    EXPECT_EQ(mode_of(journal.path(op.seq)), 0600u);
    const auto back = journal.read(op.seq);
    ASSERT_TRUE(back);
    EXPECT_EQ(journal_entry_text(*back), kEntry);
}

TEST(Journal, LoadKeepsNumberOrderDropsWhatIsNoEntryAndNumbersOnAfterTheHighest) {
    bus_test::TempDir scratch;
    const std::string dir = scratch.path() + "/journal";
    OperationJournal journal(dir);
    ASSERT_TRUE(journal.prepare());
    journal_entry entry = *parse_journal_entry(kEntry);
    for (int seq : {10, 9, 2}) {
        entry.op.seq = seq;
        ASSERT_TRUE(journal.write(entry));
    }
    const std::string good = journal_entry_text(entry);
    // Torn, not JSON, no such operation, no package, another number; then names of no entry.
    const std::vector<std::pair<std::string, std::string>> strays{
        {"11", good.substr(0, good.size() / 2)}, {"12", "\x01garbage"}, {"13", R"({"seq":13,"type":7,"pkg":{"id":"1"}})"},
        {"14", R"({"seq":14,"type":0,"pkg":{"id":""}})"}, {"15", good}, {"016", good}, {"x", good}};
    for (const auto& [name, text] : strays) std::ofstream(dir + "/" + name) << text;
    std::vector<std::string> complaints;
    std::vector<std::int32_t> seqs;
    for (const auto& e : journal.load([&](const std::string& path) { complaints.push_back(path); }))
        seqs.push_back(e.op.seq);
    EXPECT_EQ(seqs, (std::vector<std::int32_t>{2, 9, 10}));
    EXPECT_EQ(complaints.size(), 5u);
    EXPECT_FALSE(std::filesystem::exists(dir + "/11") || std::filesystem::exists(dir + "/15"));
    EXPECT_TRUE(std::filesystem::exists(dir + "/016"));
    ASSERT_TRUE(journal.accept(entry.op));
    EXPECT_EQ(entry.op.seq, 16);
}

}  // namespace
}  // namespace pkgd
