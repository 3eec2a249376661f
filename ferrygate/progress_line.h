// A transfer's progress for a person at a terminal: one line redrawn in place.
#ifndef FERRYGATE_FERRYGATE_PROGRESS_LINE_H
#define FERRYGATE_FERRYGATE_PROGRESS_LINE_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace tavik {

// "file 3/10  45.2 MiB/120.0 MiB  37%  12.3 MiB/s  0:00:06 left"; a rate of 0 or less is not
// known yet and shows as "--".
std::string formatProgress(size_t fileIndex, size_t fileCount, uint64_t done, uint64_t total,
                           double bytesPerSecond);

// Draws formatProgress on `fd` after a carriage return, clearing the rest of the line, at most
// five times a second, with the rate averaged since the first update. Writes nothing at all
// when `fd` is not a terminal, so that a process reading the output sees no change. Drawing is
// best effort: a failed write is not reported. Not thread-safe; `fd` is not owned.
class ProgressLine {
  public:
    using Clock = std::chrono::steady_clock;
    explicit ProgressLine(int fd, std::function<Clock::time_point()> now = Clock::now);
    // Ends the line, as finish() does, so that a failure's message starts on a line of its own.
    ~ProgressLine();
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;

    // `fileIndex` counts from 1; `done` and `total` are bytes of the whole transfer.
    void update(size_t fileIndex, size_t fileCount, uint64_t done, uint64_t total);
    // Draws the last state if it is not shown yet and ends the line; nothing if nothing was
    // drawn. Idempotent.
    void finish();

  private:
    void draw(Clock::time_point now);

    const int fd_;
    const bool terminal_;
    const std::function<Clock::time_point()> now_;
    bool started_ = false;
    bool drawn_ = false;
    bool pending_ = false;  // an update since the last draw
    Clock::time_point start_, lastDraw_;
    uint64_t startBytes_ = 0;
    size_t fileIndex_ = 0, fileCount_ = 0;
    uint64_t done_ = 0, total_ = 0;
};

}  // namespace tavik

#endif  // FERRYGATE_FERRYGATE_PROGRESS_LINE_H
