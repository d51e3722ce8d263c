#include "demo_feed.hpp"

#include <exception>

#include "sandbox/feed/service_feed.hpp"

namespace demo {

PublishedFeed publish_demo_feed(const std::filesystem::path& feed_dir, const std::filesystem::path& pki_dir) {
    PublishedFeed out;
    try {
        sandbox::feed::ServiceFeed feed(feed_dir, kPackageName,
                                        "a clock that ticks in the background, for the demonstration", true);
        out.first_file = feed.publish(pki_dir, "1.0");
        out.newer_file = feed.publish(pki_dir, "1.1");
    } catch (const std::exception& e) {
        out.error = e.what();
    }
    return out;
}

}  // namespace demo
