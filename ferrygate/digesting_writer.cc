#include "ferrygate/digesting_writer.h"

#include <cstring>

namespace tavik {

namespace {
// Large enough that a disk write and a digest update are worth a thread hand-over each.
const size_t kBlock = 256 << 10;
}  // namespace

DigestingWriter::DigestingWriter(std::ostream& file, Md5& digest)
    : file_(file), digest_(digest), filling_(kBlock), pending_(kBlock), worker_([this] {
          work();
      }) {
    setp(filling_.data(), filling_.data() + filling_.size());
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
    changed_.wait(lock, [this] { return !hasPending_; });
    pendingSize_ = static_cast<size_t>(pptr() - pbase());
    filling_.swap(pending_);
    setp(filling_.data(), filling_.data() + filling_.size());
    hasPending_ = true;
    changed_.notify_all();
}

void DigestingWriter::work() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        changed_.wait(lock, [this] { return hasPending_ || stopping_; });
        if (!hasPending_) return;
        lock.unlock();
        // Only this thread touches the block, the digest and the file until it hands back.
        digest_.update(pending_.data(), pendingSize_);
        const bool written = static_cast<bool>(
            file_.write(pending_.data(), static_cast<std::streamsize>(pendingSize_)));
        lock.lock();
        if (!written) failed_ = true;
        hasPending_ = false;
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
