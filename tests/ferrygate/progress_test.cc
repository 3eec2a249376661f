#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <string>

#include "ferrygate/action.h"
#include "ferrygate/progress_line.h"
#include "ferrygate/session.h"
#include "support/sandbox_env.h"

namespace tavik {
namespace {

// Everything the other end of `fd` receives until it has been quiet for 200 ms.
std::string drain(int fd) {
    std::string text;
    pollfd p = {fd, POLLIN, 0};
    char buffer[4096];
    while (poll(&p, 1, 200) == 1) {
        const ssize_t n = read(fd, buffer, sizeof buffer);
        if (n <= 0) break;
        text.append(buffer, static_cast<size_t>(n));
    }
    return text;
}

// The line is redrawn at most once a second, the last state is drawn as it ends, and a line as
// wide as the terminal is cut, since a wrapped one would leave its first half behind. That
// nothing is drawn elsewhere than on a terminal is shown end to end.
TEST(ProgressLine, RedrawsOneLineOnATerminal) {
    // 0 of 0 is done; 1023.99 KiB is shown as the next unit up, never as "1024.0 KiB".
    EXPECT_EQ("file 1/1  0 B/0 B  100%  --/s  0:00:00 left", formatProgress(1, 1, 0, 0, 0));
    EXPECT_EQ("file 1/9  1.0 MiB/3.0 GiB  0%  1000 B/s  894:29:37 left",
              formatProgress(1, 9, (1 << 20) - 1, 3ull << 30, 1000));
    int master = -1, slave = -1;
    ASSERT_EQ(0, openpty(&master, &slave, nullptr, nullptr, nullptr));
    ProgressLine::Clock::time_point now;
    const auto clock = [&] { return now; };
    {
        ProgressLine line(slave, clock);
        line.update(1, 2, 0, 4 << 20);
        now += std::chrono::milliseconds(100);
        line.update(1, 2, 1 << 20, 4 << 20);  // too soon
        now += std::chrono::milliseconds(900);
        line.update(2, 2, 2 << 20, 4 << 20);
        now += std::chrono::milliseconds(100);
        line.update(2, 2, 3 << 20, 4 << 20);  // too soon, but the last
    }
    // The terminal turns the final "\n" into "\r\n".
    EXPECT_EQ(
        "\rfile 1/2  0 B/4.0 MiB  0%  --/s  --:--:-- left\x1b[K"
        "\rfile 2/2  2.0 MiB/4.0 MiB  50%  2.0 MiB/s  0:00:01 left\x1b[K"
        "\rfile 2/2  3.0 MiB/4.0 MiB  75%  2.7 MiB/s  0:00:00 left\x1b[K\r\n",
        drain(master));
    const winsize narrow = {12, 20, 0, 0};
    ASSERT_EQ(0, ioctl(slave, TIOCSWINSZ, &narrow));
    ProgressLine(slave, clock).update(1, 2, 0, 4 << 20);
    EXPECT_EQ("\rfile 1/2  0 B/4.0 M\x1b[K\r\n", drain(master));
    close(master);
    close(slave);
}

class CountingStatus : public XmlMigrationStatus {
  public:
    CountingStatus() : XmlMigrationStatus(theSession->getStatusFileName(), adminAccount()) {}
    void setTransferSpeed(const std::string& value) override { speed = value; }
    void setTransferSizeLeft(const std::string& value) override { sizeLeft = value; }
    void setTransferCurrentFileSizeLeft(const std::string& value) override { fileLeft = value; }
    void saveFile() override { ++saves; }
    std::string speed, sizeLeft, fileLeft;
    int saves = 0;
};

// Sizes past 4 GiB stay exact; a file already here counts as done but not as transferred (the
// speed); blocks are saved at most five times a second, however many arrive.
TEST(ProgressUpdater, CountsEveryBlockAndSavesAtMostFiveTimesASecond) {
    ASSERT_TRUE(testing::addSystemAccount("hmxadm"));
    testing::ScratchDir scratch;
    SessionLifetimeController session(scratch.path());  // the document saves there as it ends
    CountingStatus status;
    FileRetrievalProgressUpdater updater(&status, 5000000000LL);
    updater.startFile(3000000000LL);
    for (int i = 0; i < 1000; ++i) updater(65536);
    EXPECT_EQ("4934464000", status.sizeLeft);
    EXPECT_EQ("2934464000", status.fileLeft);
    updater.skip(1000);
    EXPECT_EQ("4934463000", status.sizeLeft);
    EXPECT_EQ(0, status.saves);
    sleep(1);
    updater(100);
    EXPECT_EQ("4934462900", status.sizeLeft);
    EXPECT_EQ(1, status.saves);
    // Whole seconds since the start: one or two have passed.
    EXPECT_TRUE(status.speed == "65536100" || status.speed == "32768050") << status.speed;
}

}  // namespace
}  // namespace tavik
