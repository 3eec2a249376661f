// Remote commands over a real connection: statuses, the three streams, waits, failures.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <chrono>
#include <cstdlib>
#include <random>
#include <sstream>
#include <thread>

#include "commons/checksum.h"
#include "ssh/ssh_transfer.h"
#include "support/log_capture.h"
#include "support/sshd_fixture.h"

namespace tavik {
namespace {

class Exec : public test::SshdTest {
  protected:
    void SetUp() override {
        SshdTest::SetUp();
        ssh.reset(new Ssh(host(), user(), password(), false, port()));
    }
    void TearDown() override {
        ssh.reset();
        SshdTest::TearDown();
    }
    int run(const std::string& command, const std::string& input = "") {
        std::istringstream in(input);
        out.str("");
        err.str("");
        return ssh->exec(command, in, out, err, false, false, Ssh::nullCounter);
    }

    std::unique_ptr<Ssh> ssh;
    std::ostringstream out, err;
};

// A silent command must end at its EOF, without waiting out a poll.
TEST_F(Exec, ReturnsTheExitStatusOrTheSignalThatEndedTheCommandAtOnce) {
    EXPECT_EQ(3, run("exit 3"));
    EXPECT_EQ(127, run("no-such-command-here"));
    EXPECT_EQ(128 + 9, run("kill -KILL $$"));
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(0, run("true"));
        EXPECT_EQ("", out.str());
        EXPECT_EQ("", err.str());
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(4));
}

// Once a keep-alive has been answered, the library's own readiness test says "ready" for ever;
// a wait built on it burns a core for as long as a command stays silent.
TEST_F(Exec, ASilentCommandIsWaitedForWithoutSpinning) {
    auto cpuSeconds = [] {
        rusage usage = {};
        getrusage(RUSAGE_SELF, &usage);
        return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec +
               (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    };
    const double before = cpuSeconds();
    EXPECT_EQ(0, run("sleep 3; echo done"));
    EXPECT_EQ("done\n", out.str());
    EXPECT_LT(cpuSeconds() - before, 0.5);
}

TEST_F(Exec, StandardInputArrivesWholeBeforeItsEof) {
    std::mt19937 random(1);
    std::string input(5 * 1024 * 1024 + 3, '\0');
    for (auto& c : input) c = static_cast<char>(random());
    EXPECT_EQ(0, run("cat > input.bin && md5sum < input.bin && wc -c < input.bin", input));
    std::istringstream sent(input);
    EXPECT_EQ(countMd5Sum(sent) + "  -\n" + std::to_string(input.size()) + "\n", out.str());
}

// Output neither mixes nor stalls, both streams busy (20 MB each) or standard output silent
// (where a read of it must not block); only standard output counts as progress.
TEST_F(Exec, StandardOutputAndErrorStayApartAndNeverStall) {
    class Total : public Ssh::Counter {
      public:
        long long bytes = 0;
        void operator()(int n) override { bytes += n; }
    } counter;
    std::istringstream none;
    ASSERT_EQ(0, ssh->exec("head -c 8000000 /dev/zero >&2", none, out, err, true, true, counter));
    EXPECT_EQ(8000000u, err.str().size());
    EXPECT_EQ(0, counter.bytes);

    out.str("");
    err.str("");
    const std::string command =
        "yes out-line | head -c 20000000 & yes err-line | head -c 20000000 >&2; wait";
    ASSERT_EQ(0, ssh->exec(command, none, out, err, true, true, counter));
    auto lines = [](const std::string& line) {
        std::string text;
        while (text.size() < 20000000) text += line;
        return text.substr(0, 20000000);
    };
    EXPECT_TRUE(out.str() == lines("out-line\n")) << "stdout differs, size " << out.str().size();
    EXPECT_TRUE(err.str() == lines("err-line\n")) << "stderr differs, size " << err.str().size();
    EXPECT_EQ(20000000, counter.bytes);
}

// Downloads and the agent's input travel on these streams: quiet ones stay out of the log.
TEST_F(Exec, QuietFlagsKeepStreamsOutOfTheLog) {
    testing::LogCapture lines("p.Ssh");
    // The command's own text must not hold the word that the streams carry.
    const std::string command = "cat; echo rorre-terces | rev >&2";
    std::istringstream quietInput("secret-input"), loudInput("secret-input");
    ssh->exec(command, quietInput, out, err, true, true, Ssh::nullCounter);
    const std::string quiet = lines.text();
    ssh->exec(command, loudInput, out, err, false, false, Ssh::nullCounter);
    const std::string loud = lines.text().substr(quiet.size());
    EXPECT_EQ(std::string::npos, quiet.find("secret"));
    EXPECT_NE(std::string::npos, quiet.find("Execution finished with return code 0"));
    for (const char* line : {"remote stdin <- secret-input", "remote stdout -> secret-input",
                             "remote stderr -> secret-error"})
        EXPECT_NE(std::string::npos, loud.find(line)) << line;
}

TEST_F(Exec, DroppedConnectionDuringALongCommandIsAConnectionFault) {
    std::thread killer([this] {
        // Only once the command runs: a kill while the channel opens is another failure.
        const std::string running = "pgrep -u " + user() + " -x sleep >/dev/null";
        for (int i = 0; i < 200 && system(running.c_str()) != 0; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        sshd().killSessions();
    });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_THROW(run("sleep 600"), Exc<&SshConnectionFault>);
    killer.join();
    // Found at the end of the wait that was running (at most 5 s), not when the command ends.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
}

}  // namespace
}  // namespace tavik
