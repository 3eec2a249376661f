// Whole runs across a distance and through faults that fg-relay puts between ferrygate and the
// source host's sshd.
#include <gtest/gtest.h>

#include <boost/filesystem.hpp>
#include <chrono>
#include <fstream>
#include <regex>
#include <set>
#include <thread>

#include "support/migration_host.h"
#include "support/relay_process.h"

namespace tavik {
namespace test {
namespace {

using Clock = std::chrono::steady_clock;

class Wan : public MigrationTest {
  protected:
    Wan() : MigrationTest(FERRYGATE_BINARY) {}

    // Dumps the sites, the shop.test archive (listed after the others) about `size` bytes large.
    void dumpSites(size_t size) {
        addRandomFile("shop.test/big.bin", size);
        deployAndDump();
        archives_ = dumpArchives();
    }

    ProcessResult getContent(const RelayProcess& relay) {
        return ferrygate({"--get-content", "--port=" + std::to_string(relay.port())});
    }

    void expectAllArchivesHere() {
        ASSERT_GE(archives_.size(), 2u);
        for (const Archive& a : archives_) EXPECT_EQ(a.md5, md5OfFile(sessionFile(a.name)));
    }

    std::vector<Archive> archives_;
};

long long attribute(const std::string& xml, const std::string& name) {
    std::smatch match;
    return std::regex_search(xml, match, std::regex(" " + name + "=\"([0-9]+)\""))
               ? std::stoll(match[1])
               : -1;
}

TEST_F(Wan, ADownloadAcross50MillisecondsIsWholeAndReportsItsTrueSpeed) {
    // About eight seconds at the relay's cap: the status counts whole seconds.
    dumpSites(8 << 20);
    RelayProcess relay(port(),
                       {"--delay-up-ms", "25", "--delay-down-ms", "25", "--rate-down", "1000000"});
    struct Sample {
        Clock::time_point when;
        long long done, speed;
    };
    std::vector<Sample> samples;
    ProcessResult r;
    std::thread run([&] { r = getContent(relay); });
    for (const auto start = Clock::now();
         r.status < 0 && Clock::now() - start < std::chrono::seconds(60);
         std::this_thread::sleep_for(std::chrono::milliseconds(20))) {
        const std::string xml = readFile(sessionFile("migration.status"));
        const long long total = attribute(xml, "size-total"), left = attribute(xml, "size-left");
        const long long speed = attribute(xml, "speed");
        if (total > 0 && speed > 0) samples.push_back({Clock::now(), total - left, speed});
    }
    run.join();
    ASSERT_EQ(0, r.status) << r.err;
    expectAllArchivesHere();

    // The rate the bytes really moved at, over the samples' span, against the last speed shown.
    ASSERT_GE(samples.size(), 100u);
    const Sample &first = samples.front(), &last = samples.back();
    const double seconds = std::chrono::duration<double>(last.when - first.when).count();
    const double measured = (last.done - first.done) / seconds;
    EXPECT_NEAR(measured, static_cast<double>(last.speed), 0.2 * measured)
        << "measured over " << seconds << " s";
}

// A line that goes silent, or is cut with a reset, mid-transfer is a lost connection, found
// within seconds; a rerun then completes.
TEST_F(Wan, ALineThatGoesSilentOrIsCutFailsAndARerunCompletes) {
    dumpSites(3 << 20);
    std::ofstream("/etc/hmx/hmx.conf", std::ios::app) << "SSH_SILENCE_TIMEOUT 2\n";
    const struct {
        std::vector<std::string> rules;
        std::set<int> codes;
        std::string message;
    } rows[] = {
        {{"--stall-down-at", "1500000", "--stall-ms", "60000"},
         {18},
         "Lost connection with the remote host"},
        {{"--cut-down-at", "1500000", "--cut-with-reset"}, {18, 15}, "Lost connection"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.rules[0]);
        RelayProcess relay(port(), row.rules);
        const Clock::time_point start = Clock::now();
        const ProcessResult r = getContent(relay);
        EXPECT_EQ(1u, row.codes.count(r.status)) << r.status << ": " << r.err;
        EXPECT_NE(std::string::npos, r.err.find(row.message)) << r.err;
        // Two seconds of silence, found at the end of a wait of at most five.
        EXPECT_LT(Clock::now() - start, std::chrono::seconds(15));
    }
    const ProcessResult r = ferrygate({"--get-content"});
    ASSERT_EQ(0, r.status) << r.err;
    expectAllArchivesHere();
}

// The lines on which whole runs used to fail: every action at 700 ms round trip, many dumps in a
// row at 100 ms, and a server that waits 6 seconds before it starts the handshake. Each run
// through sudo, whose dumps arm the dumping-status refresh.
TEST_F(Wan, EveryActionEndsNormallyOnSlowAndStallingLines) {
    ASSERT_EQ(0, ferrygate({"--deploy-agent"}).status);
    const struct {
        std::vector<std::string> rules;
        std::vector<std::string> actions;
        int times;
        int seconds;  // that each run takes at least: the rules held
    } lines[] = {
        {{"--stall-down-at", "0", "--stall-ms", "6000"}, {"--dump-all"}, 1, 6},
        {{"--delay-up-ms", "50", "--delay-down-ms", "50"}, {"--dump-all"}, 20, 1},
        {{"--delay-up-ms", "350", "--delay-down-ms", "350"},
         {"--send-scout", "--dump-all", "--get-content", "--remove-agent"},
         1,
         5},
    };
    for (const auto& line : lines) {
        RelayProcess relay(port(), line.rules);
        for (int run = 0; run < line.times; ++run) {
            for (const std::string& action : line.actions) {
                SCOPED_TRACE(line.rules[1] + " " + action + ", run " + std::to_string(run));
                const auto start = Clock::now();
                const ProcessResult r =
                    ferrygate({action, "--port=" + std::to_string(relay.port())}, true);
                ASSERT_EQ(0, r.status) << r.err;
                EXPECT_GE(Clock::now() - start, std::chrono::seconds(line.seconds));
                if (action != "--dump-all") continue;
                EXPECT_EQ(readFile(remoteAgent_ + "/dump.xml"), readFile(sessionFile("dump.xml")));
                archives_ = dumpArchives();
            }
        }
    }
    expectAllArchivesHere();
    EXPECT_FALSE(boost::filesystem::exists(remoteAgent_));
}

}  // namespace
}  // namespace test
}  // namespace tavik
