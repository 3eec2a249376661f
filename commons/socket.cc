#include "commons/socket.h"

#include <arpa/inet.h>
#include <netdb.h>
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
