// Payload trees: built in code, or read from a directory on disk.
#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include "sandbox/feed/package.hpp"

namespace sandbox::feed {

namespace fs = std::filesystem;

TreeEntry file_entry(std::string path, std::string content, unsigned mode) {
    return {std::move(path), TreeEntry::Kind::file, std::move(content), mode};
}

TreeEntry directory_entry(std::string path, unsigned mode) {
    return {std::move(path), TreeEntry::Kind::directory, {}, mode};
}

TreeEntry symlink_entry(std::string path, std::string target) {
    return {std::move(path), TreeEntry::Kind::symlink, std::move(target), 0777};
}

Tree load_tree(const fs::path& dir) {
    std::error_code ec;
    if (!fs::is_directory(dir, ec)) throw FeedError("not a directory: " + dir.string());
    Tree tree;
    for (fs::recursive_directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
        const fs::path& p = it->path();
        std::string rel = p.lexically_relative(dir).generic_string();
        struct stat st{};
        if (::lstat(p.c_str(), &st) != 0) throw FeedError("cannot stat " + p.string());
        const unsigned mode = st.st_mode & 07777;
        if (S_ISLNK(st.st_mode)) {
            tree.push_back(symlink_entry(rel, fs::read_symlink(p).string()));
        } else if (S_ISDIR(st.st_mode)) {
            tree.push_back(directory_entry(rel, mode));
        } else if (S_ISREG(st.st_mode)) {
            std::ifstream in(p, std::ios::binary);
            std::ostringstream content;
            content << in.rdbuf();
            if (!in) throw FeedError("cannot read " + p.string());
            tree.push_back(file_entry(rel, content.str(), mode));
        } else {
            throw FeedError("neither file, directory nor symlink: " + p.string());
        }
    }
    if (ec) throw FeedError("cannot walk " + dir.string() + ": " + ec.message());
    // Name order puts a directory before what it holds.
    std::sort(tree.begin(), tree.end(), [](const TreeEntry& a, const TreeEntry& b) { return a.path < b.path; });
    return tree;
}

}  // namespace sandbox::feed
