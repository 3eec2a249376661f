// The socket's failure kinds against real addresses on this machine, and the handle beneath it.
#include "commons/socket.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "commons/handle.h"
#include "support/raised.h"

namespace tavik {
namespace {

using testing::caught;

int releases = 0;
void countRelease(int) { ++releases; }

TEST(Handle, ReleasesAValidValueOnceAndRefusesAnInvalidOne) {
    releases = 0;
    { Handle<int, countRelease, FdValidationPolicy> owned(0); }
    EXPECT_EQ(1, releases);
    const auto e =
        caught<&InvalidHandle>([] { Handle<int, countRelease, FdValidationPolicy>(-1); });
    EXPECT_EQ("Invalid handle passed", e.message());
    EXPECT_NE(std::string::npos, e.context().find("Handle"));
    EXPECT_EQ(1, releases) << "nothing is owned after a refusal";
    EXPECT_THROW((Handle<char*, DefaultDestructionFunc<char*>>(nullptr)), Exc<&InvalidHandle>);
    EXPECT_THROW(Socket(-1), Exc<&InvalidHandle>);
}

// A port on 127.0.0.1 bound to `s`, listening when `listening`.
short boundPort(const Socket& s, bool listening) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(0, bind(s.descriptor(), reinterpret_cast<sockaddr*>(&address), sizeof address));
    if (listening) {
        EXPECT_EQ(0, listen(s.descriptor(), 1));
    }
    socklen_t length = sizeof address;
    getsockname(s.descriptor(), reinterpret_cast<sockaddr*>(&address), &length);
    return static_cast<short>(ntohs(address.sin_port));
}

TEST(Socket, EachFailureHasItsKindTextAndPlace) {
    const std::string connect = "void tavik::Socket::connect(const std::string&, short int)";
    short closed = 0;
    {
        Socket probe(::socket(AF_INET, SOCK_STREAM, 0));
        closed = boundPort(probe, false);
    }
    Socket refused(::socket(AF_INET, SOCK_STREAM, 0));
    auto e = caught<&ConnectionRefused>([&] { refused.connect("127.0.0.1", closed); });
    EXPECT_EQ("No one listening on the remote address at host 127.0.0.1", e.message());
    EXPECT_EQ(connect, e.context());

    // The resolver's text depends on how this machine looks names up.
    Socket unknown(::socket(AF_INET, SOCK_STREAM, 0));
    const auto notFound = caught<&HostNotFound>([&] { unknown.connect("no-such.invalid", 22); });
    const std::string prefix = "Unable to resolve hostname no-such.invalid: ";
    EXPECT_EQ(prefix, notFound.message().substr(0, prefix.size()));
    EXPECT_GT(notFound.message().size(), prefix.size());
    EXPECT_EQ("static in_addr tavik::Socket::gethostbyname(const std::string&)",
              notFound.context());

    // Connecting twice fails with EISCONN, which has no kind of its own.
    Socket listener(::socket(AF_INET, SOCK_STREAM, 0));
    const short port = boundPort(listener, true);
    Socket socket(::socket(AF_INET, SOCK_STREAM, 0));
    socket.connect("127.0.0.1", port);
    EXPECT_EQ("Unable to connect to host 127.0.0.1: Transport endpoint is already connected",
              caught<&ConnectionFault>([&] { socket.connect("127.0.0.1", port); }).message());
}

}  // namespace
}  // namespace tavik
