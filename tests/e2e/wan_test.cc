// Content downloads across a distance and through faults that fg-relay puts between ferrygate
// and the source host's sshd.
#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <thread>

#include "ssh/ssh_transfer.h"
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

class Quiet : public SshdTest {};

TEST_F(Quiet, ACommandSilentForLongerThanTheLimitIsNotALostConnection) {
    testing::writeTextFile("/etc/hmx/hmx.conf", "SSH_SILENCE_TIMEOUT 2\n");
    Ssh ssh(host(), user(), password(), false, port());
    std::ostringstream out, err;
    // The server answers the keep-alive requests while its command says nothing.
    EXPECT_EQ(0, ssh.exec("sleep 7; echo done", out, err, false, Ssh::nullCounter));
    EXPECT_EQ("done\n", out.str());
}

}  // namespace
}  // namespace test
}  // namespace tavik
