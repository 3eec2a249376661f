#include "commons/socket.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <log4cpp/Category.hh>

namespace tavik {

void rku_close(int fd) { close(fd); }

log4cpp::Category& Socket::logger = log4cpp::Category::getInstance("p.libssh2pp.Socket");

Socket::Socket(int fd) : fd_(fd) {}

Socket::~Socket() { logger.info("Connection closed"); }

in_addr Socket::gethostbyname(const std::string& host) {
    logger.info("Resolving " + host);
    const hostent* entry = ::gethostbyname(host.c_str());
    if (entry == nullptr || entry->h_addr_list[0] == nullptr) {
        const std::string reason = hstrerror(h_errno);
        logger.error("Unable to resolve " + host + ": " + reason);
        TAVIK_RAISE(HostNotFound, host, reason);
    }
    in_addr address;
    std::memcpy(&address, entry->h_addr_list[0], sizeof address);
    logger.info(host + " was resolved to " + inet_ntoa(address));
    return address;
}

void Socket::connect(const std::string& host, short port) {
    logger.info("Connecting to " + host + ":" + std::to_string(port));
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    // The port's 16 bits go out unchanged, whatever their sign as a short.
    address.sin_port = htons(static_cast<unsigned short>(port));
    address.sin_addr = gethostbyname(host);
    if (::connect(fd_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
        logger.info("Connected");
        // Each remote command ends with a short message that the server never answers (the
        // channel's close) followed at once by the next command's request; with Nagle's rule
        // that request waits for the delayed acknowledgement of the close, some 40 ms per
        // command. The protocol sends whole packets, so nothing is gained by holding them back.
        const int on = 1;
        if (setsockopt(fd_.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) != 0) {
            logger.warn(std::string("Cannot send small packets at once: ") + std::strerror(errno));
        }
        return;
    }
    const int error = errno;
    const std::string reason = std::strerror(error);
    logger.error("Unable to open socket to " + host + ":" + std::to_string(port) + ": " + reason);
    switch (error) {
        case ETIMEDOUT:
            TAVIK_RAISE(ConnectionTimedOut, host);
        case ENETUNREACH:
            TAVIK_RAISE(NetworkUnreachable, host);
        case ECONNREFUSED:
            TAVIK_RAISE(ConnectionRefused, host);
        case EHOSTUNREACH:
            TAVIK_RAISE(HostUnreachable, host);
        default:
            TAVIK_RAISE(ConnectionFault, host, reason);
    }
}

}  // namespace tavik
