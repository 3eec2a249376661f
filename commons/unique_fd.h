// The one owner of a file descriptor.
#ifndef FERRYGATE_COMMONS_UNIQUE_FD_H
#define FERRYGATE_COMMONS_UNIQUE_FD_H

#include <sys/types.h>
#include <unistd.h>

#include <utility>

namespace tavik {

// Owns a descriptor from the call that made it (-1: none). close() reports the result where the
// data matter; the destructor closes silently, since an explicit close already reported it.
class UniqueFd {
  public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other) {
            reset();
            fd_ = std::exchange(other.fd_, -1);
        }
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd() { reset(); }

    bool valid() const { return fd_ >= 0; }
    int get() const { return fd_; }
    // Closes now; the result of close(2), 0 when there was nothing to close.
    int close() { return fd_ < 0 ? 0 : ::close(std::exchange(fd_, -1)); }
    void reset() { close(); }
    int release() { return std::exchange(fd_, -1); }

  private:
    int fd_ = -1;
};

// Sets the process umask for one scope and restores the previous one.
class UmaskScope {
  public:
    explicit UmaskScope(mode_t mask);
    ~UmaskScope();
    UmaskScope(const UmaskScope&) = delete;
    UmaskScope& operator=(const UmaskScope&) = delete;

  private:
    mode_t previous_;
};

}  // namespace tavik

#endif  // FERRYGATE_COMMONS_UNIQUE_FD_H
