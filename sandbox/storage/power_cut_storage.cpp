#include "sandbox/power_cut_storage.hpp"

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string_view>

namespace sandbox {
namespace {

namespace fs = std::filesystem;

std::string parent_of(std::string_view path) {
    const std::size_t slash = path.rfind('/');
    return std::string(path.substr(0, slash == std::string_view::npos ? 0 : slash));
}

const std::string& key_of(const std::string& entry) {
    return entry;
}
template <typename Value>
const std::string& key_of(const std::pair<const std::string, Value>& entry) {
    return entry.first;
}

// Makes the entries directly in `dir` on storage those the system sees.
template <typename Entries>
void store_entries(const std::string& dir, const Entries& live, Entries& stored) {
    std::erase_if(stored, [&](const auto& entry) { return parent_of(key_of(entry)) == dir; });
    for (const auto& entry : live)
        if (parent_of(key_of(entry)) == dir) stored.insert(entry);
}

int failure(int error) {
    errno = error;
    return -1;
}

}  // namespace

PowerCutStorage::PowerCutStorage(std::string root, const std::vector<std::string>& directories, Names names)
    : root_(std::move(root)),
      names_mode_(names),
      directories_(directories.begin(), directories.end()),
      stored_directories_(directories_) {}

bool PowerCutStorage::step() {
    if (operations_++ < cut_) return true;
    errno = EIO;
    return false;
}

PowerCutStorage::Inode* PowerCutStorage::open_inode(int fd) {
    const auto it = open_.find(fd);
    if (it == open_.end()) return errno = EBADF, nullptr;
    return &inodes_[it->second];
}

int PowerCutStorage::create(const char* path, mode_t) {
    if (!step()) return -1;
    if (!directories_.count(parent_of(path))) return failure(ENOENT);
    if (names_.count(path) || directories_.count(path)) return failure(EEXIST);
    inodes_.emplace_back();
    names_[path] = inodes_.size() - 1;
    open_[next_fd_] = inodes_.size() - 1;
    changed(parent_of(path));
    return next_fd_++;
}

ssize_t PowerCutStorage::write(int fd, const void* data, std::size_t size) {
    Inode* inode = open_inode(fd);
    if (!step() || !inode) return -1;
    inode->data.append(static_cast<const char*>(data), size);
    return static_cast<ssize_t>(size);
}

int PowerCutStorage::fsync(int fd) {
    Inode* inode = open_inode(fd);
    if (!step() || !inode) return -1;
    inode->flushed = inode->data;
    return 0;
}

int PowerCutStorage::close(int fd) {
    // The descriptor is gone whatever happens, as with close(2).
    const bool open = open_.erase(fd) != 0;
    if (!step()) return -1;
    return open ? 0 : failure(EBADF);
}

int PowerCutStorage::rename(const char* from, const char* to) {
    if (!step()) return -1;
    const auto it = names_.find(from);
    if (it == names_.end()) return failure(ENOENT);
    if (!directories_.count(parent_of(to))) return failure(ENOENT);
    const std::size_t inode = it->second;
    names_.erase(it);
    names_[to] = inode;
    changed(parent_of(from));
    changed(parent_of(to));
    return 0;
}

int PowerCutStorage::unlink(const char* path) {
    if (!step()) return -1;
    if (!names_.erase(path)) return failure(ENOENT);
    changed(parent_of(path));
    return 0;
}

int PowerCutStorage::mkdir(const char* path, mode_t) {
    if (!step()) return -1;
    if (!directories_.count(parent_of(path))) return failure(ENOENT);
    if (names_.count(path) || !directories_.insert(path).second) return failure(EEXIST);
    changed(parent_of(path));
    return 0;
}

int PowerCutStorage::sync_directory(const char* path) {
    if (!step()) return -1;
    if (!directories_.count(path)) return failure(ENOENT);
    store_directory(path);
    return 0;
}

void PowerCutStorage::store_directory(const std::string& dir) {
    store_entries(dir, names_, stored_names_);
    store_entries(dir, directories_, stored_directories_);
}

void PowerCutStorage::changed(const std::string& dir) {
    if (names_mode_ == Names::at_once) store_directory(dir);
}

void PowerCutStorage::reboot() const {
    for (const auto& entry : fs::directory_iterator(root_)) fs::remove_all(entry.path());
    // A name reaches a reboot only through directories that are all on storage themselves.
    const auto reachable = [this](std::string dir) {
        for (; dir.size() > root_.size(); dir = parent_of(dir))
            if (!stored_directories_.count(dir)) return false;
        return true;
    };
    for (const std::string& dir : stored_directories_)
        if (reachable(dir)) fs::create_directories(dir);
    for (const auto& [path, inode] : stored_names_)
        if (reachable(parent_of(path))) std::ofstream(path, std::ios::binary) << inodes_[inode].flushed;
}

}  // namespace sandbox
