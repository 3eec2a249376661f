// fg-relay between a loopback client and server: the WAN and fault tests rely on each rule
// meaning what it says, at the byte count and the time it was given, with every byte intact.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <boost/algorithm/string.hpp>
#include <cerrno>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "support/loopback.h"
#include "support/relay_process.h"

namespace tavik {
namespace {

using Clock = std::chrono::steady_clock;
double since(Clock::time_point t) {
    return std::chrono::duration<double>(Clock::now() - t).count();
}

// Position-dependent bytes, so that a lost, doubled or reordered chunk shows.
char patternAt(uint64_t i) { return static_cast<char>((i * 131 + (i >> 11)) & 0xff); }

struct Fd {
    int fd;
    ~Fd() { close(fd); }
};

// A server that sends until its peer goes away.
const uint64_t kEndless = UINT64_MAX;

struct Row {
    const char* rules;          // fg-relay options, blank-separated
    uint64_t served, received;  // bytes the server sends, bytes the client must get
    int error;                  // how the client's stream ends: 0 for EOF
    double firstByte;           // seconds from the client's request to the first byte, at least
    uint64_t pauseAt;           // bytes before the longest pause, when one is asked for
    double pause, atLeast, atMost;
};

TEST(Relay, EachRuleHoldsAtItsByteCountAndTime) {
    const Row rows[] = {
        {"--delay-up-ms 50 --delay-down-ms 50", 8 << 20, 8 << 20, 0, 0.1, 0, 0, 0.1, 2.0},
        {"--rate-down 4000000", 2000000, 2000000, 0, 0, 0, 0, 0.42, 0.7},
        {"--stall-down-at 100000 --stall-ms 600", 300000, 300000, 0, 0, 100000, 0.55, 0.55, 1.5},
        {"--cut-down-at 150000", kEndless, 150000, 0, 0, 0, 0, 0, 3.0},
        {"--cut-down-at 70000 --cut-with-reset", kEndless, 70000, ECONNRESET, 0, 0, 0, 0, 3.0},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.rules);
        std::vector<std::string> rules;
        boost::split(rules, row.rules, boost::is_any_of(" "));
        testing::LoopbackSocket listener;
        // The server answers one byte with the pattern; a send that fails (rather than times
        // out) shows that a cut closed the server's side too.
        int sendError = 0;
        std::thread server([&] {
            Fd peer{accept(listener.fd(), nullptr, nullptr)};
            const timeval timeout{5, 0};
            setsockopt(peer.fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
            char c;
            if (recv(peer.fd, &c, 1, 0) != 1) sendError = -1;
            std::vector<char> buffer(1 << 16);
            for (uint64_t sent = 0; sent < row.served && sendError == 0;) {
                const size_t n = std::min<uint64_t>(buffer.size(), row.served - sent);
                for (size_t j = 0; j < n; ++j) buffer[j] = patternAt(sent + j);
                const ssize_t w = send(peer.fd, buffer.data(), n, MSG_NOSIGNAL);
                if (w <= 0) {
                    sendError = errno;
                    return;
                }
                sent += static_cast<uint64_t>(w);
            }
        });
        test::RelayProcess relay(listener.port(), rules);
        Fd client{testing::connectLoopback(relay.port())};

        const Clock::time_point start = Clock::now();
        ASSERT_EQ(1, send(client.fd, "?", 1, 0));
        uint64_t bytes = 0, mismatch = UINT64_MAX, beforePause = 0;
        double first = -1, pause = 0;
        Clock::time_point last = start;
        std::vector<char> buffer(1 << 16);
        ssize_t n;
        while ((n = recv(client.fd, buffer.data(), buffer.size(), 0)) > 0) {
            if (first < 0) {
                first = since(start);
            } else if (since(last) > pause) {
                pause = since(last);
                beforePause = bytes;
            }
            last = Clock::now();
            for (ssize_t j = 0; j < n && mismatch == UINT64_MAX; ++j)
                if (buffer[j] != patternAt(bytes + j)) mismatch = bytes + j;
            bytes += static_cast<uint64_t>(n);
        }
        const int error = n < 0 ? errno : 0;
        const double took = since(start);
        server.join();

        EXPECT_EQ(row.error, error);
        EXPECT_TRUE(row.error == 0 ? bytes == row.received : bytes <= row.received) << bytes;
        EXPECT_EQ(UINT64_MAX, mismatch);
        EXPECT_TRUE(bytes == 0 || first >= row.firstByte) << first;
        EXPECT_TRUE(row.pauseAt == 0 || beforePause == row.pauseAt) << beforePause;
        EXPECT_GE(pause, row.pause);
        EXPECT_GE(took, row.atLeast);
        EXPECT_LT(took, row.atMost);
        EXPECT_TRUE(row.received == row.served || (sendError > 0 && sendError != EAGAIN))
            << "the server's side stayed open: " << sendError;
    }
}

}  // namespace
}  // namespace tavik
