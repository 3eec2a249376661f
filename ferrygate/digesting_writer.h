// Stores a download and sums it in one pass, off the thread that receives it.
#ifndef FERRYGATE_FERRYGATE_DIGESTING_WRITER_H
#define FERRYGATE_FERRYGATE_DIGESTING_WRITER_H

#include <condition_variable>
#include <deque>
#include <mutex>
#include <ostream>
#include <streambuf>
#include <thread>
#include <utility>
#include <vector>

#include "commons/checksum.h"
#include "ssh/io_channels.h"

namespace tavik {

// A stream buffer that collects what is written (or read into it) into large blocks and hands each
// to a second thread, which adds it to `digest` and writes it to `file`: decryption, checksum and
// disk proceed side by side. A few blocks may wait for that thread, so that a moment when it has
// no core (the server often shares them) does not stop the download; memory stays at those blocks.
// `file` and `digest` are not owned and must not be touched until finish() has returned.
class DigestingWriter : public LendingBuffer {
  public:
    DigestingWriter(std::ostream& file, Md5& digest);
    ~DigestingWriter() override;
    DigestingWriter(const DigestingWriter&) = delete;
    DigestingWriter& operator=(const DigestingWriter&) = delete;

    // Waits until everything written has been summed and stored; false when `file` refused a
    // write.
    bool finish();

  protected:
    int overflow(int c) override;

  private:
    void handOver();
    void work();

    std::ostream& file_;
    Md5& digest_;
    std::vector<std::vector<char>> blocks_;
    size_t filling_ = 0;
    // Blocks free to fill, and blocks filled with their sizes, oldest first.
    std::vector<size_t> free_;
    std::deque<std::pair<size_t, size_t>> full_;
    std::mutex mutex_;
    std::condition_variable changed_;
    bool stopping_ = false;
    bool failed_ = false;
    std::thread worker_;
};

}  // namespace tavik

#endif  // FERRYGATE_FERRYGATE_DIGESTING_WRITER_H
