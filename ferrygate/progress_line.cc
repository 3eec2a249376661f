#include "ferrygate/progress_line.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <utility>

namespace tavik {

namespace {

const auto kRedrawInterval = std::chrono::milliseconds(200);

std::string humanBytes(uint64_t bytes) {
    static const char* const kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    if (bytes < 1024) return std::to_string(bytes) + " B";
    double value = static_cast<double>(bytes);
    size_t unit = 0;
    // 1023.96 KiB would print as "1024.0 KiB".
    while (value >= 1023.95 && unit + 1 < sizeof kUnits / sizeof kUnits[0]) {
        value /= 1024;
        ++unit;
    }
    char text[32];
    snprintf(text, sizeof text, "%.1f %s", value, kUnits[unit]);
    return text;
}

std::string clockTime(uint64_t seconds) {
    char text[32];
    snprintf(text, sizeof text, "%llu:%02u:%02u", static_cast<unsigned long long>(seconds / 3600),
             static_cast<unsigned>(seconds / 60 % 60), static_cast<unsigned>(seconds % 60));
    return text;
}

}  // namespace

std::string formatProgress(size_t fileIndex, size_t fileCount, uint64_t done, uint64_t total,
                           double bytesPerSecond) {
    const uint64_t left = done < total ? total - done : 0;
    const unsigned percent =
        total == 0 ? 100 : static_cast<unsigned>(static_cast<double>(total - left) * 100 / total);
    std::string line = "file " + std::to_string(fileIndex) + "/" + std::to_string(fileCount) +
                       "  " + humanBytes(done) + "/" + humanBytes(total) + "  " +
                       std::to_string(percent) + "%  ";
    if (bytesPerSecond > 0) {
        line += humanBytes(static_cast<uint64_t>(bytesPerSecond)) + "/s  " +
                clockTime(static_cast<uint64_t>(left / bytesPerSecond + 0.5)) + " left";
    } else {
        line += left == 0 ? "--/s  0:00:00 left" : "--/s  --:--:-- left";
    }
    return line;
}

ProgressLine::ProgressLine(int fd, std::function<Clock::time_point()> now)
    : fd_(fd), terminal_(isatty(fd) == 1), now_(std::move(now)) {}

ProgressLine::~ProgressLine() { finish(); }

void ProgressLine::update(size_t fileIndex, size_t fileCount, uint64_t done, uint64_t total) {
    if (!terminal_) return;
    const Clock::time_point now = now_();
    if (!started_) {
        started_ = true;
        start_ = now;
        startBytes_ = done;
    }
    fileIndex_ = fileIndex;
    fileCount_ = fileCount;
    done_ = done;
    total_ = total;
    if (drawn_ && now - lastDraw_ < kRedrawInterval) {
        pending_ = true;
        return;
    }
    lastDraw_ = now;
    draw(now);
}

void ProgressLine::finish() {
    if (!drawn_) return;
    if (pending_) draw(now_());
    drawn_ = false;
    started_ = false;
    const char newline = '\n';
    while (write(fd_, &newline, 1) < 0 && errno == EINTR) {
    }
}

void ProgressLine::draw(Clock::time_point now) {
    const double seconds = std::chrono::duration<double>(now - start_).count();
    // Bytes already there when the line started (a resumed download) are not this run's rate.
    const double rate =
        seconds > 0 && done_ > startBytes_ ? static_cast<double>(done_ - startBytes_) / seconds : 0;
    std::string line = formatProgress(fileIndex_, fileCount_, done_, total_, rate);
    // A line as wide as the terminal wraps, and the next carriage return would then rewrite
    // only its second half.
    winsize size = {};
    if (ioctl(fd_, TIOCGWINSZ, &size) == 0 && size.ws_col > 1 && line.size() >= size.ws_col) {
        line.resize(size.ws_col - 1);
    }
    line = "\r" + line + "\x1b[K";
    for (size_t written = 0; written < line.size();) {
        const ssize_t n = write(fd_, line.data() + written, line.size() - written);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        written += static_cast<size_t>(n);
    }
    drawn_ = true;
    pending_ = false;
}

}  // namespace tavik
