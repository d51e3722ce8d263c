#include "init_scripts.hpp"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>

namespace sandbox::sim {
namespace {

constexpr int kCannotRun = 127;

// The scripts of one request and how far they have got; kept alive by the loop's callbacks.
struct ScriptSequence : std::enable_shared_from_this<ScriptSequence> {
    ubus::Loop& loop;
    std::vector<std::string> paths;
    std::string action;
    std::function<void(bool)> done;
    std::size_t next = 0;
    bool all_succeeded = true;

    ScriptSequence(ubus::Loop& l, std::vector<std::string> p, std::string a, std::function<void(bool)> d)
        : loop(l), paths(std::move(p)), action(std::move(a)), done(std::move(d)) {}

    void run_next() {
        if (next == paths.size()) {
            done(all_succeeded);
            return;
        }
        const std::string& path = paths[next++];
        const pid_t pid = loop.fork_child([&path, this] {
            ::execl(path.c_str(), path.c_str(), action.c_str(), static_cast<char*>(nullptr));
            return kCannotRun;
        });
        if (pid < 0) {
            all_succeeded = false;
            run_next();
            return;
        }
        const ubus::Loop::Id limit = loop.add_timer(kScriptTimeLimit, [pid] { ::kill(pid, SIGKILL); });
        loop.watch_child(pid, [self = shared_from_this(), limit](pid_t, int wait_status) {
            self->loop.cancel_timer(limit);
            if (!WIFEXITED(wait_status) || WEXITSTATUS(wait_status) != 0) self->all_succeeded = false;
            self->run_next();
        });
    }
};

}  // namespace

bool valid_script_name(std::string_view name) {
    return !name.empty() && name.find('/') == std::string_view::npos &&
           name.find("..") == std::string_view::npos;
}

void run_init_scripts(ubus::Loop& loop, std::vector<std::string> names, std::string action,
                      std::function<void(bool all_succeeded)> done) {
    for (std::string& name : names) name = std::string(kInitDir) + "/" + name;
    auto sequence =
        std::make_shared<ScriptSequence>(loop, std::move(names), std::move(action), std::move(done));
    sequence->run_next();
}

}  // namespace sandbox::sim
