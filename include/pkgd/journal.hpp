// The operation journal: every accepted install, update and uninstall as one small JSON file
// under /usr/local/package/journal/, named by its sequence number, from the moment it is accepted
// until its result has been sent. It holds what running the operation again takes (type, the
// caller's identifiers, the package's source and credentials), how far a worker got, and the
// result once recorded, so neither a killed worker nor a restarted daemon loses an operation or
// its one result.
//
// The files hold credentials: the directory is 0700 and every file 0600, replaced atomically.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "pkgd/records.hpp"

namespace pkgd {

struct journal_entry {
    operation_info op;     // op.seq names the file; op.pkg is always set
    bool started = false;  // a worker took it up: after a crash it is recovered, not run afresh
    std::string result;    // the result event's members as JSON; empty until recorded
    bool sent = false;     // the result reached the bus
    std::int32_t worker = 0;  // the pid of the worker that took it up last (its process group)
};

// The file's text, and back. The parser is pure and total: anything that is not an entry this
// daemon wrote (no positive "seq", unknown "type", no package id) gives nothing.
std::string journal_entry_text(const journal_entry& entry);
std::optional<journal_entry> parse_journal_entry(std::string_view text);

// A new entry for an accepted operation: not started, no result.
journal_entry journal_entry_of(const operation_info& op);

class OperationJournal {
public:
    explicit OperationJournal(std::string dir) : dir_(std::move(dir)) {}

    // Creates the directory (0700; an existing one is set to 0700). False when it cannot be made.
    bool prepare() const;
    std::string path(std::int32_t seq) const { return dir_ + "/" + std::to_string(seq); }

    // Gives `op` the next sequence number and writes its entry: false when that failed (the
    // operation must not be accepted then; `op.seq` is cleared again).
    bool accept(operation_info& op);
    bool write(const journal_entry& entry) const;
    bool remove(std::int32_t seq) const;
    std::optional<journal_entry> read(std::int32_t seq) const;

    // Every entry, in sequence order. A file that does not parse is reported to `complain` (its
    // name only: the content may hold a password) and removed. Later numbers continue after the
    // highest one seen.
    std::vector<journal_entry> load(const std::function<void(const std::string&)>& complain);

    // Removes the temporary files of writers killed midway (they may hold a password): those of a
    // process that is gone, or of this one.
    void discard_temporaries() const;

private:
    std::string dir_;
    std::int32_t last_seq_ = 0;
};

}  // namespace pkgd
