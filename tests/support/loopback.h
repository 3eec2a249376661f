// A TCP socket on 127.0.0.1, at a port the kernel picks, for tests that need a peer, a listener
// that counts contacts, or a port that nobody listens on.
#ifndef FERRYGATE_TESTS_SUPPORT_LOOPBACK_H
#define FERRYGATE_TESTS_SUPPORT_LOOPBACK_H

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>

namespace tavik {
namespace testing {

inline sockaddr_in loopbackAddress(uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

class LoopbackSocket {
  public:
    // Bound to `port` (0: one the kernel picks), and listening when `listening`; throws
    // std::runtime_error on failure.
    explicit LoopbackSocket(bool listening = true, uint16_t port = 0)
        : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address = loopbackAddress(port);
        socklen_t length = sizeof address;
        if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
            (listening && listen(fd_, 8) != 0) ||
            getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
            const std::string why = strerror(errno);
            if (fd_ >= 0) close(fd_);
            throw std::runtime_error("no loopback socket: " + why);
        }
        port_ = ntohs(address.sin_port);
    }
    ~LoopbackSocket() { close(fd_); }
    LoopbackSocket(const LoopbackSocket&) = delete;
    LoopbackSocket& operator=(const LoopbackSocket&) = delete;

    int fd() const { return fd_; }
    uint16_t port() const { return port_; }

  private:
    int fd_;
    uint16_t port_ = 0;
};

// A new socket connected to 127.0.0.1:`port`, which the caller closes; throws on failure.
inline int connectLoopback(uint16_t port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = loopbackAddress(port);
    if (fd < 0 || connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        const std::string why = strerror(errno);
        if (fd >= 0) close(fd);
        throw std::runtime_error("cannot connect to loopback port " + std::to_string(port) + ": " +
                                 why);
    }
    return fd;
}

}  // namespace testing
}  // namespace tavik

#endif  // FERRYGATE_TESTS_SUPPORT_LOOPBACK_H
