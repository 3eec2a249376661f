// Content downloads across a distance and through faults that fg-relay puts between ferrygate
// and the source host's sshd.
#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <sstream>

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

    // A dump whose shop.test archive, listed after the others, holds 3 MiB of random bytes.
    void dumpSites() {
        std::ifstream random("/dev/urandom", std::ios::binary);
        std::string bytes(3 << 20, '\0');
        random.read(&bytes[0], static_cast<std::streamsize>(bytes.size()));
        testing::writeTextFile(hosting_ + "/web/shop.test/big.bin", bytes);
        ASSERT_EQ(0, ferrygate({"--deploy-agent"}).status);
        ASSERT_EQ(0, ferrygate({"--dump-all"}).status);
        archives_ = dumpArchives();
        ASSERT_GE(archives_.size(), 2u);
    }

    ProcessResult getContent(unsigned short port) {
        return ferrygateRaw(
            {"--host=127.0.0.1", "--port=" + std::to_string(port), "--login=" + user(),
             "--session-path=" + session_, "--agent-dir=" + remoteAgent_, "--agent-name=hostdump",
             "--get-content"},
            {"HMX_PASSWORD=" + password()});
    }

    void expectAllArchivesHere() {
        for (const Archive& archive : archives_) {
            EXPECT_EQ(archive.md5, md5OfFile(sessionFile(archive.name))) << archive.name;
        }
    }

    std::vector<Archive> archives_;
};

TEST_F(Wan, ADownloadAcross50MillisecondsIsWholeAndQuick) {
    dumpSites();
    RelayProcess relay(port(), {"--delay-up-ms", "25", "--delay-down-ms", "25"});
    const Clock::time_point start = Clock::now();
    const ProcessResult r = getContent(relay.port());
    ASSERT_EQ(0, r.status) << r.err;
    // Log-in, content list, one cat and one rm per archive: a few dozen round trips and 3 MiB.
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(20));
    expectAllArchivesHere();
}

TEST_F(Wan, ASilentServerEndsTheRunAsALostConnection) {
    dumpSites();
    std::ofstream("/etc/hmx/hmx.conf", std::ios::app) << "SSH_SILENCE_TIMEOUT 2\n";
    RelayProcess relay(port(), {"--stall-down-at", "1500000", "--stall-ms", "60000"});
    const Clock::time_point start = Clock::now();
    const ProcessResult r = getContent(relay.port());
    EXPECT_EQ(18, r.status) << r.err;
    EXPECT_NE(std::string::npos, r.err.find("Lost connection with the remote host")) << r.err;
    // Two seconds of silence, found at the end of a wait of at most five.
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(15));
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

TEST_F(Wan, AConnectionCutMidTransferFailsAndARerunCompletes) {
    dumpSites();
    {
        RelayProcess relay(port(), {"--cut-down-at", "1500000", "--cut-with-reset"});
        const ProcessResult r = getContent(relay.port());
        EXPECT_TRUE(r.status == 18 || r.status == 15) << r.status << ": " << r.err;
        EXPECT_NE(std::string::npos, r.err.find("Lost connection")) << r.err;
    }
    const ProcessResult r = getContent(port());
    ASSERT_EQ(0, r.status) << r.err;
    expectAllArchivesHere();
}

}  // namespace
}  // namespace test
}  // namespace tavik
