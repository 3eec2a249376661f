// A TCP listener on 127.0.0.1, at a port the kernel picks, for tests that need a peer that
// counts contacts.
#ifndef FERRYGATE_TESTS_SUPPORT_LOOPBACK_H
#define FERRYGATE_TESTS_SUPPORT_LOOPBACK_H

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <stdexcept>

#include "commons/unique_fd.h"

namespace tavik {
namespace testing {

class LoopbackSocket {
  public:
    // Throws std::runtime_error when there is no such socket.
    LoopbackSocket() : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        if (!fd_.valid() || bind(fd_.get(), reinterpret_cast<sockaddr*>(&address), length) != 0 ||
            listen(fd_.get(), 8) != 0 ||
            getsockname(fd_.get(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
            throw std::runtime_error("no loopback socket");
        }
        port_ = ntohs(address.sin_port);
    }

    int fd() const { return fd_.get(); }
    uint16_t port() const { return port_; }

  private:
    UniqueFd fd_;
    uint16_t port_ = 0;
};

}  // namespace testing
}  // namespace tavik

#endif  // FERRYGATE_TESTS_SUPPORT_LOOPBACK_H
