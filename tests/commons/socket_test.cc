// The socket's failure kinds against real addresses on this machine, and the handle beneath it.
#include "commons/socket.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "commons/handle.h"

namespace tavik {
namespace {

int releases = 0;
void countRelease(int) { ++releases; }

TEST(Handle, ReleasesAValidValueOnceAndRefusesAnInvalidOne) {
    releases = 0;
    { Handle<int, countRelease, FdValidationPolicy> owned(0); }
    EXPECT_EQ(1, releases);
    try {
        Handle<int, countRelease, FdValidationPolicy> refused(-1);
        FAIL() << "-1 is no descriptor";
    } catch (const Exc<&InvalidHandle>& e) {
        EXPECT_EQ("Invalid handle passed", e.message());
        EXPECT_NE(std::string::npos, e.context().find("Handle"));
    }
    EXPECT_EQ(1, releases) << "nothing is owned after a refusal";
    EXPECT_THROW((Handle<char*, DefaultDestructionFunc<char*>>(nullptr)), Exc<&InvalidHandle>);
    EXPECT_THROW(Socket(-1), Exc<&InvalidHandle>);
}

// A free port on 127.0.0.1, nobody listening: bound and closed again at once.
unsigned short closedPort() {
    Socket probe(::socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(probe.descriptor(), reinterpret_cast<sockaddr*>(&address), sizeof address);
    socklen_t length = sizeof address;
    getsockname(probe.descriptor(), reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

TEST(Socket, ClosedPortIsConnectionRefusedNamingTheHostAsGiven) {
    Socket socket(::socket(AF_INET, SOCK_STREAM, 0));
    try {
        socket.connect("127.0.0.1", static_cast<short>(closedPort()));
        FAIL() << "nobody listens there";
    } catch (const Exc<&ConnectionRefused>& e) {
        EXPECT_EQ("No one listening on the remote address at host 127.0.0.1", e.message());
        EXPECT_EQ("void tavik::Socket::connect(const std::string&, short int)", e.context());
    }
}

TEST(Socket, UnknownNameIsHostNotFoundWithTheResolversText) {
    Socket socket(::socket(AF_INET, SOCK_STREAM, 0));
    try {
        socket.connect("no-such-host.invalid", 22);
        FAIL() << "the .invalid domain never resolves";
    } catch (const Exc<&HostNotFound>& e) {
        // The resolver's text depends on how this machine looks names up.
        const std::string prefix = "Unable to resolve hostname no-such-host.invalid: ";
        EXPECT_EQ(prefix, e.message().substr(0, prefix.size()));
        EXPECT_GT(e.message().size(), prefix.size());
        EXPECT_EQ("static in_addr tavik::Socket::gethostbyname(const std::string&)", e.context());
    }
}

TEST(Socket, OtherErrorsAreConnectionFaultsWithTheSystemsText) {
    Socket listener(::socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(0,
              bind(listener.descriptor(), reinterpret_cast<sockaddr*>(&address), sizeof address));
    ASSERT_EQ(0, listen(listener.descriptor(), 1));
    socklen_t length = sizeof address;
    getsockname(listener.descriptor(), reinterpret_cast<sockaddr*>(&address), &length);

    Socket socket(::socket(AF_INET, SOCK_STREAM, 0));
    socket.connect("127.0.0.1", static_cast<short>(ntohs(address.sin_port)));
    // Connecting twice fails with EISCONN, which has no kind of its own.
    try {
        socket.connect("127.0.0.1", static_cast<short>(ntohs(address.sin_port)));
        FAIL() << "a socket connects once";
    } catch (const Exc<&ConnectionFault>& e) {
        EXPECT_EQ("Unable to connect to host 127.0.0.1: Transport endpoint is already connected",
                  e.message());
    }
}

}  // namespace
}  // namespace tavik
