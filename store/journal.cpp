// The operation journal's directory: one private file per accepted operation.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

#include "durable_file.hpp"
#include "pkgd/file_io.hpp"
#include "pkgd/journal.hpp"

namespace pkgd {
namespace {

// Entries hold the feed's password: only the daemon's user may list or read them.
constexpr mode_t kJournalDirMode = 0700;
constexpr mode_t kJournalFileMode = 0600;

// The sequence number a file name spells, or 0 for any other name (hidden temporaries included).
std::int32_t seq_of(std::string_view name) {
    std::int32_t seq = 0;
    const auto [end, ec] = std::from_chars(name.data(), name.data() + name.size(), seq);
    if (ec != std::errc() || end != name.data() + name.size() || seq <= 0 || name.front() == '0') return 0;
    return seq;
}

std::optional<std::string> read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::nullopt;
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace

bool OperationJournal::prepare() const {
    return make_directory(*io_, dir_, kJournalDirMode) && ::chmod(dir_.c_str(), kJournalDirMode) == 0;
}

bool OperationJournal::accept(operation_info& op) {
    op.seq = last_seq_ + 1;
    if (!write(journal_entry_of(op))) {
        op.seq = 0;
        return false;
    }
    last_seq_ = op.seq;
    return true;
}

bool OperationJournal::write(const journal_entry& entry) const {
    return entry.op.seq > 0 && replace_file(*io_, path(entry.op.seq), journal_entry_text(entry), kJournalFileMode);
}

bool OperationJournal::remove(std::int32_t seq) const {
    return remove_file(*io_, path(seq));
}

std::optional<journal_entry> OperationJournal::read(std::int32_t seq) const {
    const auto text = read_file(path(seq));
    if (!text) return std::nullopt;
    auto entry = parse_journal_entry(*text);
    // A file renamed by hand must not pass for another operation.
    if (entry && entry->op.seq != seq) return std::nullopt;
    return entry;
}

std::vector<journal_entry> OperationJournal::load(const std::function<void(const std::string&)>& complain) {
    std::vector<std::int32_t> seqs;
    std::error_code ec;
    for (std::filesystem::directory_iterator it(dir_, ec), end; !ec && it != end; it.increment(ec)) {
        const std::string name = it->path().filename().string();
        if (const std::int32_t seq = seq_of(name)) seqs.push_back(seq);
    }
    std::sort(seqs.begin(), seqs.end());
    std::vector<journal_entry> entries;
    for (const std::int32_t seq : seqs) {
        last_seq_ = std::max(last_seq_, seq);
        if (auto entry = read(seq)) {
            entries.push_back(std::move(*entry));
            continue;
        }
        complain(path(seq));
        remove(seq);
    }
    return entries;
}

void OperationJournal::discard_temporaries() const {
    remove_stale_temporaries(*io_, dir_);
}

}  // namespace pkgd
