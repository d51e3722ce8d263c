// `opkg update`: each feed's index is fetched, checked and only then put in place of the old one.
#include <cstdio>
#include <filesystem>
#include <system_error>

#include "archive_io.hpp"
#include "context.hpp"
#include "files.hpp"
#include "signature.hpp"

namespace opkg {
namespace {

// Empty result: LISTS/NAME holds the feed's new index.
std::string update_feed(const Context& context, const Feed& feed) {
    const FetchOptions options = context.fetch_options();
    const std::string index_url = feed.url + (feed.gzipped ? "/Packages.gz" : "/Packages");
    std::printf("Downloading %s.\n", printable_url(index_url).c_str());
    std::string fetched;
    if (std::string error = fetch_to_string(index_url, fetched, options); !error.empty()) return error;
    std::string index;
    if (feed.gzipped) {
        std::string error;
        std::optional<std::string> plain = gunzip(fetched, error);
        if (!plain) return printable_url(index_url) + ": " + error;
        index = std::move(*plain);
    } else {
        index = std::move(fetched);
    }
    if (context.config.check_signature) {
        const std::string signature_url = feed.url + "/Packages.sig";
        std::string signature;
        if (std::string error = fetch_to_string(signature_url, signature, options); !error.empty())
            return "no signature: " + error;
        const std::string ca_file = context.config.signature_ca_file.empty()
                                        ? std::string{}
                                        : context.path(context.config.signature_ca_file);
        const std::string ca_path = context.config.signature_ca_path.empty()
                                        ? std::string{}
                                        : context.path(context.config.signature_ca_path);
        if (std::string error = verify_detached_signature(index, signature, ca_file, ca_path); !error.empty())
            return printable_url(signature_url) + ": " + error;
    }
    const std::string lists = context.path(context.config.lists_dir);
    std::error_code ignored;
    std::filesystem::create_directories(lists, ignored);  // a query may name a directory of its own
    const std::string target = lists + "/" + feed.name;
    if (std::string error = replace_file(target, index, 0644); !error.empty()) return error;
    std::printf("Updated list of available packages in %s\n", target.c_str());
    return {};
}

}  // namespace

int run_update(const Context& context) {
    if (!context.invocation.operands.empty()) {
        report("update takes no arguments");
        return exit_usage;
    }
    if (context.config.feeds.empty()) {
        report("no feed configured (src/gz NAME URL)");
        return exit_failed;
    }
    // A feed that fails keeps its previous index; the others are still brought up to date.
    int status = exit_ok;
    for (const Feed& feed : context.config.feeds) {
        if (std::string error = update_feed(context, feed); !error.empty()) {
            report("failed to update feed " + feed.name + ": " + error);
            status = exit_failed;
        }
    }
    return status;
}

}  // namespace opkg
