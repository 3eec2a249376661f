// Remote commands over a real connection: statuses, the three streams, waits, the alarm.
#include "ssh/ssh_transfer.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/time.h>

#include <boost/filesystem.hpp>
#include <chrono>
#include <sstream>
#include <vector>

#include "support/sandbox_env.h"
#include "support/sshd_fixture.h"

namespace tavik {
namespace {

std::unique_ptr<Ssh> login(const test::SshdServer& sshd, uint16_t port) {
    return std::unique_ptr<Ssh>(
        new Ssh(sshd.host(), sshd.user(), sshd.password(), false, port, sshd.hostKeys()));
}

// A silent command ends at its EOF, without waiting out a poll, and is waited for without
// spinning: once a keep-alive has been answered, the library's own readiness test says "ready"
// for ever, and a wait built on it burns a core. The server answers the keep-alive requests
// meanwhile, so silence beyond the limit is no lost connection. Output neither mixes nor stalls,
// standard output silent (where a read of it must not block) while 8 MB go to standard error,
// then both streams busy (20 MB each); only standard output counts as progress.
TEST(Exec, StatusesWaitsAndStreamsOfARemoteCommand) {
    testing::writeTextFile("/etc/hmx/hmx.conf", "SSH_SILENCE_TIMEOUT 2\n");
    const test::SshdServer sshd;
    const std::unique_ptr<Ssh> ssh = login(sshd, sshd.port());
    struct Total : Ssh::Counter {
        long long bytes = 0;
        void operator()(int n) override { bytes += n; }
    } counter;
    std::ostringstream out, err;
    auto run = [&](const std::string& command) {
        std::istringstream in;
        out.str("");
        err.str("");
        counter.bytes = 0;
        return ssh->exec(command, in, out, err, true, true, counter);
    };
    EXPECT_EQ(3, run("exit 3"));
    EXPECT_EQ(127, run("no-such-command-here"));
    EXPECT_EQ(128 + 9, run("kill -KILL $$"));
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(0, run("true"));
        EXPECT_EQ("", out.str() + err.str());
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(4));

    auto cpuSeconds = [] {
        rusage usage = {};
        getrusage(RUSAGE_SELF, &usage);
        return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec +
               (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    };
    const double before = cpuSeconds();
    EXPECT_EQ(0, run("sleep 5; echo done"));
    EXPECT_EQ("done\n", out.str());
    EXPECT_LT(cpuSeconds() - before, 0.5);

    ASSERT_EQ(0, run("head -c 8000000 /dev/zero >&2; yes out-line | head -c 20000000 & "
                     "yes err-line | head -c 20000000 >&2; wait"));
    auto lines = [](const std::string& line) {
        std::string text;
        while (text.size() < 20000000) text += line;
        return text.substr(0, 20000000);
    };
    EXPECT_TRUE(out.str() == lines("out-line\n")) << "stdout differs, size " << out.str().size();
    EXPECT_TRUE(err.str() == std::string(8000000, '\0') + lines("err-line\n"))
        << "stderr differs, size " << err.str().size();
    EXPECT_EQ(20000000, counter.bytes);
}

// Copies a remote file on every call, as the dumping-status refresh does.
struct CopyingAlarm : Alarm {
    explicit CopyingAlarm(Ssh& ssh) : ssh(ssh) {}
    void doAlarm() override {
        calls.push_back(std::chrono::steady_clock::now());
        std::ostringstream copy;
        ssh.get(copy, "status");
        copies += copy.str();
    }
    Ssh& ssh;
    std::vector<std::chrono::steady_clock::time_point> calls;
    std::string copies;
};

// Across a 700 ms round trip, with SIGALRM every 50 ms, handled without restarting what it
// interrupts: no wait ends early, and the alarm runs on the command's clock, once per 5 seconds,
// its own download included.
TEST(Far, NoSignalEndsAWaitAndTheAlarmKeepsItsOwnTime) {
    const test::SshdServer sshd;
    testing::writeTextFile(sshd.home() + "/status", "running\n");
    test::RelayProcess far(sshd.port(), "--delay-up-ms 350 --delay-down-ms 350");
    struct sigaction handler = {}, previous = {};
    handler.sa_handler = [](int) {};
    sigaction(SIGALRM, &handler, &previous);
    itimerval every50ms = {{0, 50000}, {0, 50000}};
    setitimer(ITIMER_REAL, &every50ms, nullptr);

    const std::unique_ptr<Ssh> ssh = login(sshd, far.port());
    CopyingAlarm alarm(*ssh);
    ssh->setAlarm(&alarm);
    std::ostringstream out, err;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(0, ssh->exec("sleep 6; echo done", out, err, false, Ssh::nullCounter));
    ssh->setAlarm(nullptr);
    EXPECT_EQ("done\n", out.str());
    ASSERT_EQ(1u, alarm.calls.size());
    EXPECT_GE(alarm.calls[0] - start, std::chrono::seconds(5));
    EXPECT_LT(alarm.calls[0] - start, std::chrono::seconds(7));
    EXPECT_EQ("running\n", alarm.copies);
    const std::string bytes(300000, 'y');
    std::istringstream sent(bytes);
    ssh->put(sent, "copy");
    std::ostringstream back;
    ssh->get(back, "copy");
    EXPECT_TRUE(bytes == back.str()) << back.str().size() << " bytes back";

    every50ms = {};
    setitimer(ITIMER_REAL, &every50ms, nullptr);
    sigaction(SIGALRM, &previous, nullptr);
}

}  // namespace
}  // namespace tavik
