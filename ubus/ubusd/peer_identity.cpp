#include "ubusd/peer_identity.hpp"

#include <grp.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

namespace ubusd {

namespace {

std::size_t lookup_buffer_size(int which) {
    const long n = ::sysconf(which);
    return n > 0 ? static_cast<std::size_t>(n) : 16384;
}

std::string user_name(uid_t uid) {
    std::vector<char> buf(lookup_buffer_size(_SC_GETPW_R_SIZE_MAX));
    for (;;) {
        passwd pw{};
        passwd* found = nullptr;
        const int rc = ::getpwuid_r(uid, &pw, buf.data(), buf.size(), &found);
        if (rc == ERANGE && buf.size() < (1u << 20)) {
            buf.resize(buf.size() * 2);
            continue;
        }
        if (rc == 0 && found) return found->pw_name;
        return std::to_string(uid);
    }
}

std::string group_name(gid_t gid) {
    std::vector<char> buf(lookup_buffer_size(_SC_GETGR_R_SIZE_MAX));
    for (;;) {
        group gr{};
        group* found = nullptr;
        const int rc = ::getgrgid_r(gid, &gr, buf.data(), buf.size(), &found);
        if (rc == ERANGE && buf.size() < (1u << 20)) {
            buf.resize(buf.size() * 2);
            continue;
        }
        if (rc == 0 && found) return found->gr_name;
        return std::to_string(gid);
    }
}

}  // namespace

const std::string& NameCache::user(uid_t uid) {
    auto it = users_.find(uid);
    if (it == users_.end()) it = users_.emplace(uid, user_name(uid)).first;
    return it->second;
}

const std::string& NameCache::group(gid_t gid) {
    auto it = groups_.find(gid);
    if (it == groups_.end()) it = groups_.emplace(gid, group_name(gid)).first;
    return it->second;
}

bool peer_identity(int sock, NameCache& names, PeerIdentity& out) {
    ucred cred{};
    socklen_t len = sizeof(cred);
    if (::getsockopt(sock, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0) return false;
    out.uid = cred.uid;
    out.gid = cred.gid;
    out.pid = cred.pid;
    out.user = names.user(cred.uid);
    out.group = names.group(cred.gid);
    return true;
}

}  // namespace ubusd
