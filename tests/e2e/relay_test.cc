// fg-relay against small servers on loopback: every rule must hold at the byte count and the
// time it was given, since transport and fault tests rely on it to mean what it says.

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "support/relay_process.h"

namespace tavik {
namespace {

using test::RelayProcess;
using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

class Sock {
  public:
    explicit Sock(int fd) : fd_(fd) {}
    Sock(const Sock&) = delete;
    ~Sock() { close(fd_); }
    int get() const { return fd_; }

  private:
    int fd_;
};

sockaddr_in loopback(uint16_t port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(port);
    return a;
}

int connectTo(uint16_t port) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a = loopback(port);
    if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) < 0)
        throw std::runtime_error("connect: " + std::string(strerror(errno)));
    return fd;
}

// Serves the first connection accepted on a fresh loopback port with `serve`, in a thread.
class OneShotServer {
  public:
    explicit OneShotServer(std::function<void(int)> serve)
        : listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in a = loopback(0);
        socklen_t len = sizeof a;
        if (bind(listener_.get(), reinterpret_cast<sockaddr*>(&a), sizeof a) < 0 ||
            listen(listener_.get(), 4) < 0 ||
            getsockname(listener_.get(), reinterpret_cast<sockaddr*>(&a), &len) < 0)
            throw std::runtime_error("listen: " + std::string(strerror(errno)));
        port_ = ntohs(a.sin_port);
        thread_ = std::thread([this, serve] {
            Sock peer(accept(listener_.get(), nullptr, nullptr));
            if (peer.get() >= 0) serve(peer.get());
        });
    }
    ~OneShotServer() { join(); }
    uint16_t port() const { return port_; }
    void join() {
        if (!thread_.joinable()) return;
        shutdown(listener_.get(), SHUT_RDWR);  // wakes an accept that never got a client
        thread_.join();
    }

  private:
    Sock listener_;
    uint16_t port_ = 0;
    std::thread thread_;
};

// Position-dependent bytes, so that a lost, doubled or reordered chunk shows.
char patternAt(uint64_t i) { return static_cast<char>((i * 131 + (i >> 11)) & 0xff); }

// Sends `total` pattern bytes in ragged pieces; false when the peer went away first.
bool sendPattern(int fd, uint64_t total) {
    static const size_t pieces[] = {1, 7, 1400, 65536, 3000, 200000, 17};
    std::vector<char> buf;
    uint64_t sent = 0;
    for (size_t k = 0; sent < total; ++k) {
        size_t n = std::min<uint64_t>(pieces[k % 7], total - sent);
        buf.resize(n);
        for (size_t j = 0; j < n; ++j) buf[j] = patternAt(sent + j);
        for (size_t off = 0; off < n;) {
            ssize_t w = send(fd, buf.data() + off, n - off, MSG_NOSIGNAL);
            if (w <= 0) return false;
            off += static_cast<size_t>(w);
        }
        sent += n;
    }
    return true;
}

struct Received {
    uint64_t bytes = 0;
    uint64_t firstMismatch = UINT64_MAX;
    int error = 0;  // errno of the failed read, 0 when the stream ended in EOF
    double longestGap = 0;
    uint64_t bytesBeforeLongestGap = 0;
};

// Reads pattern bytes until EOF, an error, or `limit` bytes.
Received receivePattern(int fd, uint64_t limit = UINT64_MAX) {
    Received r;
    std::vector<char> buf(1 << 16);
    Clock::time_point last = Clock::now();
    bool started = false;
    while (r.bytes < limit) {
        ssize_t n = recv(fd, buf.data(), std::min<uint64_t>(buf.size(), limit - r.bytes), 0);
        if (n <= 0) {
            r.error = n < 0 ? errno : 0;
            break;
        }
        double gap = secondsSince(last);
        if (started && gap > r.longestGap) {
            r.longestGap = gap;
            r.bytesBeforeLongestGap = r.bytes;
        }
        started = true;
        last = Clock::now();
        for (ssize_t j = 0; j < n && r.firstMismatch == UINT64_MAX; ++j)
            if (buf[j] != patternAt(r.bytes + j)) r.firstMismatch = r.bytes + j;
        r.bytes += static_cast<uint64_t>(n);
    }
    return r;
}

void echo(int fd) {
    std::vector<char> buf(1 << 16);
    ssize_t n;
    while ((n = recv(fd, buf.data(), buf.size(), 0)) > 0)
        if (send(fd, buf.data(), n, MSG_NOSIGNAL) != n) return;
    shutdown(fd, SHUT_WR);
}

TEST(Relay, DelayKeepsOrderAndHoldsEveryByteButNotTheThroughput) {
    OneShotServer server(echo);
    RelayProcess relay(server.port(), {"--delay-up-ms", "50", "--delay-down-ms", "50"});
    Sock client(connectTo(relay.port()));

    // One byte there and back crosses both delays.
    char byte = patternAt(0);
    Clock::time_point start = Clock::now();
    ASSERT_EQ(1, send(client.get(), &byte, 1, 0));
    ASSERT_EQ(1, recv(client.get(), &byte, 1, 0));
    double roundTrip = secondsSince(start);
    EXPECT_GE(roundTrip, 0.100);
    EXPECT_LT(roundTrip, 0.400);

    // 16 MiB more: a relay that waited out the delay chunk by chunk would need many seconds.
    const uint64_t total = 16 << 20;
    start = Clock::now();
    std::thread writer([&] {
        sendPattern(client.get(), total);
        shutdown(client.get(), SHUT_WR);
    });
    Received r = receivePattern(client.get());
    writer.join();
    double elapsed = secondsSince(start);
    EXPECT_EQ(0, r.error);
    // The first byte was already echoed above; the stream starts over at 0.
    EXPECT_EQ(total, r.bytes);
    EXPECT_EQ(UINT64_MAX, r.firstMismatch);
    EXPECT_GE(elapsed, 0.100);
    EXPECT_LT(elapsed, 2.0) << "16 MiB echoed through 2 x 50 ms";
}

TEST(Relay, RateCapHoldsOneDirectionNearTheCapAndLeavesTheOtherAlone) {
    const uint64_t down = 2000000, up = 8 << 20;
    std::atomic<uint64_t> sunk{0};
    OneShotServer server([&](int fd) {
        sendPattern(fd, down);
        sunk = receivePattern(fd).bytes;
    });
    RelayProcess relay(server.port(), {"--rate-down", "4000000"});
    Sock client(connectTo(relay.port()));

    Clock::time_point start = Clock::now();
    Received r = receivePattern(client.get(), down);
    double capped = secondsSince(start);
    EXPECT_EQ(down, r.bytes);
    EXPECT_EQ(UINT64_MAX, r.firstMismatch);
    EXPECT_GT(capped, 0.42) << "2 MB at 4 MB/s";
    EXPECT_LT(capped, 0.70) << "2 MB at 4 MB/s";

    start = Clock::now();
    ASSERT_TRUE(sendPattern(client.get(), up));
    shutdown(client.get(), SHUT_WR);
    server.join();
    // The cap, applied to this direction by mistake, would take over two seconds.
    EXPECT_LT(secondsSince(start), 1.2) << "8 MiB up, uncapped";
    EXPECT_EQ(up, sunk.load());
}

TEST(Relay, StallPausesAtTheByteCountThenDeliversTheRest) {
    OneShotServer server([](int fd) {
        sendPattern(fd, 300000);
        shutdown(fd, SHUT_WR);
    });
    RelayProcess relay(server.port(), {"--stall-down-at", "100000", "--stall-ms", "600"});
    Sock client(connectTo(relay.port()));
    Clock::time_point start = Clock::now();
    Received r = receivePattern(client.get());
    EXPECT_EQ(0, r.error);
    EXPECT_EQ(300000u, r.bytes);
    EXPECT_EQ(UINT64_MAX, r.firstMismatch);
    EXPECT_EQ(100000u, r.bytesBeforeLongestGap);
    EXPECT_GE(r.longestGap, 0.55);
    EXPECT_LT(secondsSince(start), 1.5);
}

TEST(Relay, CutEndsTheStreamAtTheByteCountWithFinOrReset) {
    {
        std::atomic<bool> sourceStopped{false};
        OneShotServer server([&](int fd) { sourceStopped = !sendPattern(fd, 256 << 20); });
        RelayProcess relay(server.port(), {"--cut-down-at", "150000"});
        Sock client(connectTo(relay.port()));
        Received r = receivePattern(client.get());
        EXPECT_EQ(0, r.error) << "an orderly cut ends in EOF";
        EXPECT_EQ(150000u, r.bytes);
        EXPECT_EQ(UINT64_MAX, r.firstMismatch);
        server.join();
        EXPECT_TRUE(sourceStopped) << "the server side must be closed too";
    }
    {
        Received atServer;
        OneShotServer server([&](int fd) { atServer = receivePattern(fd); });
        RelayProcess relay(server.port(), {"--cut-up-at", "70000", "--cut-with-reset"});
        Sock client(connectTo(relay.port()));
        EXPECT_FALSE(sendPattern(client.get(), 256 << 20));
        server.join();
        EXPECT_EQ(ECONNRESET, atServer.error);
        EXPECT_GT(atServer.bytes, 0u);
        EXPECT_LE(atServer.bytes, 70000u);
        EXPECT_EQ(UINT64_MAX, atServer.firstMismatch);
    }
}

long residentKib(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string key;
    long value = -1;
    while (status >> key)
        if (key == "VmRSS:" && status >> value) return value;
    return -1;
}

TEST(Relay, FullQueueStopsReadingAndSigtermEndsCleanly) {
    std::atomic<uint64_t> accepted{0};
    std::atomic<bool> done{false};
    OneShotServer server([&](int fd) {
        // Pushes without blocking for one second; only what the relay takes in is counted.
        std::vector<char> buf(1 << 16, 'x');
        Clock::time_point start = Clock::now();
        while (secondsSince(start) < 1.0 && accepted < (256u << 20)) {
            ssize_t n = send(fd, buf.data(), buf.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
            if (n > 0)
                accepted += static_cast<uint64_t>(n);
            else
                usleep(1000);
        }
        done = true;
        while (recv(fd, buf.data(), buf.size(), 0) > 0) {
        }
    });
    RelayProcess relay(server.port(),
                       {"--queue-bytes", "1048576", "--stall-down-at", "0", "--stall-ms", "60000"});
    Sock client(connectTo(relay.port()));
    while (!done) usleep(10000);
    // The kernel's socket buffers hold a few MiB on each side; the relay adds at most 1 MiB.
    EXPECT_LT(accepted.load(), 24u << 20);
    EXPECT_LT(residentKib(relay.pid()), 24 * 1024);

    Clock::time_point start = Clock::now();
    EXPECT_EQ(0, relay.stop());
    EXPECT_LT(secondsSince(start), 1.0);
    char c;
    EXPECT_EQ(0, recv(client.get(), &c, 1, 0)) << "the stalled client gets an orderly EOF";
}

}  // namespace
}  // namespace tavik
