#include "fetch.hpp"

#include <curl/curl.h>

#include <memory>

#include "files.hpp"

namespace opkg {
namespace {

struct EasyCleanup {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
using Easy = std::unique_ptr<CURL, EasyCleanup>;

size_t write_to_fd(char* data, size_t size, size_t count, void* user) {
    const size_t bytes = size * count;
    return write_all(*static_cast<int*>(user), std::string_view(data, bytes)) ? bytes : 0;
}

size_t write_to_string(char* data, size_t size, size_t count, void* user) {
    static_cast<std::string*>(user)->append(data, size * count);
    return size * count;
}

std::string transfer(const std::string& url, const FetchOptions& options, curl_write_callback write,
                     void* user) {
    Easy easy(curl_easy_init());
    if (!easy) return "cannot start a transfer";
    char error_buffer[CURL_ERROR_SIZE] = {};
    CURL* h = easy.get();
    curl_easy_setopt(h, CURLOPT_URL, url.c_str());
    curl_easy_setopt(h, CURLOPT_PROTOCOLS_STR, "http,https,ftp,file");
    curl_easy_setopt(h, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(h, CURLOPT_REDIR_PROTOCOLS_STR, "http,https,ftp");
    curl_easy_setopt(h, CURLOPT_MAXREDIRS, 5L);
    curl_easy_setopt(h, CURLOPT_FAILONERROR, 1L);
    curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(h, CURLOPT_ERRORBUFFER, error_buffer);
    curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, write);
    curl_easy_setopt(h, CURLOPT_WRITEDATA, user);
    curl_easy_setopt(h, CURLOPT_USERAGENT, "opkg");
    if (!options.ca_file.empty()) curl_easy_setopt(h, CURLOPT_CAINFO, options.ca_file.c_str());
    if (!options.user.empty()) {
        curl_easy_setopt(h, CURLOPT_USERNAME, options.user.c_str());
        curl_easy_setopt(h, CURLOPT_PASSWORD, options.password.c_str());
        curl_easy_setopt(h, CURLOPT_HTTPAUTH, CURLAUTH_BASIC);
    }
    // A server that never answers must not hold up the caller (pkgd's worker) for good.
    curl_easy_setopt(h, CURLOPT_CONNECTTIMEOUT, 30L);
    if (options.timeout_seconds) curl_easy_setopt(h, CURLOPT_TIMEOUT, *options.timeout_seconds);
    const CURLcode code = curl_easy_perform(h);
    if (code == CURLE_OK) return {};
    // libcurl's own texts name the host, the status or the file, never the credentials.
    std::string reason = error_buffer[0] ? error_buffer : curl_easy_strerror(code);
    return printable_url(url) + ": " + reason;
}

}  // namespace

std::string fetch_to_fd(const std::string& url, int sink, const FetchOptions& options) {
    return transfer(url, options, write_to_fd, &sink);
}

std::string fetch_to_string(const std::string& url, std::string& out, const FetchOptions& options) {
    return transfer(url, options, write_to_string, &out);
}

std::string printable_url(std::string_view url) {
    const std::size_t scheme = url.find("://");
    if (scheme == std::string_view::npos) return std::string(url);
    const std::size_t host = scheme + 3;
    const std::size_t path = url.find_first_of("/?#", host);
    const std::size_t at = url.substr(0, path).rfind('@');
    if (at == std::string_view::npos || at < host) return std::string(url);
    return std::string(url.substr(0, host)) + std::string(url.substr(at + 1));
}

}  // namespace opkg
