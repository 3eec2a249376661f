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
// No wait lasts longer, so that a cut is never missed for more than a moment.
constexpr std::chrono::milliseconds kTick{100};

struct Rules {
    std::chrono::milliseconds delay;
    uint64_t rate, stallAt, cutAt;  // rate in bytes per second, 0 unlimited
};

struct Options {
    sockaddr_in listen, target;
    unsigned listenHigh = 0;
    Rules rules[2];  // up, down
    std::chrono::milliseconds stallFor;
    bool reset;
    uint64_t dropFirst;
};

// One relayed connection. Each direction has a thread that reads what arrives, stamps it with
// the time it is due and sends what is due, within the rate, the stall and the cut; the sockets
// close when both are done.
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

void run(const Options& options) {
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), one = 1;
    setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in address = options.listen;
    const unsigned low = ntohs(address.sin_port);
    const unsigned span = std::max(options.listenHigh + 1, low + 1) - low;
    // A range is tried from a random port on, so that relays started together rarely collide.
    const unsigned first = static_cast<unsigned>(Clock::now().time_since_epoch().count()) % span;
    for (unsigned tried = 0;; ++tried) {
        address.sin_port = htons(static_cast<uint16_t>(low + (first + tried) % span));
        if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) break;
        if (errno != EADDRINUSE || tried + 1 == span) throw std::runtime_error("no port to bind");
    }
    socklen_t length = sizeof address;
    if (listen(listener, 64) != 0 ||
        getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        throw std::runtime_error("cannot listen");
    std::printf("%u\n", ntohs(address.sin_port));
    std::fflush(stdout);
    for (uint64_t accepted = 0;;) {
        const int client = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        const int server = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (client >= 0 && accepted++ >= options.dropFirst &&
            connect(server, reinterpret_cast<const sockaddr*>(&options.target),
                    sizeof options.target) == 0) {
            // Small messages leave when they are due; Nagle would add its own delay. A send
            // waits at most a tick, so that its thread sees a cut.
            const timeval tick{0, 100000};
            for (int fd : {client, server}) {
                setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
                setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tick, sizeof tick);
            }
            const auto c = std::make_shared<Connection>(client, server, options);
            for (int d : {0, 1}) std::thread(&Connection::pump, c, d).detach();
            continue;
        }
        for (int fd : {client, server}) close(fd);
    }
}

// HOST:PORT, or HOST:LOW-HIGH where `high` may take one.
sockaddr_in address(const std::string& text, unsigned* high = nullptr) {
    char host[16];
    unsigned port = 0, top = 0;
    int used = 0;
    sockaddr_in a{};
    a.sin_family = AF_INET;
    const int n = std::sscanf(text.c_str(), "%15[0-9.]:%u%n-%u%n", host, &port, &used, &top, &used);
    if (n < 2 || text[used] || (n == 3 && !high) || port > 65535 || top > 65535 ||
        inet_pton(AF_INET, host, &a.sin_addr) != 1)
        throw std::invalid_argument("not HOST:PORT: " + text);
    if (high) *high = top;
    a.sin_port = htons(static_cast<uint16_t>(port));
    return a;
}

Options parse(int argc, char** argv) {
    std::map<std::string, std::string> given;  // every option but --cut-with-reset has a value
    for (int i = 1; i < argc; ++i) {
        const std::string name = argv[i];
        if (name != "--cut-with-reset" && i + 1 == argc)
            throw std::invalid_argument("no value for " + name);
        given[name] = name == "--cut-with-reset" ? "" : argv[++i];
    }
    // Each option is taken once; what is left over is unknown.
    auto take = [&](const std::string& name, const std::string& otherwise) {
        const auto it = given.find(name);
        const std::string value = it == given.end() ? otherwise : it->second;
        if (it != given.end()) given.erase(it);
        return value;
    };
    auto count = [&](const std::string& name, uint64_t otherwise) {
        const std::string value = take(name, "-");
        char* end = nullptr;
        const uint64_t n = std::strtoull(value.c_str(), &end, 10);
        if (value == "-") return otherwise;
        if (value.empty() || *end || value[0] == '-')
            throw std::invalid_argument("not a count: " + name + " " + value);
        return n;
    };
    Options o;
    o.listen = address(take("--listen", "127.0.0.1:0"), &o.listenHigh);
    o.target = address(take("--target", "no target given"));
    o.reset = given.erase("--cut-with-reset") == 1;
    o.stallFor = std::chrono::milliseconds(count("--stall-ms", 1000));
    o.dropFirst = count("--drop-first", 0);
    for (int d : {0, 1}) {
        const std::string way = d ? "down" : "up";
        o.rules[d] = {std::chrono::milliseconds(count("--delay-" + way + "-ms", 0)),
                      count("--rate-" + way, 0), count("--stall-" + way + "-at", kNever),
                      count("--cut-" + way + "-at", kNever)};
    }
    if (!given.empty()) throw std::invalid_argument("unknown option " + given.begin()->first);
    return o;
}

}  // namespace

int main(int argc, char** argv) {
    signal(SIGPIPE, SIG_IGN);
    try {
        run(parse(argc, argv));
    } catch (const std::exception& e) {
        std::fprintf(stderr, "fg-relay: %s\n", e.what());
        return 2;
    }
}
