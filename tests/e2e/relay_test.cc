// fg-relay between a loopback client and server: the WAN and fault tests rely on each rule
// meaning what it says, at the byte count and the time it was given, with every byte intact.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <boost/algorithm/string.hpp>
#include <cerrno>
#include <chrono>
#include <thread>

#include "support/loopback.h"
#include "support/relay_process.h"

namespace tavik {
namespace {

using Clock = std::chrono::steady_clock;

// Position-dependent bytes, so that a lost, doubled or reordered chunk shows.
char patternAt(uint64_t i) { return static_cast<char>((i * 131 + (i >> 11)) & 0xff); }

TEST(Relay, EachRuleHoldsAtItsByteCountAndTime) {
    const uint64_t endless = UINT64_MAX;  // the server sends until its peer goes away
    struct Row {
        const char* rules;
        uint64_t served, received;      // bytes the server sends, bytes the client must get
        int error;                      // how the client's stream ends: 0 for EOF
        uint64_t pauseAt;               // bytes before the longest pause, when one is asked for
        double pause, atLeast, atMost;  // seconds
    } rows[] = {
        {"--delay-up-ms 50 --delay-down-ms 50", 8 << 20, 8 << 20, 0, 0, 0, 0.1, 2.0},
        {"--rate-down 4000000", 2000000, 2000000, 0, 0, 0, 0.42, 0.7},
        {"--stall-down-at 100000 --stall-ms 600", 300000, 300000, 0, 100000, 0.55, 0.55, 1.5},
        {"--cut-down-at 150000", endless, 150000, 0, 0, 0, 0, 3.0},
        {"--cut-down-at 70000 --cut-with-reset", endless, 70000, ECONNRESET, 0, 0, 0, 3.0},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.rules);
        std::vector<std::string> rules;
        boost::split(rules, row.rules, boost::is_any_of(" "));
        testing::LoopbackSocket listener;
        // Answers one byte with the pattern, until done or the relay closes this side too.
        std::thread server([&] {
            const int peer = accept(listener.fd(), nullptr, nullptr);
            const timeval timeout{5, 0};
            setsockopt(peer, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
            char buffer[1 << 16];
            recv(peer, buffer, 1, 0);
            for (uint64_t sent = 0; sent < row.served;) {
                const size_t n = std::min<uint64_t>(sizeof buffer, row.served - sent);
                for (size_t j = 0; j < n; ++j) buffer[j] = patternAt(sent + j);
                const ssize_t w = send(peer, buffer, n, MSG_NOSIGNAL);
                if (w <= 0) break;
                sent += w;
            }
            close(peer);
        });
        test::RelayProcess relay(listener.port(), rules);
        const int client = testing::connectLoopback(relay.port());
        const Clock::time_point start = Clock::now();
        ASSERT_EQ(1, send(client, "?", 1, 0));
        uint64_t bytes = 0, mismatch = UINT64_MAX, beforePause = 0;
        std::chrono::duration<double> pause{0};
        Clock::time_point last = start;
        char buffer[1 << 16];
        ssize_t n;
        while ((n = recv(client, buffer, sizeof buffer, 0)) > 0) {
            if (bytes > 0 && Clock::now() - last > pause) {
                pause = Clock::now() - last;
                beforePause = bytes;
            }
            last = Clock::now();
            for (ssize_t j = 0; j < n && mismatch == UINT64_MAX; ++j)
                if (buffer[j] != patternAt(bytes + j)) mismatch = bytes + j;
            bytes += n;
        }
        const int error = n < 0 ? errno : 0;
        const double took = std::chrono::duration<double>(Clock::now() - start).count();
        close(client);
        server.join();

        EXPECT_EQ(row.error, error);
        EXPECT_TRUE(row.error == 0 ? bytes == row.received : bytes <= row.received) << bytes;
        EXPECT_EQ(UINT64_MAX, mismatch);
        EXPECT_TRUE(row.pauseAt == 0 || beforePause == row.pauseAt) << beforePause;
        EXPECT_GE(pause.count(), row.pause);
        EXPECT_GE(took, row.atLeast);
        EXPECT_LT(took, row.atMost);
    }
}

}  // namespace
}  // namespace tavik
