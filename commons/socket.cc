#include "commons/socket.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <log4cpp/Category.hh>
#include <memory>

#include "commons/exceptions.h"

namespace tavik {

log4cpp::Category& Socket::logger = log4cpp::Category::getInstance("p.libssh2pp.Socket");

namespace {

struct FreeAddresses {
    void operator()(addrinfo* addresses) const { freeaddrinfo(addresses); }
};
typedef std::unique_ptr<addrinfo, FreeAddresses> Addresses;

std::string numericHost(const addrinfo& address) {
    char text[NI_MAXHOST] = "";
    getnameinfo(address.ai_addr, address.ai_addrlen, text, sizeof text, nullptr, 0, NI_NUMERICHOST);
    return text;
}

Addresses resolve(const std::string& host, unsigned short port) {
    Socket::logger.info("Resolving " + host);
    addrinfo hints = {};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* found = nullptr;
    const int rc = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
    Addresses addresses(found);
    if (rc != 0) {
        const std::string reason = rc == EAI_SYSTEM ? std::strerror(errno) : gai_strerror(rc);
        Socket::logger.error("Unable to resolve " + host + ": " + reason);
        TAVIK_RAISE(HostNotFound, host, reason);
    }
    std::string list;
    for (const addrinfo* a = addresses.get(); a != nullptr; a = a->ai_next) {
        list += (list.empty() ? "" : ", ") + numericHost(*a);
    }
    Socket::logger.info(host + " was resolved to " + list);
    return addresses;
}

}  // namespace

Socket::Socket(const std::string& host, unsigned short port, Clock::time_point deadline) {
    const Addresses addresses = resolve(host, port);
    int error = 0;
    for (const addrinfo* a = addresses.get(); a != nullptr; a = a->ai_next) {
        const std::string where = host + ":" + std::to_string(port) + " (" + numericHost(*a) + ")";
        logger.info("Connecting to " + where);
        error = connectTo(*a, deadline);
        if (error == 0) {
            logger.info("Connected");
            // Each remote command ends with a short message that the server never answers (the
            // channel's close) followed at once by the next command's request; with Nagle's rule
            // that request waits for the delayed acknowledgement of the close, some 40 ms per
            // command. The protocol sends whole packets, so nothing is gained by holding them.
            const int on = 1;
            if (setsockopt(fd_.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) != 0) {
                logger.warn(std::string("Cannot send small packets at once: ") +
                            std::strerror(errno));
            }
            return;
        }
        logger.error("Unable to open socket to " + where + ": " + std::strerror(error));
        fd_.reset();
        if (error == ETIMEDOUT && Clock::now() >= deadline) break;
    }
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
            TAVIK_RAISE(ConnectionFault, host, std::strerror(error));
    }
}

Socket::~Socket() { logger.info("Connection closed"); }

int Socket::connectTo(const addrinfo& address, Clock::time_point deadline) {
    // Non-blocking, so that the wait below is ours: a blocking connect waits minutes for an
    // address that never answers, and a signal would end it half-way.
    fd_ = UniqueFd(
        ::socket(address.ai_family, address.ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!fd_.valid()) return errno;
    logger.info("Socket created");
    if (::connect(fd_.get(), address.ai_addr, address.ai_addrlen) == 0) return 0;
    if (errno != EINPROGRESS) return errno;
    for (;;) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0) return ETIMEDOUT;
        pollfd entry = {fd_.get(), POLLOUT, 0};
        const int ready = ::poll(&entry, 1, static_cast<int>(std::min<long long>(left, INT_MAX)));
        if (ready < 0 && errno != EINTR) return errno;
        if (ready <= 0) continue;
        int error = 0;
        socklen_t size = sizeof error;
        if (getsockopt(fd_.get(), SOL_SOCKET, SO_ERROR, &error, &size) != 0) return errno;
        return error;
    }
}

}  // namespace tavik
