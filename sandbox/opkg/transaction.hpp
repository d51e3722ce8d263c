// The changes one install makes to the root, each undoable until the install is finished: new
// files are written beside their destinations under temporary names, old files are renamed aside
// rather than deleted. A transaction that is not finished is rolled back when it goes away, so
// any failure leaves the previous version (or nothing) in place.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "install_plan.hpp"
#include "rooted.hpp"

namespace opkg {

class Transaction {
public:
    explicit Transaction(const RootDir& root) : root_(root) {}
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

    // Each returns an empty text on success, otherwise why it failed (then roll back).
    std::string create_directories(const InstallPlan& plan);
    std::string stage_files(const InstallPlan& plan);
    std::string commit_files();
    // Old files the new version no longer has: renamed aside, deleted by finish().
    std::string set_aside(const std::vector<std::string>& installed_paths);
    // Replaces the info files at these host paths; nullopt content removes one.
    std::string replace_info(const std::map<std::string, std::optional<std::string>>& files);

    void rollback();
    void finish();

    // Directories (relative to the root) that did not exist before.
    const std::vector<std::string>& created_directories() const { return created_; }

private:
    struct Placed {
        std::string parent, leaf;
        bool committed = false;
        bool had_old = false;
    };
    struct InfoChange {
        std::string path;
        bool had_old = false;
        bool wrote_new = false;
    };

    std::string ensure_directory(const std::string& relative, unsigned mode);

    const RootDir& root_;
    bool done_ = false;
    std::vector<std::string> created_;
    std::vector<Placed> staged_;
    std::vector<Placed> aside_;
    std::vector<InfoChange> info_;
};

}  // namespace opkg
