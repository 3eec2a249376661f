#include "ferrygate/progress_line.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <string>

namespace tavik {
namespace {

TEST(ProgressLine, FormatsUnitsRateAndTimeLeft) {
    const uint64_t MiB = 1 << 20;
    const struct {
        size_t file, files;
        uint64_t done, total;
        double rate;
        std::string line;
    } cases[] = {
        {1, 1, 0, 0, 0, "file 1/1  0 B/0 B  100%  --/s  0:00:00 left"},
        {3, 10, 512, 2048, 0, "file 3/10  512 B/2.0 KiB  25%  --/s  --:--:-- left"},
        {2, 2, 47413248, 120 * MiB, 12.5 * MiB,
         "file 2/2  45.2 MiB/120.0 MiB  37%  12.5 MiB/s  0:00:06 left"},
        // 1023.99 KiB is shown as the next unit up, never as "1024.0 KiB".
        {1, 9, MiB - 1, 3ull << 30, 1000,
         "file 1/9  1.0 MiB/3.0 GiB  0%  1000 B/s  894:29:37 left"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.line, formatProgress(c.file, c.files, c.done, c.total, c.rate));
    }
}

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

TEST(ProgressLine, RedrawsOneLineOnATerminalAndNothingElsewhere) {
    int master = -1, slave = -1;
    ASSERT_EQ(0, openpty(&master, &slave, nullptr, nullptr, nullptr));
    int pipeFds[2];
    ASSERT_EQ(0, pipe2(pipeFds, O_NONBLOCK));
    ProgressLine::Clock::time_point now;
    const auto clock = [&] { return now; };
    {
        ProgressLine line(slave, clock), silent(pipeFds[1], clock);
        for (ProgressLine* l : {&line, &silent}) l->update(1, 2, 0, 4 << 20);
        now += std::chrono::milliseconds(100);
        for (ProgressLine* l : {&line, &silent}) l->update(1, 2, 1 << 20, 4 << 20);  // too soon
        now += std::chrono::milliseconds(900);
        for (ProgressLine* l : {&line, &silent}) l->update(2, 2, 2 << 20, 4 << 20);
        now += std::chrono::milliseconds(100);
        for (ProgressLine* l : {&line, &silent}) l->update(2, 2, 3 << 20, 4 << 20);  // too soon
    }  // the destructors draw the last state and end the line
    // The terminal turns the final "\n" into "\r\n".
    EXPECT_EQ(
        "\rfile 1/2  0 B/4.0 MiB  0%  --/s  --:--:-- left\x1b[K"
        "\rfile 2/2  2.0 MiB/4.0 MiB  50%  2.0 MiB/s  0:00:01 left\x1b[K"
        "\rfile 2/2  3.0 MiB/4.0 MiB  75%  2.7 MiB/s  0:00:00 left\x1b[K\r\n",
        drain(master));
    EXPECT_EQ("", drain(pipeFds[0]));

    // A line as wide as the terminal would wrap and leave its first half behind.
    const winsize narrow = {12, 20, 0, 0};
    ASSERT_EQ(0, ioctl(slave, TIOCSWINSZ, &narrow));
    ProgressLine(slave, clock).update(1, 2, 0, 4 << 20);
    EXPECT_EQ("\rfile 1/2  0 B/4.0 M\x1b[K\r\n", drain(master));
    for (int fd : {master, slave, pipeFds[0], pipeFds[1]}) close(fd);
}

}  // namespace
}  // namespace tavik
