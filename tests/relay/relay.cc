// fg-relay: a TCP relay that puts emulated distance and faults between a client and a server,
// made in user space because the test machines' kernel has no netem.
//
//   fg-relay --target HOST:PORT [--listen HOST:PORT|HOST:LOW-HIGH] [rules]
//
// prints the port it listens on (one line; port 0 or a range picks a free one) and forwards every
// connection to the target until it is killed. Rules hold per direction, up (client to server)
// and down (server to client):
//   --delay-up-ms MS, --delay-down-ms MS  every byte leaves MS later than it came, in order;
//                                         reading goes on meanwhile, so delay does not cap the rate
//   --rate-up B, --rate-down B            at most B bytes per second
//   --stall-up-at N, --stall-down-at N    pause for --stall-ms (default 1000) once N bytes have
//                                         gone (repeatable)
//   --cut-up-at N, --cut-down-at N        close both sides once N bytes have gone, with RST
//                                         instead of FIN under --cut-with-reset
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
constexpr uint64_t kNever = UINT64_MAX;
// Memory stays bounded: a direction with this much waiting stops reading.
constexpr size_t kQueueLimit = 32 << 20;

struct Rules {
    std::chrono::milliseconds delay{0};
    uint64_t rate = 0;              // bytes per second; 0 is unlimited
    std::vector<uint64_t> stallAt;  // ascending
    uint64_t cutAt = kNever;
};

struct Options {
    sockaddr_in listen{}, target{};
    unsigned listenHigh = 0;
    Rules rules[2];  // up, down
    std::chrono::milliseconds stallFor{1000};
    bool reset = false;
};

struct Chunk {
    Clock::time_point due;
    std::vector<char> data;  // empty: the end of the stream
};

// One relayed connection: per direction a reader that time-stamps what arrives and a writer
// that sends it when due. The sockets close when the last of the four threads is done; every
// blocking call on them times out often enough to notice a cut.
class Connection {
  public:
    Connection(int client, int server, const Options& options)
        : fds_{client, server}, options_(options) {}
    ~Connection() {
        for (int fd : fds_) close(fd);
    }

    // Direction 0 is up, 1 down.
    void read(int d) {
        std::vector<char> buffer(256 * 1024);
        for (;;) {
            const ssize_t n = recv(fds_[d], buffer.data(), buffer.size(), 0);
            const bool timedOut = n < 0 && (errno == EAGAIN || errno == EINTR);
            const Clock::time_point due = Clock::now() + options_.rules[d].delay;
            std::unique_lock<std::mutex> lock(mutex_);
            if (cut_) return;
            if (timedOut) continue;
            if (n < 0) {
                lock.unlock();
                return cut(true);
            }
            queued_[d] += n;
            queues_[d].push_back({due, {buffer.begin(), buffer.begin() + n}});
            changed_.notify_all();
            if (n == 0) return;
            changed_.wait(lock, [&] { return cut_ || queued_[d] < kQueueLimit; });
        }
    }

    void write(int d) {
        const Rules& rules = options_.rules[d];
        const int fd = fds_[1 - d];
        uint64_t sent = 0;
        size_t stalls = 0;
        Clock::time_point paced = Clock::now();
        for (Chunk chunk;; chunk = {}) {
            if (sent == rules.cutAt) return cut(options_.reset);
            {
                std::unique_lock<std::mutex> lock(mutex_);
                changed_.wait(lock, [&] { return cut_ || !queues_[d].empty(); });
                if (cut_) return;
                chunk = std::move(queues_[d].front());
                queues_[d].pop_front();
                queued_[d] -= chunk.data.size();
                changed_.notify_all();
            }
            if (!idleUntil(chunk.due)) return;
            if (chunk.data.empty()) return (void)shutdown(fd, SHUT_WR);
            for (size_t at = 0; at < chunk.data.size();) {
                if (sent == rules.cutAt) return cut(options_.reset);
                const uint64_t stall =
                    stalls < rules.stallAt.size() ? rules.stallAt[stalls] : kNever;
                if (sent == stall) {
                    ++stalls;
                    if (!idleUntil(Clock::now() + options_.stallFor)) return;
                    continue;
                }
                uint64_t n = std::min({chunk.data.size() - at, rules.cutAt - sent, stall - sent});
                if (rules.rate) {
                    n = std::min(n, std::max<uint64_t>(rules.rate / 50, 1));
                    paced = std::max(paced, Clock::now());
                    if (!idleUntil(paced)) return;
                }
                const ssize_t w = send(fd, chunk.data.data() + at, n, MSG_NOSIGNAL);
                if (w < 0 && (errno == EAGAIN || errno == EINTR) && idleUntil(Clock::now()))
                    continue;
                if (w < 0) return cut(true);
                at += w;
                sent += w;
                if (rules.rate) paced += std::chrono::nanoseconds(w * 1000000000 / rules.rate);
            }
        }
    }

  private:
    // Waits until `when`; false when the connection was cut meanwhile.
    bool idleUntil(Clock::time_point when) {
        std::unique_lock<std::mutex> lock(mutex_);
        return !changed_.wait_until(lock, when, [&] { return cut_; });
    }

    // A FIN goes at once; an RST with the close, when no thread uses the sockets any more.
    void cut(bool reset) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (cut_) return;
        cut_ = true;
        for (int fd : fds_) {
            const linger hard{1, 0};
            if (reset) setsockopt(fd, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
            if (!reset) shutdown(fd, SHUT_WR);
        }
        changed_.notify_all();
    }

    const int fds_[2];
    const Options options_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Chunk> queues_[2];
    size_t queued_[2] = {0, 0};
    bool cut_ = false;
};

void prepare(int fd) {
    // Small messages leave when they are due; Nagle would add its own delay.
    const int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    const timeval tick{0, 100000};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tick, sizeof tick);
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tick, sizeof tick);
}

[[noreturn]] void fail(const char* what) {
    std::perror(what);
    std::exit(1);
}

void run(const Options& options) {
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int one = 1;
    setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in address = options.listen;
    const unsigned low = ntohs(address.sin_port);
    const unsigned span = std::max(options.listenHigh + 1, low + 1) - low;
    // A range is tried from a random port on, so that relays started together rarely collide.
    const unsigned first = static_cast<unsigned>(Clock::now().time_since_epoch().count()) % span;
    for (unsigned tried = 0;; ++tried) {
        address.sin_port = htons(static_cast<uint16_t>(low + (first + tried) % span));
        if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) break;
        if (errno != EADDRINUSE || tried + 1 == span) fail("bind");
    }
    socklen_t length = sizeof address;
    if (listen(listener, 64) != 0 ||
        getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        fail("listen");
    std::printf("%u\n", ntohs(address.sin_port));
    std::fflush(stdout);
    for (;;) {
        const int client = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0) continue;
        const int server = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (connect(server, reinterpret_cast<const sockaddr*>(&options.target),
                    sizeof options.target) != 0) {
            std::perror("fg-relay: cannot reach the target");
            close(server);
            close(client);
            continue;
        }
        prepare(client);
        prepare(server);
        const auto c = std::make_shared<Connection>(client, server, options);
        for (int d : {0, 1}) {
            std::thread(&Connection::read, c, d).detach();
            std::thread(&Connection::write, c, d).detach();
        }
    }
}

uint64_t count(const char* text) {
    char* end = nullptr;
    const unsigned long long value = std::strtoull(text, &end, 10);
    if (end == text || *end || text[0] == '-')
        throw std::invalid_argument(std::string("not a count: ") + text);
    return value;
}

// HOST:PORT, or HOST:LOW-HIGH where `high` may take one.
sockaddr_in address(const char* text, unsigned* high = nullptr) {
    char host[16];
    unsigned port = 0, top = 0;
    int used = 0;
    sockaddr_in a{};
    a.sin_family = AF_INET;
    const int n = std::sscanf(text, "%15[0-9.]:%u%n-%u%n", host, &port, &used, &top, &used);
    if (n < 2 || text[used] || (n == 3 && !high) || port > 65535 || top > 65535 ||
        inet_pton(AF_INET, host, &a.sin_addr) != 1)
        throw std::invalid_argument(std::string("not HOST:PORT: ") + text);
    if (high) *high = top;
    a.sin_port = htons(static_cast<uint16_t>(port));
    return a;
}

Options parse(int argc, char** argv) {
    Options o;
    o.listen = address("127.0.0.1:0");
    bool haveTarget = false;
    std::map<std::string, std::function<void(const char*)>> takes = {
        {"--listen", [&](const char* v) { o.listen = address(v, &o.listenHigh); }},
        {"--target", [&](const char* v) { o.target = address(v), haveTarget = true; }},
        {"--stall-ms", [&](const char* v) { o.stallFor = std::chrono::milliseconds(count(v)); }},
    };
    for (int d : {0, 1}) {
        Rules* r = &o.rules[d];
        const std::string way = d ? "down" : "up";
        takes["--delay-" + way + "-ms"] = [r](const char* v) {
            r->delay = std::chrono::milliseconds(count(v));
        };
        takes["--rate-" + way] = [r](const char* v) { r->rate = count(v); };
        takes["--stall-" + way + "-at"] = [r](const char* v) { r->stallAt.push_back(count(v)); };
        takes["--cut-" + way + "-at"] = [r](const char* v) { r->cutAt = count(v); };
    }
    for (int i = 1; i < argc; ++i) {
        const auto take = takes.find(argv[i]);
        if (std::string(argv[i]) == "--cut-with-reset") {
            o.reset = true;
        } else if (take != takes.end() && i + 1 < argc) {
            take->second(argv[++i]);
        } else {
            throw std::invalid_argument(std::string("unknown option or missing value: ") + argv[i]);
        }
    }
    if (!haveTarget) throw std::invalid_argument("--target HOST:PORT is required");
    for (Rules& r : o.rules) std::sort(r.stallAt.begin(), r.stallAt.end());
    return o;
}

}  // namespace

int main(int argc, char** argv) {
    signal(SIGPIPE, SIG_IGN);
    try {
        run(parse(argc, argv));
    } catch (const std::invalid_argument& e) {
        std::fprintf(stderr, "fg-relay: %s\n", e.what());
        return 2;
    }
}
