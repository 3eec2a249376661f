#include "ferrygate/digesting_writer.h"

namespace tavik {

namespace {
// Large enough that a disk write and a digest update are worth a thread hand-over each.
const size_t kBlock = 256 << 10;
const size_t kBlocks = 8;
}  // namespace

DigestingWriter::DigestingWriter(std::ostream& file, Md5& digest)
    : file_(file), digest_(digest), blocks_(kBlocks, std::vector<char>(kBlock)) {
    for (size_t block = 1; block < kBlocks; ++block) free_.push_back(block);
    setp(blocks_[0].data(), blocks_[0].data() + kBlock);
    worker_ = std::thread([this] { work(); });
}

DigestingWriter::~DigestingWriter() { finish(); }

int DigestingWriter::overflow(int c) {
    if (pptr() == epptr()) handOver();
    if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
    *pptr() = traits_type::to_char_type(c);
    pbump(1);
    return c;
}

void DigestingWriter::handOver() {
    std::unique_lock<std::mutex> lock(mutex_);
    full_.emplace_back(filling_, static_cast<size_t>(pptr() - pbase()));
    changed_.notify_all();
    changed_.wait(lock, [this] { return !free_.empty(); });
    filling_ = free_.back();
    free_.pop_back();
    setp(blocks_[filling_].data(), blocks_[filling_].data() + kBlock);
}

void DigestingWriter::work() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        changed_.wait(lock, [this] { return !full_.empty() || stopping_; });
        if (full_.empty()) return;
        const std::pair<size_t, size_t> block = full_.front();
        full_.pop_front();
        lock.unlock();
        // Only this thread touches a filled block, the digest and the file.
        const char* data = blocks_[block.first].data();
        digest_.update(data, block.second);
        const bool written =
            static_cast<bool>(file_.write(data, static_cast<std::streamsize>(block.second)));
        lock.lock();
        if (!written) failed_ = true;
        free_.push_back(block.first);
        changed_.notify_all();
    }
}

bool DigestingWriter::finish() {
    if (worker_.joinable()) {
        if (pptr() != pbase()) handOver();
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stopping_ = true;
            changed_.notify_all();
        }
        worker_.join();
    }
    return !failed_;
}

}  // namespace tavik
