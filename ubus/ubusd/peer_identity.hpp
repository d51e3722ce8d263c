// Who is on the other end of a bus connection.
#pragma once

#include <sys/types.h>

#include <string>
#include <unordered_map>

namespace ubusd {

struct PeerIdentity {
    uid_t uid = static_cast<uid_t>(-1);
    gid_t gid = static_cast<gid_t>(-1);
    pid_t pid = 0;
    std::string user;  // forwarded to object owners with each call
    std::string group;
};

// User and group names by id. Names are looked up once per id and kept: a busy bus accepts
// connections far more often than the account database changes, and a lookup may be slow.
class NameCache {
public:
    const std::string& user(uid_t uid);
    const std::string& group(gid_t gid);

private:
    std::unordered_map<uid_t, std::string> users_;
    std::unordered_map<gid_t, std::string> groups_;
};

// The credentials the kernel recorded for a connected Unix socket, with the names. An id without
// a name is given as its decimal number. Returns false when the socket has no credentials.
bool peer_identity(int sock, NameCache& names, PeerIdentity& out);

}  // namespace ubusd
