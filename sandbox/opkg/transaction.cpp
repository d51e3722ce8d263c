#include "transaction.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "files.hpp"
#include "member_path.hpp"

namespace opkg {
namespace {

std::string new_name(const std::string& leaf) {
    return ".opkg-new." + leaf;
}
std::string old_name(const std::string& leaf) {
    return ".opkg-old." + leaf;
}
std::string info_backup(const std::string& path) {
    return path + ".opkg-old";
}

bool exists_at(int dir, const std::string& leaf, struct stat* st = nullptr) {
    struct stat local {};
    return ::fstatat(dir, leaf.c_str(), st ? st : &local, AT_SYMLINK_NOFOLLOW) == 0;
}

std::string failure(const std::string& relative, const char* what) {
    return "/" + relative + ": " + what + ": " + errno_text();
}

}  // namespace

Transaction::~Transaction() {
    if (!done_) rollback();
}

std::string Transaction::ensure_directory(const std::string& relative, unsigned mode) {
    for (std::size_t end = 0; end != std::string::npos;) {
        end = relative.find('/', end + 1);
        const std::string prefix = relative.substr(0, end);
        if (root_.open_dir(prefix)) continue;
        if (errno != ENOENT) return failure(prefix, "not a directory");
        const auto [parent, leaf] = split_parent(prefix);
        const UniqueFd dir = root_.open_dir(parent);
        if (!dir) return failure(parent, "cannot open");
        const unsigned wanted = end == std::string::npos && mode != 0 ? mode : 0755;
        if (::mkdirat(dir.get(), leaf.c_str(), wanted) != 0) return failure(prefix, "cannot create");
        created_.push_back(prefix);
    }
    return {};
}

std::string Transaction::create_directories(const InstallPlan& plan) {
    for (const PlannedEntry& entry : plan.directories)
        if (std::string error = ensure_directory(entry.path, entry.mode); !error.empty()) return error;
    for (const PlannedEntry& entry : plan.files) {
        const std::string parent = split_parent(entry.path).first;
        if (parent.empty()) continue;
        if (std::string error = ensure_directory(parent, 0755); !error.empty()) return error;
    }
    return {};
}

std::string Transaction::stage_files(const InstallPlan& plan) {
    for (const PlannedEntry& entry : plan.files) {
        const auto [parent, leaf] = split_parent(entry.path);
        const UniqueFd dir = root_.open_dir(parent);
        if (!dir) return failure(parent, "cannot open");
        struct stat st {};
        if (exists_at(dir.get(), leaf, &st) && S_ISDIR(st.st_mode)) {
            errno = EISDIR;
            return failure(entry.path, "cannot replace");
        }
        const std::string temp = new_name(leaf);
        ::unlinkat(dir.get(), temp.c_str(), 0);  // left over by an install that was cut short
        if (entry.kind == ArchiveMember::Kind::symlink) {
            if (::symlinkat(entry.link.c_str(), dir.get(), temp.c_str()) != 0)
                return failure(entry.path, "cannot write");
        } else {
            UniqueFd out(::openat(dir.get(), temp.c_str(),
                                  O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
            if (!out) return failure(entry.path, "cannot write");
            staged_.push_back({parent, leaf});
            if (!write_all(out.get(), *entry.data) || ::fchmod(out.get(), entry.mode) != 0 ||
                ::fsync(out.get()) != 0)
                return failure(entry.path, "cannot write");
            continue;
        }
        staged_.push_back({parent, leaf});
    }
    return {};
}

std::string Transaction::commit_files() {
    for (Placed& placed : staged_) {
        const UniqueFd dir = root_.open_dir(placed.parent);
        const std::string relative = placed.parent.empty() ? placed.leaf : placed.parent + "/" + placed.leaf;
        if (!dir) return failure(placed.parent, "cannot open");
        if (exists_at(dir.get(), placed.leaf)) {
            // Kept under a second name (a hard link) so that the rename below replaces the file
            // in one step: a service reading it during an upgrade never finds it missing.
            const std::string old = old_name(placed.leaf);
            ::unlinkat(dir.get(), old.c_str(), 0);
            if (::linkat(dir.get(), placed.leaf.c_str(), dir.get(), old.c_str(), 0) != 0 &&
                ::renameat(dir.get(), placed.leaf.c_str(), dir.get(), old.c_str()) != 0)
                return failure(relative, "cannot replace");
            placed.had_old = true;
        }
        if (::renameat(dir.get(), new_name(placed.leaf).c_str(), dir.get(), placed.leaf.c_str()) != 0)
            return failure(relative, "cannot install");
        placed.committed = true;
    }
    return {};
}

std::string Transaction::set_aside(const std::vector<std::string>& installed_paths) {
    for (const std::string& path : installed_paths) {
        const std::optional<std::string> relative = normalise_member(path);
        if (!relative || relative->empty()) continue;
        const auto [parent, leaf] = split_parent(*relative);
        const UniqueFd dir = root_.open_dir(parent);
        if (!dir || !exists_at(dir.get(), leaf)) continue;  // already gone
        if (::renameat(dir.get(), leaf.c_str(), dir.get(), old_name(leaf).c_str()) != 0)
            return path + ": cannot remove: " + errno_text();
        aside_.push_back({parent, leaf, true, true});
    }
    return {};
}

std::string Transaction::replace_info(const std::map<std::string, std::optional<std::string>>& files) {
    for (const auto& [path, content] : files) {
        InfoChange change{path};
        if (::access(path.c_str(), F_OK) == 0) {
            if (::rename(path.c_str(), info_backup(path).c_str()) != 0) return path + ": " + errno_text();
            change.had_old = true;
        }
        info_.push_back(change);
        if (!content) continue;
        const bool script = path.size() > 4 && (path.ends_with("inst") || path.ends_with("rm"));
        if (std::string error = replace_file(path, *content, script ? 0755 : 0644); !error.empty())
            return error;
        info_.back().wrote_new = true;
    }
    return {};
}

void Transaction::rollback() {
    done_ = true;
    for (auto it = info_.rbegin(); it != info_.rend(); ++it) {
        if (it->wrote_new) ::unlink(it->path.c_str());
        if (it->had_old) ::rename(info_backup(it->path).c_str(), it->path.c_str());
    }
    for (const Placed& placed : aside_) {
        const UniqueFd dir = root_.open_dir(placed.parent);
        if (dir) ::renameat(dir.get(), old_name(placed.leaf).c_str(), dir.get(), placed.leaf.c_str());
    }
    for (auto it = staged_.rbegin(); it != staged_.rend(); ++it) {
        const UniqueFd dir = root_.open_dir(it->parent);
        if (!dir) continue;
        // The old file may be aside even when the new one never took its place.
        if (!it->committed) ::unlinkat(dir.get(), new_name(it->leaf).c_str(), 0);
        if (it->had_old) {
            ::renameat(dir.get(), old_name(it->leaf).c_str(), dir.get(), it->leaf.c_str());
        } else if (it->committed) {
            ::unlinkat(dir.get(), it->leaf.c_str(), 0);
        }
    }
    for (auto it = created_.rbegin(); it != created_.rend(); ++it) {
        const auto [parent, leaf] = split_parent(*it);
        const UniqueFd dir = root_.open_dir(parent);
        if (dir) ::unlinkat(dir.get(), leaf.c_str(), AT_REMOVEDIR);
    }
}

void Transaction::finish() {
    done_ = true;
    for (const InfoChange& change : info_)
        if (change.had_old) ::unlink(info_backup(change.path).c_str());
    for (const std::vector<Placed>* placed_list : {&aside_, &staged_}) {
        for (const Placed& placed : *placed_list) {
            if (!placed.had_old) continue;
            const UniqueFd dir = root_.open_dir(placed.parent);
            if (dir) ::unlinkat(dir.get(), old_name(placed.leaf).c_str(), 0);
        }
    }
}

}  // namespace opkg
