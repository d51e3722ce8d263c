// The feed servers a sandbox runs on loopback: lighttpd for HTTP and HTTPS (basic authentication
// through mod_auth when a feed user is given), pure-ftpd with a virtual-user database for FTP.
// Started by PID 1 inside the sandbox's namespaces, not chrooted, so they die with it.
#pragma once

#include <string>

#include "launch_options.hpp"
#include "sandbox/feed/pki.hpp"
#include "sandbox/process.hpp"
#include "sandbox/status.hpp"

namespace sandbox {

struct FeedPorts {
    int http = 0;
    int https = 0;
    int ftp = 0;
};

struct FeedServers {
    FeedPorts ports;
    SpawnSpec web;  // lighttpd: HTTP and HTTPS
    SpawnSpec ftp;  // pure-ftpd
};

// FTP needs a login even without a feed user; this one then.
inline constexpr std::string_view kDefaultFtpLogin = "feed";

// The PKI the feed is served with: the given directory, else the root's (made on first use).
Status feed_pki(const LaunchOptions& options, feed::Pki& out);

// Picks free loopback ports and writes the servers' configuration under the root's state
// directory; files holding a password or a key are created with mode 0600.
Status prepare_feed_servers(const LaunchOptions& options, const feed::Pki& pki, FeedServers& out);

// Whether something accepts TCP connections on 127.0.0.1:`port`.
bool accepts_on_loopback(int port);

// {"http": "http://127.0.0.1:P", "https": ..., "ftp": ..., "user": ...}, one member a line.
std::string feed_urls_json(const FeedPorts& ports, std::string_view user);

// The root's /etc/opkg/opkg.pem becomes the test CA unless the caller put one there; the root's CA
// bundle holds the host's bundle and the test CA, so HTTPS clients inside trust the feed server.
Status install_feed_trust(const std::filesystem::path& root, const feed::Pki& pki);

}  // namespace sandbox
