// The socket's failure kinds against real addresses on this machine, and the handle beneath it.
#include "commons/socket.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include "commons/handle.h"
#include "support/loopback.h"
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

TEST(Socket, EachFailureHasItsKindTextAndPlace) {
    const std::string connect = "void tavik::Socket::connect(const std::string&, short int)";
    const short closed = static_cast<short>(testing::LoopbackSocket(false).port());
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
    testing::LoopbackSocket listener;
    const short port = static_cast<short>(listener.port());
    Socket socket(::socket(AF_INET, SOCK_STREAM, 0));
    socket.connect("127.0.0.1", port);
    EXPECT_EQ("Unable to connect to host 127.0.0.1: Transport endpoint is already connected",
              caught<&ConnectionFault>([&] { socket.connect("127.0.0.1", port); }).message());
}

}  // namespace
}  // namespace tavik
