// The one TCP connection to the source host's SSH server.
#ifndef FERRYGATE_COMMONS_SOCKET_H
#define FERRYGATE_COMMONS_SOCKET_H

#include <netinet/in.h>

#include <string>

#include "commons/handle.h"

namespace log4cpp {
class Category;
}

namespace tavik {

// Closes a descriptor; the release function of descriptor handles.
void rku_close(int fd);

// Owns a descriptor made by socket(AF_INET, SOCK_STREAM, 0) and connects it once. A Socket is
// never reconnected: a second attempt needs a new Socket. The descriptor is closed on destruction,
// connected or not.
class Socket {
  public:
    // Takes ownership of `fd`; -1 (a failed socket()) throws InvalidHandle.
    explicit Socket(int fd);
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    virtual ~Socket();

    // The first IPv4 address of `host` (a dotted address passes through unchanged). Throws
    // HostNotFound with the resolver's text.
    static in_addr gethostbyname(const std::string& host);

    // Resolves `host` and connects with one blocking connect (the system's time-out applies).
    // Throws HostNotFound, ConnectionTimedOut, NetworkUnreachable, ConnectionRefused,
    // HostUnreachable or ConnectionFault; every message names `host` as given.
    void connect(const std::string& host, short port);

    int descriptor() const { return fd_.get(); }

    static log4cpp::Category& logger;

  private:
    Handle<int, rku_close, FdValidationPolicy> fd_;
};

}  // namespace tavik

#endif  // FERRYGATE_COMMONS_SOCKET_H
