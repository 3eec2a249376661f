#include "ferrygate/digesting_writer.h"

#include <algorithm>
#include <cstring>

namespace tavik {

namespace {
// Large enough that a disk write and a digest update are worth a thread hand-over each.
const size_t kBlock = 256 << 10;
}  // namespace

DigestingWriter::DigestingWriter(std::ostream& file, Md5& digest)
    : file_(file), digest_(digest), worker_([this] { work(); }) {
    filling_.reserve(kBlock);
    pending_.reserve(kBlock);
}

DigestingWriter::~DigestingWriter() { finish(); }

std::streamsize DigestingWriter::xsputn(const char* data, std::streamsize size) {
    std::streamsize left = size;
    while (left > 0) {
        const size_t take = std::min(static_cast<size_t>(left), kBlock - filling_.size());
        filling_.insert(filling_.end(), data, data + take);
        data += take;
        left -= static_cast<std::streamsize>(take);
        if (filling_.size() == kBlock) handOver();
    }
    return size;
}

int DigestingWriter::overflow(int c) {
    if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
    const char byte = traits_type::to_char_type(c);
    xsputn(&byte, 1);
    return c;
}

void DigestingWriter::handOver() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return !hasPending_; });
    filling_.swap(pending_);
    filling_.clear();
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
        digest_.update(pending_.data(), pending_.size());
        const bool written = static_cast<bool>(
            file_.write(pending_.data(), static_cast<std::streamsize>(pending_.size())));
        lock.lock();
        if (!written) failed_ = true;
        hasPending_ = false;
        changed_.notify_all();
    }
}

bool DigestingWriter::finish() {
    if (worker_.joinable()) {
        if (!filling_.empty()) handOver();
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
