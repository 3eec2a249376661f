// A TCP socket on 127.0.0.1, at a port the kernel picks, for tests that need a peer, a listener
// that counts contacts, or a port that nobody listens on.
#ifndef FERRYGATE_TESTS_SUPPORT_LOOPBACK_H
#define FERRYGATE_TESTS_SUPPORT_LOOPBACK_H

#include <cstdint>

namespace tavik {
namespace testing {

class LoopbackSocket {
  public:
    // Bound, and listening when `listening`; throws std::runtime_error on failure.
    explicit LoopbackSocket(bool listening = true);
    ~LoopbackSocket();
    LoopbackSocket(const LoopbackSocket&) = delete;
    LoopbackSocket& operator=(const LoopbackSocket&) = delete;

    int fd() const { return fd_; }
    uint16_t port() const { return port_; }

  private:
    int fd_;
    uint16_t port_ = 0;
};

// A new socket connected to 127.0.0.1:`port`, which the caller closes; throws on failure.
int connectLoopback(uint16_t port);

}  // namespace testing
}  // namespace tavik

#endif  // FERRYGATE_TESTS_SUPPORT_LOOPBACK_H
