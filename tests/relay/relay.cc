// fg-relay: a TCP relay that puts emulated distance and faults between a client and a server.
//
// The kernel of the test machines has no netem, so latency, bandwidth caps, stalls and cut
// connections are made here, in user space. Each accepted connection is forwarded to the target;
// each direction (up: client to server, down: server to client) has its own rules. Delay applies
// to every byte, not to throughput: data read now is sent `delay` later, and reading goes on in
// the meantime, so a long delay with enough buffering still carries a high data rate.
//
// One thread, one poll loop. Memory is bounded: a direction whose queue is full stops reading.
// The listening port is printed on standard output (one line, flushed); SIGTERM and SIGINT end
// the relay cleanly with exit code 0.

#include <arpa/inet.h>
#include <fcntl.h>
#include <getopt.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <list>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using Millis = std::chrono::milliseconds;

constexpr uint64_t kNever = UINT64_MAX;
constexpr size_t kReadSize = 256 * 1024;
constexpr int kReadsPerWakeup = 8;

[[noreturn]] void fail(const std::string& what) {
    throw std::runtime_error(what + ": " + std::strerror(errno));
}

struct DirectionRules {
    Millis delay{0};
    uint64_t rate = 0;              // bytes per second; 0 is unlimited
    std::vector<uint64_t> stallAt;  // ascending byte counts, each a stall
    Millis stallFor{0};
    uint64_t cutAt = kNever;
};

struct Options {
    sockaddr_in listen{};
    uint16_t listenHigh = 0;  // with a port range: its top; listen.sin_port holds its bottom
    sockaddr_in target{};
    DirectionRules up, down;
    bool cutWithReset = false;
    size_t queueLimit = 32 * 1024 * 1024;
};

class Fd {
  public:
    explicit Fd(int fd = -1) : fd_(fd) {}
    Fd(Fd&& other) noexcept : fd_(other.release()) {}
    Fd& operator=(Fd&& other) noexcept {
        reset(other.release());
        return *this;
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    ~Fd() { reset(); }

    int get() const { return fd_; }
    int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1) {
        if (fd_ >= 0) ::close(fd_);
        fd_ = fd;
    }

  private:
    int fd_;
};

void setNonBlocking(int fd) {
    int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0) fail("fcntl");
}

void setNoDelay(int fd) {
    // Small messages must leave as soon as they are due; Nagle would add its own delay.
    int one = 1;
    if (setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one) < 0) fail("TCP_NODELAY");
}

// A closing socket with unread input sends RST instead of FIN; reading what is left first keeps
// an orderly cut orderly.
void drainInput(int fd) {
    char sink[4096];
    while (recv(fd, sink, sizeof sink, MSG_DONTWAIT) > 0) {
    }
}

void abortSocket(int fd) {
    linger hard{1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
}

// One direction of one connection: a time-stamped FIFO from the source socket to the
// destination socket, with the rate cap, the stall and the cut applied on the way out.
class Direction {
  public:
    enum class Outcome { Open, Finished, Cut, Broken };

    Direction(const DirectionRules& rules, size_t queueLimit)
        : rules_(rules),
          queueLimit_(queueLimit),
          burst_(std::max<uint64_t>(rules.rate / 50, 1500)),
          tokens_(static_cast<double>(burst_)),
          refilled_(Clock::now()) {}

    bool wantsInput() const { return !inputEnded_ && queued_ < queueLimit_; }
    bool waitsForRoom() const { return destinationFull_; }
    void roomAvailable() { destinationFull_ = false; }
    uint64_t forwarded() const { return forwarded_; }

    // Reads what the source offers now; false when the source failed.
    bool readFrom(int fd, Clock::time_point now) {
        // A few reads per wake-up: one poll per chunk would cap the throughput well below
        // what loopback carries.
        // Chunks are copied out of one shared buffer at their exact size: the queue limit counts
        // bytes, and many small reads must not each hold a full-sized buffer.
        static std::vector<char> buffer(kReadSize);
        for (int i = 0; i < kReadsPerWakeup && wantsInput(); ++i) {
            ssize_t n = recv(fd, buffer.data(), std::min(kReadSize, queueLimit_ - queued_), 0);
            if (n < 0) return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
            if (n == 0) inputEnded_ = true;
            queued_ += static_cast<size_t>(n);
            queue_.push_back(Chunk{now + rules_.delay, {buffer.begin(), buffer.begin() + n}, 0});
        }
        return true;
    }

    // Sends whatever is due, allowed by the rate and not held back by a stall or a cut.
    Outcome writeTo(int fd, Clock::time_point now) {
        refill(now);
        while (!queue_.empty() && !destinationFull_) {
            if (forwarded_ == rules_.cutAt) return Outcome::Cut;
            if (stallEnd_ && now >= *stallEnd_) {
                stallEnd_.reset();
                ++stallsDone_;
            }
            if (!stallEnd_ && forwarded_ == nextStall()) stallEnd_ = now + rules_.stallFor;
            if (stallEnd_) break;
            Chunk& head = queue_.front();
            if (head.due > now) break;
            if (head.data.empty()) {
                queue_.pop_front();
                shutdown(fd, SHUT_WR);
                return Outcome::Finished;
            }
            size_t want = head.data.size() - head.offset;
            want = std::min<uint64_t>(want, limitBefore(rules_.cutAt));
            want = std::min<uint64_t>(want, limitBefore(nextStall()));
            if (rules_.rate) want = std::min<uint64_t>(want, static_cast<uint64_t>(tokens_));
            if (want == 0) break;
            ssize_t n = send(fd, head.data.data() + head.offset, want, MSG_NOSIGNAL);
            if (n < 0) {
                if (errno == EAGAIN || errno == EWOULDBLOCK) {
                    destinationFull_ = true;
                    break;
                }
                if (errno == EINTR) continue;
                return Outcome::Broken;
            }
            forwarded_ += static_cast<uint64_t>(n);
            queued_ -= static_cast<size_t>(n);
            if (rules_.rate) tokens_ -= static_cast<double>(n);
            head.offset += static_cast<size_t>(n);
            if (head.offset == head.data.size()) queue_.pop_front();
        }
        if (forwarded_ == rules_.cutAt) return Outcome::Cut;
        return Outcome::Open;
    }

    // When this direction next has something to do without any socket event.
    std::optional<Clock::time_point> nextDeadline(Clock::time_point now) const {
        if (queue_.empty() || destinationFull_) return std::nullopt;
        Clock::time_point at = queue_.front().due;
        if (stallEnd_ && now < *stallEnd_) at = std::max(at, *stallEnd_);
        if (rules_.rate && !queue_.front().data.empty()) {
            const Chunk& head = queue_.front();
            double wanted = std::min<double>(static_cast<double>(burst_) / 2,
                                             static_cast<double>(head.data.size() - head.offset));
            if (tokens_ < wanted) {
                auto wait = std::chrono::duration<double>((wanted - tokens_) / rules_.rate);
                at = std::max(at, now + std::chrono::duration_cast<Clock::duration>(wait));
            }
        }
        return at;
    }

  private:
    struct Chunk {
        Clock::time_point due;
        std::vector<char> data;  // empty: the source's end of stream
        size_t offset;
    };

    uint64_t nextStall() const {
        return stallsDone_ < rules_.stallAt.size() ? rules_.stallAt[stallsDone_] : kNever;
    }

    uint64_t limitBefore(uint64_t mark) const {
        return forwarded_ < mark ? mark - forwarded_ : kNever;
    }

    void refill(Clock::time_point now) {
        if (!rules_.rate) return;
        double elapsed = std::chrono::duration<double>(now - refilled_).count();
        tokens_ = std::min<double>(static_cast<double>(burst_), tokens_ + elapsed * rules_.rate);
        refilled_ = now;
    }

    DirectionRules rules_;
    size_t queueLimit_;
    std::deque<Chunk> queue_;
    size_t queued_ = 0;
    bool inputEnded_ = false;
    bool destinationFull_ = false;
    uint64_t forwarded_ = 0;
    std::optional<Clock::time_point> stallEnd_;
    size_t stallsDone_ = 0;
    uint64_t burst_;
    double tokens_;
    Clock::time_point refilled_;
};

class Connection {
  public:
    Connection(unsigned id, Fd client, Fd server, const Options& options)
        : id_(id),
          client_(std::move(client)),
          server_(std::move(server)),
          up_(options.up, options.queueLimit),
          down_(options.down, options.queueLimit),
          cutWithReset_(options.cutWithReset) {}

    bool closed() const { return client_.get() < 0; }

    void addPollEntries(std::vector<pollfd>& fds) {
        first_ = fds.size();
        fds.push_back(entry(client_.get(), up_, down_));
        fds.push_back(entry(server_.get(), down_, up_));
    }

    void handleEvents(const std::vector<pollfd>& fds, Clock::time_point now) {
        const pollfd& client = fds[first_];
        const pollfd& server = fds[first_ + 1];
        // A hung-up or failed socket counts as writable: the next send reports what happened.
        const short output = POLLOUT | POLLHUP | POLLERR, input = POLLIN | POLLHUP | POLLERR;
        if (client.revents & output) down_.roomAvailable();
        if (server.revents & output) up_.roomAvailable();
        bool ok = true;
        if (client.revents & input) ok = up_.readFrom(client_.get(), now) && ok;
        if (server.revents & input) ok = down_.readFrom(server_.get(), now) && ok;
        if (!ok) finish("reset by a peer", true);
    }

    void pump(Clock::time_point now) {
        if (closed()) return;
        settle(up_.writeTo(server_.get(), now), upDone_);
        if (closed()) return;
        settle(down_.writeTo(client_.get(), now), downDone_);
        if (!closed() && upDone_ && downDone_) finish("ended", false);
    }

    std::optional<Clock::time_point> nextDeadline(Clock::time_point now) const {
        auto a = up_.nextDeadline(now), b = down_.nextDeadline(now);
        if (a && b) return std::min(*a, *b);
        return a ? a : b;
    }

    void finish(const char* how, bool hard) {
        if (closed()) return;
        for (Fd* fd : {&client_, &server_}) {
            if (hard) {
                abortSocket(fd->get());
            } else {
                shutdown(fd->get(), SHUT_WR);
                drainInput(fd->get());
            }
            fd->reset();
        }
        std::fprintf(stderr, "fg-relay: connection %u %s: up %llu bytes, down %llu bytes\n", id_,
                     how, static_cast<unsigned long long>(up_.forwarded()),
                     static_cast<unsigned long long>(down_.forwarded()));
    }

  private:
    static pollfd entry(int fd, const Direction& reading, const Direction& writing) {
        short events = (reading.wantsInput() ? POLLIN : 0) | (writing.waitsForRoom() ? POLLOUT : 0);
        // A descriptor polled for nothing would still report POLLHUP on every pass.
        return pollfd{events ? fd : -1, events, 0};
    }

    void settle(Direction::Outcome outcome, bool& done) {
        switch (outcome) {
            case Direction::Outcome::Open:
                break;
            case Direction::Outcome::Finished:
                done = true;
                break;
            case Direction::Outcome::Cut:
                finish("cut", cutWithReset_);
                break;
            case Direction::Outcome::Broken:
                finish("broken", true);
                break;
        }
    }

    unsigned id_;
    Fd client_, server_;
    Direction up_, down_;
    bool cutWithReset_;
    bool upDone_ = false, downDone_ = false;
    size_t first_ = 0;
};

volatile sig_atomic_t stopRequested = 0;

void onStopSignal(int) { stopRequested = 1; }

Fd connectTarget(const sockaddr_in& target) {
    Fd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (fd.get() < 0) fail("socket");
    // The target is local: a blocking connect is answered at once.
    if (connect(fd.get(), reinterpret_cast<const sockaddr*>(&target), sizeof target) < 0) {
        std::fprintf(stderr, "fg-relay: cannot reach the target: %s\n", std::strerror(errno));
        return Fd();
    }
    setNonBlocking(fd.get());
    setNoDelay(fd.get());
    return fd;
}

int run(const Options& options) {
    Fd listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (listener.get() < 0) fail("socket");
    int one = 1;
    setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in address = options.listen;
    const unsigned low = ntohs(options.listen.sin_port);
    const unsigned span = options.listenHigh >= low ? options.listenHigh - low + 1 : 1;
    // A range is tried from a random port on, so that relays started together rarely collide.
    const unsigned first = static_cast<unsigned>(Clock::now().time_since_epoch().count()) % span;
    for (unsigned tried = 0;; ++tried) {
        address.sin_port = htons(static_cast<uint16_t>(low + (first + tried) % span));
        if (bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
            break;
        if (errno != EADDRINUSE || tried + 1 == span) fail("bind");
    }
    if (listen(listener.get(), 64) < 0) fail("listen");
    sockaddr_in bound{};
    socklen_t length = sizeof bound;
    if (getsockname(listener.get(), reinterpret_cast<sockaddr*>(&bound), &length) < 0)
        fail("getsockname");
    std::printf("%u\n", ntohs(bound.sin_port));
    std::fflush(stdout);

    // The stop signals stay blocked except inside ppoll, so none can slip in between the check
    // of the flag and the wait.
    sigset_t stopSignals, waitMask;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGINT);
    sigprocmask(SIG_BLOCK, &stopSignals, &waitMask);
    sigdelset(&waitMask, SIGTERM);
    sigdelset(&waitMask, SIGINT);
    struct sigaction action {};
    action.sa_handler = onStopSignal;
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
    signal(SIGPIPE, SIG_IGN);

    std::list<Connection> connections;
    unsigned accepted = 0;
    std::vector<pollfd> fds;
    while (!stopRequested) {
        Clock::time_point now = Clock::now();
        fds.clear();
        fds.push_back(pollfd{listener.get(), POLLIN, 0});
        std::optional<Clock::time_point> deadline;
        for (Connection& c : connections) {
            c.addPollEntries(fds);
            auto next = c.nextDeadline(now);
            if (next && (!deadline || *next < *deadline)) deadline = next;
        }
        timespec timeout{}, *timeoutPtr = nullptr;
        if (deadline) {
            auto wait = std::max(Clock::duration::zero(), *deadline - now);
            auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(wait).count();
            timeout.tv_sec = ns / 1000000000;
            timeout.tv_nsec = ns % 1000000000;
            timeoutPtr = &timeout;
        }
        if (ppoll(fds.data(), fds.size(), timeoutPtr, &waitMask) < 0) {
            if (errno == EINTR) continue;
            fail("ppoll");
        }
        now = Clock::now();
        for (Connection& c : connections) {
            c.handleEvents(fds, now);
            c.pump(now);
        }
        connections.remove_if([](const Connection& c) { return c.closed(); });
        if (fds[0].revents & POLLIN) {
            Fd client(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
            if (client.get() >= 0) {
                setNoDelay(client.get());
                Fd server = connectTarget(options.target);
                ++accepted;
                if (server.get() < 0) {
                    abortSocket(client.get());
                } else {
                    connections.emplace_back(accepted, std::move(client), std::move(server),
                                             options);
                }
            }
        }
    }
    for (Connection& c : connections) c.finish("stopped", false);
    return 0;
}

sockaddr_in parseAddress(const std::string& text) {
    size_t colon = text.rfind(':');
    if (colon == std::string::npos) throw std::invalid_argument("expected HOST:PORT: " + text);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    std::string host = text.substr(0, colon);
    if (inet_pton(AF_INET, host.c_str(), &address.sin_addr) != 1)
        throw std::invalid_argument("not a numeric IPv4 address: " + host);
    char* end = nullptr;
    unsigned long port = std::strtoul(text.c_str() + colon + 1, &end, 10);
    if (end == text.c_str() + colon + 1 || *end || port > 65535)
        throw std::invalid_argument("bad port in " + text);
    address.sin_port = htons(static_cast<uint16_t>(port));
    return address;
}

uint64_t parseCount(const char* text) {
    char* end = nullptr;
    errno = 0;
    unsigned long long value = std::strtoull(text, &end, 10);
    if (end == text || *end || errno || text[0] == '-')
        throw std::invalid_argument(std::string("not a non-negative number: ") + text);
    return value;
}

void printUsage(FILE* out) {
    std::fputs(
        "Usage: fg-relay --target HOST:PORT [--listen HOST:PORT] [options]\n"
        "Forwards every connection accepted on --listen (default 127.0.0.1:0, 0 picks a free\n"
        "port; HOST:LOW-HIGH a free one in that range; printed on standard output) to --target.\n"
        "Rules per direction, up = client to server, down = server to client:\n"
        "  --delay-up-ms MS, --delay-down-ms MS   hold every byte back for MS milliseconds\n"
        "  --rate-up B, --rate-down B             cap the rate at B bytes per second\n"
        "  --stall-up-at N, --stall-down-at N     pause for --stall-ms after N bytes (repeatable)\n"
        "  --stall-ms MS                          length of a stall (default 1000)\n"
        "  --cut-up-at N, --cut-down-at N         close both sides after N bytes\n"
        "  --cut-with-reset                       cut with RST instead of FIN\n"
        "  --queue-bytes N                        per-direction buffer (default 32 MiB)\n",
        out);
}

Options parseOptions(int argc, char** argv) {
    enum {
        kListen = 1000,
        kTarget,
        kDelayUp,
        kDelayDown,
        kRateUp,
        kRateDown,
        kStallUpAt,
        kStallDownAt,
        kStallMs,
        kCutUpAt,
        kCutDownAt,
        kCutWithReset,
        kQueueBytes,
        kHelp
    };
    static const option table[] = {{"listen", required_argument, nullptr, kListen},
                                   {"target", required_argument, nullptr, kTarget},
                                   {"delay-up-ms", required_argument, nullptr, kDelayUp},
                                   {"delay-down-ms", required_argument, nullptr, kDelayDown},
                                   {"rate-up", required_argument, nullptr, kRateUp},
                                   {"rate-down", required_argument, nullptr, kRateDown},
                                   {"stall-up-at", required_argument, nullptr, kStallUpAt},
                                   {"stall-down-at", required_argument, nullptr, kStallDownAt},
                                   {"stall-ms", required_argument, nullptr, kStallMs},
                                   {"cut-up-at", required_argument, nullptr, kCutUpAt},
                                   {"cut-down-at", required_argument, nullptr, kCutDownAt},
                                   {"cut-with-reset", no_argument, nullptr, kCutWithReset},
                                   {"queue-bytes", required_argument, nullptr, kQueueBytes},
                                   {"help", no_argument, nullptr, kHelp},
                                   {nullptr, 0, nullptr, 0}};
    Options options;
    options.listen = parseAddress("127.0.0.1:0");
    Millis stallFor{1000};
    bool haveTarget = false;
    int c;
    while ((c = getopt_long(argc, argv, "", table, nullptr)) != -1) {
        switch (c) {
            case kListen: {
                // HOST:PORT or HOST:LOW-HIGH
                std::string text = optarg;
                const size_t dash = text.rfind('-');
                if (dash != std::string::npos && dash > text.rfind(':')) {
                    options.listenHigh = static_cast<uint16_t>(parseCount(optarg + dash + 1));
                    text.erase(dash);
                }
                options.listen = parseAddress(text);
                break;
            }
            case kTarget:
                options.target = parseAddress(optarg);
                haveTarget = true;
                break;
            case kDelayUp:
                options.up.delay = Millis(parseCount(optarg));
                break;
            case kDelayDown:
                options.down.delay = Millis(parseCount(optarg));
                break;
            case kRateUp:
                options.up.rate = parseCount(optarg);
                break;
            case kRateDown:
                options.down.rate = parseCount(optarg);
                break;
            case kStallUpAt:
                options.up.stallAt.push_back(parseCount(optarg));
                break;
            case kStallDownAt:
                options.down.stallAt.push_back(parseCount(optarg));
                break;
            case kStallMs:
                stallFor = Millis(parseCount(optarg));
                break;
            case kCutUpAt:
                options.up.cutAt = parseCount(optarg);
                break;
            case kCutDownAt:
                options.down.cutAt = parseCount(optarg);
                break;
            case kCutWithReset:
                options.cutWithReset = true;
                break;
            case kQueueBytes:
                options.queueLimit = std::max<uint64_t>(parseCount(optarg), 1);
                break;
            case kHelp:
                printUsage(stdout);
                std::exit(0);
            default:
                printUsage(stderr);
                std::exit(2);
        }
    }
    if (optind != argc) throw std::invalid_argument(std::string("unexpected ") + argv[optind]);
    if (!haveTarget) throw std::invalid_argument("--target is required");
    options.up.stallFor = options.down.stallFor = stallFor;
    for (DirectionRules* rules : {&options.up, &options.down}) {
        std::sort(rules->stallAt.begin(), rules->stallAt.end());
        rules->stallAt.erase(std::unique(rules->stallAt.begin(), rules->stallAt.end()),
                             rules->stallAt.end());
    }
    return options;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return run(parseOptions(argc, argv));
    } catch (const std::invalid_argument& e) {
        std::fprintf(stderr, "fg-relay: %s\n", e.what());
        return 2;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "fg-relay: %s\n", e.what());
        return 1;
    }
}
