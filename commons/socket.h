// The one TCP connection to the source host's SSH server.
#ifndef FERRYGATE_COMMONS_SOCKET_H
#define FERRYGATE_COMMONS_SOCKET_H

#include <chrono>
#include <string>

#include "commons/unique_fd.h"

struct addrinfo;

namespace log4cpp {
class Category;
}

namespace tavik {

// A connected TCP socket, closed on destruction. A Socket is never reconnected: a second attempt
// needs a new Socket.
class Socket {
  public:
    using Clock = std::chrono::steady_clock;

    // Resolves `host` (a name, or a literal address of either family) and tries its addresses in
    // turn until one accepts. An attempt still unanswered at `deadline` has timed out, and no
    // further address is tried. A signal does not end an attempt. Throws HostNotFound with the
    // resolver's text, or, by the error of the last address tried, ConnectionTimedOut,
    // NetworkUnreachable, ConnectionRefused, HostUnreachable or ConnectionFault; every message
    // names `host` as given.
    Socket(const std::string& host, unsigned short port, Clock::time_point deadline);
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    virtual ~Socket();

    int descriptor() const { return fd_.get(); }

    static log4cpp::Category& logger;

  private:
    // Connects a new socket of the address's family: 0, or the errno of the failure.
    int connectTo(const addrinfo& address, Clock::time_point deadline);

    UniqueFd fd_;
};

}  // namespace tavik

#endif  // FERRYGATE_COMMONS_SOCKET_H
