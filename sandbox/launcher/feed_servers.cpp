#include "feed_servers.hpp"

#include <arpa/inet.h>
#include <crypt.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <fstream>
#include <sstream>

#include "sandbox/root_paths.hpp"
#include "ubus/fd.hpp"

namespace sandbox {
namespace {

namespace fs = std::filesystem;
using ubus::UniqueFd;

constexpr std::string_view kLighttpd = "/usr/sbin/lighttpd";
constexpr std::string_view kPureFtpd = "/usr/sbin/pure-ftpd";
constexpr std::string_view kPurePw = "/usr/bin/pure-pw";
// The FTP session runs as this user; it needs to read the feed directory.
constexpr int kFtpUid = 65534;

Status write_file(const fs::path& path, std::string_view text, mode_t mode) {
    // Created afresh with its final mode: a password is never readable by others, not even briefly.
    ::unlink(path.c_str());
    UniqueFd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
    if (!fd || ::write(fd.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        return Status::failure(system_error("write " + path.string(), errno));
    ::fchmod(fd.get(), mode);
    return {};
}

std::string read_file(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// Free ports on 127.0.0.1, distinct from each other: all sockets stay bound until all are chosen.
Status free_ports(std::array<int, 3>& ports) {
    std::array<UniqueFd, 3> sockets;
    for (std::size_t i = 0; i < ports.size(); ++i) {
        sockets[i].reset(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof addr;
        if (!sockets[i] || ::bind(sockets[i].get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
            ::getsockname(sockets[i].get(), reinterpret_cast<sockaddr*>(&addr), &len) != 0)
            return Status::failure(system_error("find a free loopback port", errno));
        ports[i] = ntohs(addr.sin_port);
    }
    return {};
}

// A path or name written between double quotes in lighttpd's configuration.
bool quotable(std::string_view text) {
    return text.find_first_of("\"\\\n") == std::string_view::npos;
}

std::string lighttpd_config(const fs::path& feed, const fs::path& dir, const FeedPorts& ports, bool auth) {
    std::string c;
    c += "server.document-root = \"" + feed.string() + "\"\n";
    c += "server.bind = \"127.0.0.1\"\n";
    c += "server.port = " + std::to_string(ports.http) + "\n";
    c += "server.errorlog = \"" + (dir / "lighttpd-error.log").string() + "\"\n";
    // Without its cache the server looks at each file anew: a test rewrites the index and fetches
    // it at once, and a cached size would cut the new file short.
    c += "server.stat-cache-engine = \"disable\"\n";
    c += "server.modules = (\"mod_auth\", \"mod_authn_file\", \"mod_openssl\")\n";
    c += "mimetype.assign = (\"\" => \"application/octet-stream\")\n";
    c += "$SERVER[\"socket\"] == \"127.0.0.1:" + std::to_string(ports.https) + "\" {\n";
    c += "  ssl.engine = \"enable\"\n";
    c += "  ssl.pemfile = \"" + (dir / "server.pem").string() + "\"\n";
    c += "}\n";
    if (auth) {
        c += "auth.backend = \"plain\"\n";
        c += "auth.backend.plain.userfile = \"" + (dir / "web-users").string() + "\"\n";
        c += "auth.require = (\"/\" => (\"method\" => \"basic\", \"realm\" => \"pkgd feed\", "
             "\"require\" => \"valid-user\"))\n";
    }
    return c;
}

// A SHA-512 crypt(3) hash, as pure-ftpd's user database keeps passwords.
Status hash_password(const std::string& password, std::string& out) {
    char salt[CRYPT_GENSALT_OUTPUT_SIZE];
    if (crypt_gensalt_rn("$6$", 0, nullptr, 0, salt, sizeof salt) == nullptr)
        return Status::failure(system_error("make a password salt", errno));
    auto data = std::make_unique<crypt_data>();
    const char* hash = crypt_r(password.c_str(), salt, data.get());
    if (hash == nullptr || hash[0] == '*') return Status::failure("cannot hash the FTP password");
    out = hash;
    return {};
}

Status read_password(const LaunchOptions& options, std::string& out) {
    if (options.feed_password_file.empty()) return Status::failure("a feed user needs a password file");
    std::ifstream in(options.feed_password_file);
    if (!in) return Status::failure("cannot read " + options.feed_password_file.string());
    std::getline(in, out);
    if (!out.empty() && out.back() == '\r') out.pop_back();
    if (out.empty()) return Status::failure("the feed password is empty: " + options.feed_password_file.string());
    return {};
}

}  // namespace

Status feed_pki(const LaunchOptions& options, feed::Pki& out) {
    try {
        if (!options.feed_pki.empty()) {
            out = feed::load_pki(options.feed_pki);
        } else {
            fs::path dir = host_path(options.root, kFeedPkiDir);
            if (fs::exists(dir / "ca.pem")) {
                out = feed::load_pki(dir);
            } else {
                out = feed::make_pki();
                feed::save_pki(out, dir);
            }
        }
    } catch (const std::exception& e) {
        return Status::failure(e.what());
    }
    if (out.server.empty() || out.server.key_pem.empty())
        return Status::failure("the feed PKI has no server certificate and key (server.pem, server.key)");
    return {};
}

Status prepare_feed_servers(const LaunchOptions& options, const feed::Pki& pki, FeedServers& out) {
    std::error_code ec;
    const fs::path feed = fs::absolute(options.feed_dir, ec);
    if (!fs::is_directory(feed, ec)) return Status::failure("the feed is not a directory: " + feed.string());
    for (std::string_view binary : {kLighttpd, kPureFtpd, kPurePw}) {
        if (::access(std::string(binary).c_str(), X_OK) != 0)
            return Status::failure(std::string(binary) + " is missing (install lighttpd, lighttpd-mod-openssl, pure-ftpd)");
    }
    const fs::path dir = host_path(options.root, kFeedServerDir);
    fs::create_directories(dir, ec);
    if (ec) return Status::failure("cannot create " + dir.string() + ": " + ec.message());
    if (!quotable(feed.string()) || !quotable(dir.string()))
        return Status::failure("the feed and root paths may not hold quotes, backslashes or line ends");

    const bool auth = !options.feed_user.empty();
    std::string user(auth ? options.feed_user : kDefaultFtpLogin);
    std::string password(auth ? "" : kDefaultFtpLogin);
    if (user.find_first_of(":\"\\\n\r") != std::string::npos) return Status::failure("bad feed user name: " + user);
    if (auth) {
        if (Status s = read_password(options, password); !s) return s;
    }

    std::array<int, 3> ports{};
    if (Status s = free_ports(ports); !s) return s;
    out.ports = {ports[0], ports[1], ports[2]};

    if (Status s = write_file(dir / "server.pem", pki.server.cert_pem + pki.server.key_pem, 0600); !s) return s;
    if (auth) {
        if (Status s = write_file(dir / "web-users", user + ":" + password + "\n", 0600); !s) return s;
    }
    if (Status s = write_file(dir / "lighttpd.conf", lighttpd_config(feed, dir, out.ports, auth), 0600); !s)
        return s;

    // pure-ftpd's virtual users: a passwd-like text, compiled into the database it reads. The home
    // "DIR/./" confines the session to the feed.
    std::string hash;
    if (Status s = hash_password(password, hash); !s) return s;
    const std::string uid = std::to_string(kFtpUid);
    const fs::path users = dir / "ftp-users", database = dir / "ftp-users.pdb";
    if (Status s = write_file(users, user + ":" + hash + ":" + uid + ":" + uid + "::" + feed.string() + "/./::::::::::::\n", 0600);
        !s)
        return s;
    SpawnSpec mkdb;
    mkdb.argv = {std::string(kPurePw), "mkdb", database.string(), "-f", users.string()};
    mkdb.env = environment_with({});
    CommandResult made = run_command(mkdb, std::chrono::seconds(30));
    if (!made.ok()) return Status::failure("pure-pw mkdb failed: " + made.err + made.out);
    ::chmod(database.c_str(), 0600);

    out.web.argv = {std::string(kLighttpd), "-D", "-f", (dir / "lighttpd.conf").string()};
    out.web.env = environment_with({});
    out.ftp.argv = {std::string(kPureFtpd), "-S", "127.0.0.1," + std::to_string(out.ports.ftp),
                    "-l", "puredb:" + database.string(),
                    "-E",   // no anonymous sessions
                    "-A",   // every session confined to its home
                    "-H",   // no name look-ups
                    "-f", "none"};
    out.ftp.env = environment_with({});
    return write_file(host_path(options.root, kFeedUrlsFile), feed_urls_json(out.ports, auth ? user : ""), 0644);
}

bool accepts_on_loopback(int port) {
    UniqueFd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<std::uint16_t>(port));
    return fd && ::connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
}

std::string feed_urls_json(const FeedPorts& ports, std::string_view user) {
    return "{\n\"http\": \"http://127.0.0.1:" + std::to_string(ports.http) + "\",\n" +
           "\"https\": \"https://127.0.0.1:" + std::to_string(ports.https) + "\",\n" +
           "\"ftp\": \"ftp://127.0.0.1:" + std::to_string(ports.ftp) + "\",\n" +
           "\"user\": \"" + std::string(user) + "\"\n}\n";
}

Status install_feed_trust(const fs::path& root, const feed::Pki& pki) {
    const fs::path anchor = host_path(root, kOpkgCaFile);
    std::error_code ec;
    if (!fs::exists(anchor, ec)) {
        if (Status s = write_file(anchor, pki.ca.cert_pem, 0644); !s) return s;
    }
    const fs::path bundle = host_path(root, kCaBundle);
    fs::create_directories(bundle.parent_path(), ec);
    std::string host_bundle = read_file(std::string(kCaBundle));
    if (!host_bundle.empty() && !host_bundle.ends_with('\n')) host_bundle += '\n';
    return write_file(bundle, host_bundle + pki.ca.cert_pem, 0644);
}

}  // namespace sandbox
