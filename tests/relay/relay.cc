// fg-relay --target HOST:PORT [--listen HOST:PORT|HOST:LOW-HIGH] [rules]: a TCP relay that puts
// emulated distance and faults between a client and a server, in user space because the test
// machines' kernel has no netem. It prints the port it listens on (one line) and forwards every
// connection until it is killed. Rules, per direction (up: client to server, down: back):
//   --delay-{up,down}-ms MS  every byte leaves MS later, in order; reading goes on meanwhile
//   --rate-{up,down} B       at most B bytes per second
//   --stall-{up,down}-at N   pause for --stall-ms (default 1000) once N bytes have gone
//   --cut-{up,down}-at N     close both sides once N bytes have gone, with RST under
//                            --cut-with-reset
//   --drop-first N           close the first N connections at once, before reaching the target
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <functional>
#include <map>
#include <memory>
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
    uint64_t rate = 0;  // bytes per second; 0 is unlimited
    uint64_t stallAt = kNever;
    uint64_t cutAt = kNever;
};

struct Options {
    sockaddr_in listen{}, target{};
    unsigned listenHigh = 0;
    Rules rules[2];  // up, down
    std::chrono::milliseconds stallFor{1000};
    bool reset = false;
    uint64_t dropFirst = 0;
};

// One relayed connection. Each direction has a thread that reads what arrives, stamps it with
// the time it is due and sends what is due, within the rate, the stalls and the cut; the sockets
// close when both are done. No wait lasts long enough to miss a cut for more than a moment.
class Connection {
  public:
    Connection(int client, int server, const Options& options)
        : fds_{client, server}, options_(options) {}
    ~Connection() {
        for (int fd : fds_) close(fd);
    }

    // Direction 0 is up, 1 down.
    void pump(int d) {
        const Rules& rules = options_.rules[d];
        const int from = fds_[d], to = fds_[1 - d];
        struct Chunk {
            Clock::time_point due;
            std::vector<char> data;  // empty: the end of the stream
            size_t offset;
        };
        std::deque<Chunk> queue;
        size_t queued = 0;
        uint64_t sent = 0, stallAt = rules.stallAt;
        Clock::time_point paced = Clock::now();
        std::vector<char> buffer(256 * 1024);
        while (!cut_) {
            if (sent == rules.cutAt) return cut(options_.reset);
            const Clock::time_point now = Clock::now();
            if (queue.empty() || queue.front().due > now) {
                const bool room =
                    queued < kQueueLimit && (queue.empty() || !queue.back().data.empty());
                // A descriptor polled for nothing would still report a hang-up on every pass.
                pollfd p{room ? from : -1, POLLIN, 0};
                const auto wait = std::chrono::ceil<std::chrono::milliseconds>(
                    queue.empty() ? kTick
                                  : std::min<Clock::duration>(kTick, queue.front().due - now));
                if (poll(&p, 1, static_cast<int>(wait.count())) < 1) continue;
                const ssize_t n = recv(from, buffer.data(), buffer.size(), MSG_DONTWAIT);
                if (n < 0 && errno != EAGAIN && errno != EINTR) return cut(true);
                if (n < 0) continue;
                queue.push_back(
                    {Clock::now() + rules.delay, {buffer.begin(), buffer.begin() + n}, 0});
                queued += n;
                continue;
            }
            Chunk& head = queue.front();
            if (head.data.empty()) return (void)shutdown(to, SHUT_WR);
            if (sent == stallAt) {
                stallAt = kNever;
                idleUntil(now + options_.stallFor);
                continue;
            }
            uint64_t n =
                std::min({head.data.size() - head.offset, rules.cutAt - sent, stallAt - sent});
            if (rules.rate) {
                n = std::min(n, std::max<uint64_t>(rules.rate / 50, 1));
                paced = std::max(paced, now);
                if (!idleUntil(paced)) return;
            }
            const ssize_t w = send(to, head.data.data() + head.offset, n, MSG_NOSIGNAL);
            if (w < 0 && errno != EAGAIN && errno != EINTR) return cut(true);
            if (w < 0) continue;
            head.offset += w;
            sent += w;
            queued -= w;
            if (head.offset == head.data.size()) queue.pop_front();
            if (rules.rate) paced += std::chrono::nanoseconds(w * 1000000000 / rules.rate);
        }
    }

  private:
    static constexpr std::chrono::milliseconds kTick{100};

    // Waits until `when`; false when the connection was cut meanwhile.
    bool idleUntil(Clock::time_point when) {
        while (!cut_ && Clock::now() < when)
            std::this_thread::sleep_for(std::min<Clock::duration>(when - Clock::now(), kTick));
        return !cut_;
    }

    // A FIN goes at once; an RST with the close, when no thread uses the sockets any more.
    void cut(bool reset) {
        if (cut_.exchange(true)) return;
        for (int fd : fds_) {
            const linger hard{1, 0};
            if (reset) setsockopt(fd, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
            if (!reset) shutdown(fd, SHUT_WR);
        }
    }

    const int fds_[2];
    const Options options_;
    std::atomic<bool> cut_{false};
};

void prepare(int fd) {
    // Small messages leave when they are due; Nagle would add its own delay.
    const int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    const timeval tick{0, 100000};
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
    for (uint64_t accepted = 0;;) {
        const int client = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0) continue;
        if (accepted++ < options.dropFirst) {
            close(client);
            continue;
        }
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
        for (int d : {0, 1}) std::thread(&Connection::pump, c, d).detach();
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
        {"--drop-first", [&](const char* v) { o.dropFirst = count(v); }},
    };
    for (int d : {0, 1}) {
        Rules* r = &o.rules[d];
        const std::string way = d ? "down" : "up";
        takes["--delay-" + way + "-ms"] = [r](const char* v) {
            r->delay = std::chrono::milliseconds(count(v));
        };
        takes["--rate-" + way] = [r](const char* v) { r->rate = count(v); };
        takes["--stall-" + way + "-at"] = [r](const char* v) { r->stallAt = count(v); };
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
