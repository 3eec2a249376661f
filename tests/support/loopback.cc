#include "support/loopback.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

namespace tavik {
namespace testing {

namespace {

sockaddr_in loopback(uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

}  // namespace

LoopbackSocket::LoopbackSocket(bool listening)
    : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address = loopback(0);
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

LoopbackSocket::~LoopbackSocket() { close(fd_); }

int connectLoopback(uint16_t port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = loopback(port);
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
