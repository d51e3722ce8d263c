// Our bus, end to end: a broker started on a scratch socket, a library client owning an object,
// and library clients calling it or listening to events.
//
//   - round trips: a call answered with a small DATA reply, by 1 and by 8 clients at once (each
//     client on its own connection and thread); calls per second and the latency of one call;
//   - event fan-out: one sender, 10 listeners (each on its own connection and thread); deliveries
//     per second and the latency from sending to delivery.
//
// Each figure is printed beside its floor, the same exchange over bare socket pairs measured in
// the same run: a client writes a message of the size of a call and reads one of the size of the
// reply from a peer thread that serves every client (as the object's owner does, but without the
// broker between them); an event is written by the sender to each listener's socket directly.
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <poll.h>
#include <string>
#include <thread>
#include <vector>

#include "bench_broker.hpp"
#include "ubus/client.hpp"

namespace {

using Clock = std::chrono::steady_clock;

// A connection whose incoming traffic is handled on its own thread until destroyed.
class Served {
public:
    explicit Served(ubus::Connection& bus)
        : bus_(bus), thread_([this] {
              while (!stop_ && bus_.dispatch(20) == ubus::kOk) {
              }
          }) {}
    ~Served() {
        stop_ = true;
        thread_.join();
    }

private:
    ubus::Connection& bus_;
    std::atomic<bool> stop_ = false;
    std::thread thread_;
};

double percentile(std::vector<double>& sorted, double p) {
    if (sorted.empty()) return 0;
    return sorted[static_cast<std::size_t>(p * static_cast<double>(sorted.size() - 1))];
}

struct Figures {
    std::size_t count = 0;
    double seconds = 0;
    std::vector<double> latencies_us;
};

void print_row(const char* what, int parallel, Figures& f) {
    std::sort(f.latencies_us.begin(), f.latencies_us.end());
    std::printf("%-34s %8d %10zu %12.0f %10.1f %10.1f\n", what, parallel, f.count,
                static_cast<double>(f.count) / f.seconds, percentile(f.latencies_us, 0.50),
                percentile(f.latencies_us, 0.99));
}

Figures round_trips(const std::string& socket, std::uint32_t object, int clients, int calls_each) {
    Figures f;
    std::mutex merge;
    std::vector<std::thread> threads;
    std::atomic<int> ready = 0;
    std::atomic<bool> go = false;
    for (int c = 0; c < clients; ++c) {
        threads.emplace_back([&] {
            ubus::Connection bus;
            if (bus.connect(socket) != ubus::kOk) std::fputs("cannot connect\n", stderr), std::exit(1);
            ubus::BlobBuf args;
            args.add_i32("n", 1);
            std::vector<double> mine;
            mine.reserve(static_cast<std::size_t>(calls_each));
            for (int i = 0; i < 200; ++i)
                bus.invoke(object, "ping", args.members(), nullptr, 5000);  // warm-up
            ++ready;
            while (!go) std::this_thread::yield();
            for (int i = 0; i < calls_each; ++i) {
                const auto start = Clock::now();
                if (bus.invoke(object, "ping", args.members(), nullptr, 5000) != ubus::kOk)
                    std::fputs("call failed\n", stderr), std::exit(1);
                mine.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
            }
            const std::lock_guard lock(merge);
            f.latencies_us.insert(f.latencies_us.end(), mine.begin(), mine.end());
        });
    }
    while (ready < clients) std::this_thread::yield();
    const auto start = Clock::now();
    go = true;
    for (auto& t : threads) t.join();
    f.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    f.count = f.latencies_us.size();
    return f;
}

constexpr ubus::Policy kSentAt[] = {{"sent_ns", ubus::Type::Int64}};

std::int64_t now_ns() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
}

Figures fan_out(const std::string& socket, int listeners, int events) {
    Figures f;
    std::mutex merge;
    std::atomic<std::size_t> delivered = 0;
    std::vector<std::unique_ptr<ubus::Connection>> conns;
    std::vector<std::unique_ptr<Served>> served;
    for (int l = 0; l < listeners; ++l) {
        auto bus = std::make_unique<ubus::Connection>();
        if (bus->connect(socket) != ubus::kOk) std::fputs("cannot connect\n", stderr), std::exit(1);
        const auto added = bus->listen("bench.*", [&](std::string_view, ubus::Bytes data) {
            const double us = static_cast<double>(now_ns() - ubus::parse(kSentAt, data)[0].as_i64()) / 1000.0;
            {
                const std::lock_guard lock(merge);
                f.latencies_us.push_back(us);
            }
            ++delivered;
        });
        if (added.status != ubus::kOk) std::fputs("cannot listen\n", stderr), std::exit(1);
        conns.push_back(std::move(bus));
    }
    for (auto& bus : conns) served.push_back(std::make_unique<Served>(*bus));

    ubus::Connection sender;
    if (sender.connect(socket) != ubus::kOk) std::fputs("cannot connect\n", stderr), std::exit(1);
    const std::size_t expected = static_cast<std::size_t>(listeners) * static_cast<std::size_t>(events);
    const auto start = Clock::now();
    for (int i = 0; i < events; ++i) {
        ubus::BlobBuf data;
        data.add_i64("sent_ns", now_ns());
        data.add_i32("seq", i);
        if (sender.send_event("bench.tick", data.members()) != ubus::kOk)
            std::fputs("send failed\n", stderr), std::exit(1);
    }
    const auto give_up = Clock::now() + std::chrono::seconds(30);
    while (delivered < expected && Clock::now() < give_up)
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    f.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    served.clear();
    f.count = delivered;
    if (f.count < expected) std::printf("(only %zu of %zu deliveries arrived)\n", f.count, expected);
    return f;
}

// ----- the floors -----

constexpr std::size_t kCallBytes = 56;   // a call with its small argument table
constexpr std::size_t kReplyBytes = 80;  // its DATA reply and final STATUS
constexpr std::size_t kEventBytes = 64;  // an event with the sender's time stamp

bool read_all(int fd, void* buf, std::size_t n) {
    auto* p = static_cast<char*>(buf);
    while (n > 0) {
        const ssize_t got = ::read(fd, p, n);
        if (got <= 0) return false;
        p += got;
        n -= static_cast<std::size_t>(got);
    }
    return true;
}

struct SocketPair {
    int fd[2] = {-1, -1};
    SocketPair() {
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fd) != 0) std::perror("socketpair"), std::exit(1);
    }
    ~SocketPair() {
        for (int f : fd) ::close(f);
    }
    SocketPair(const SocketPair&) = delete;
    SocketPair& operator=(const SocketPair&) = delete;
};

Figures bare_round_trips(int clients, int calls_each) {
    std::vector<std::unique_ptr<SocketPair>> pairs;
    for (int c = 0; c < clients; ++c) pairs.push_back(std::make_unique<SocketPair>());
    std::atomic<bool> done = false;
    std::thread owner([&] {  // one thread answers every client, as the object's owner does
        std::vector<pollfd> fds;
        for (auto& p : pairs) fds.push_back({p->fd[1], POLLIN, 0});
        char call[kCallBytes], reply[kReplyBytes] = {};
        while (!done) {
            if (::poll(fds.data(), fds.size(), 20) <= 0) continue;
            for (pollfd& f : fds)
                if ((f.revents & POLLIN) && read_all(f.fd, call, sizeof call))
                    (void)!::write(f.fd, reply, sizeof reply);
        }
    });
    Figures f;
    std::mutex merge;
    std::vector<std::thread> threads;
    const auto start = Clock::now();
    for (int c = 0; c < clients; ++c) {
        threads.emplace_back([&, fd = pairs[static_cast<std::size_t>(c)]->fd[0]] {
            char call[kCallBytes] = {}, reply[kReplyBytes];
            std::vector<double> mine;
            mine.reserve(static_cast<std::size_t>(calls_each));
            for (int i = 0; i < calls_each; ++i) {
                const auto sent = Clock::now();
                if (::write(fd, call, sizeof call) != static_cast<ssize_t>(sizeof call) ||
                    !read_all(fd, reply, sizeof reply))
                    std::fputs("bare exchange failed\n", stderr), std::exit(1);
                mine.push_back(std::chrono::duration<double, std::micro>(Clock::now() - sent).count());
            }
            const std::lock_guard lock(merge);
            f.latencies_us.insert(f.latencies_us.end(), mine.begin(), mine.end());
        });
    }
    for (auto& t : threads) t.join();
    f.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    done = true;
    owner.join();
    f.count = f.latencies_us.size();
    return f;
}

Figures bare_fan_out(int listeners, int events) {
    std::vector<std::unique_ptr<SocketPair>> pairs;
    for (int l = 0; l < listeners; ++l) pairs.push_back(std::make_unique<SocketPair>());
    Figures f;
    std::mutex merge;
    std::vector<std::thread> threads;
    for (int l = 0; l < listeners; ++l) {
        threads.emplace_back([&, fd = pairs[static_cast<std::size_t>(l)]->fd[1]] {
            char event[kEventBytes];
            std::vector<double> mine;
            for (int i = 0; i < events && read_all(fd, event, sizeof event); ++i) {
                std::int64_t sent = 0;
                std::memcpy(&sent, event, sizeof sent);
                mine.push_back(static_cast<double>(now_ns() - sent) / 1000.0);
            }
            const std::lock_guard lock(merge);
            f.latencies_us.insert(f.latencies_us.end(), mine.begin(), mine.end());
        });
    }
    const auto start = Clock::now();
    for (int i = 0; i < events; ++i) {
        char event[kEventBytes] = {};
        const std::int64_t sent = now_ns();
        std::memcpy(event, &sent, sizeof sent);
        for (auto& p : pairs) (void)!::write(p->fd[0], event, sizeof event);
    }
    for (auto& t : threads) t.join();
    f.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    f.count = f.latencies_us.size();
    return f;
}

// Our figure and its floor, and the ratios of their rates and median latencies.
void print_pair(const char* what, const char* floor_what, int parallel, Figures& ours, Figures& floor) {
    print_row(what, parallel, ours);
    print_row(floor_what, parallel, floor);
    const double rate = (static_cast<double>(floor.count) / floor.seconds) / (static_cast<double>(ours.count) / ours.seconds);
    std::printf("%-34s %8s %10s %12.1f %10.1f\n", "  ratio (floor rate / ours; p50)", "", "", rate,
                percentile(ours.latencies_us, 0.50) / percentile(floor.latencies_us, 0.50));
}

}  // namespace

int main() {
    ::signal(SIGPIPE, SIG_IGN);
    bench::Broker broker;

    ubus::Connection owner_bus;
    if (owner_bus.connect(broker.socket()) != ubus::kOk) {
        std::fputs("cannot connect to the broker\n", stderr);
        return 1;
    }
    static constexpr ubus::Policy kPing[] = {{"n", ubus::Type::Int32}};
    const auto type =
        ubus::ObjectType::make({{"ping", kPing, [](ubus::Request& req) {
                                     ubus::BlobBuf out;
                                     out.add_bool("ok", true);
                                     out.add_i32("n", ubus::parse(kPing, req.args())[0].as_i32());
                                     req.reply(out);
                                     return ubus::kOk;
                                 }}});
    const ubus::AddResult obj = owner_bus.add_object("bench", type);
    if (obj.status != ubus::kOk) {
        std::fputs("cannot register the object\n", stderr);
        return 1;
    }

    std::printf("%-34s %8s %10s %12s %10s %10s\n", "", "parallel", "count", "per second", "p50 us", "p99 us");
    {
        const Served owner(owner_bus);
        Figures one = round_trips(broker.socket(), obj.id, 1, 20000);
        Figures one_floor = bare_round_trips(1, 20000);
        print_pair("call + DATA reply, 1 client", "  floor: bare socket pair", 1, one, one_floor);
        Figures eight = round_trips(broker.socket(), obj.id, 8, 5000);
        Figures eight_floor = bare_round_trips(8, 5000);
        print_pair("call + DATA reply, 8 clients", "  floor: bare socket pairs", 8, eight, eight_floor);
    }
    Figures events = fan_out(broker.socket(), 10, 5000);
    Figures events_floor = bare_fan_out(10, 5000);
    print_pair("event delivered, 10 listeners", "  floor: bare socket pairs", 10, events, events_floor);
    return 0;
}
