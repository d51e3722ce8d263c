// The gateway's flash as a pessimistic file system leaves it after a power cut, for proving that
// pkgd's file writes survive one at any instant. It stands in for the real file system under the
// record files (pkgd::FileIo) and keeps two views of every directory below its root: what the
// running system sees, and what is on storage. Only data a file was flushed with reaches storage.
// A name created, renamed or removed reaches it either only when its directory is flushed, or at
// once (as a journal committing every change of names before the data): a writer must be right
// under both. Power fails
// just before a chosen operation: that one and every later one fail with EIO, and storage stays
// as it was. `reboot` then lays what is on storage out under the root, for the normal loaders.
#pragma once

#include <cstddef>
#include <limits>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "pkgd/file_io.hpp"

namespace sandbox {

class PowerCutStorage final : public pkgd::FileIo {
public:
    enum class Names { on_directory_flush, at_once };
    // `root` is a scratch directory; `directories` (the root among them) exist on storage already.
    PowerCutStorage(std::string root, const std::vector<std::string>& directories,
                    Names names = Names::on_directory_flush);

    // Power fails just before the operation numbered `n`, counting every operation from 0.
    void cut_before(std::size_t n) { cut_ = n; }
    std::size_t operations() const { return operations_; }
    bool powered() const { return operations_ <= cut_; }
    // Replaces whatever is under the root with what is on storage: the files whose name and
    // directory reached it, each with the data it was last flushed with.
    void reboot() const;

    int create(const char* path, mode_t mode) override;
    ssize_t write(int fd, const void* data, std::size_t size) override;
    int fsync(int fd) override;
    int close(int fd) override;
    int rename(const char* from, const char* to) override;
    int unlink(const char* path) override;
    int mkdir(const char* path, mode_t mode) override;
    int sync_directory(const char* path) override;

private:
    static constexpr std::size_t kNever = std::numeric_limits<std::size_t>::max();
    struct Inode {
        std::string data;     // as the running system reads it
        std::string flushed;  // as storage holds it
    };
    // Counts one operation; false once the power is off.
    bool step();
    Inode* open_inode(int fd);
    // Puts the entries directly in `dir` on storage as the system sees them.
    void store_directory(const std::string& dir);
    // After a change of names in `dir`: on storage at once when names go there at once.
    void changed(const std::string& dir);

    std::string root_;
    Names names_mode_;
    std::vector<Inode> inodes_;
    std::map<std::string, std::size_t> names_;         // path -> inode, as the system sees them
    std::map<std::string, std::size_t> stored_names_;  // the same on storage
    std::set<std::string> directories_;
    std::set<std::string> stored_directories_;
    std::map<int, std::size_t> open_;  // descriptor -> inode
    int next_fd_ = 3;
    std::size_t operations_ = 0;
    std::size_t cut_ = kNever;
};

}  // namespace sandbox
