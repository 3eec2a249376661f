#include "xml/agent_file_list.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <boost/lexical_cast.hpp>
#include <string>

#include "commons/unique_fd.h"
#include "support/sandbox_env.h"

namespace tavik {
namespace {

// What the actions' content tests never show: sizes beyond 32 bits, entities in names, children
// that are no files, sizes that are no numbers, another root. A document type declaration is
// refused before anything it names is fetched (the fuzz corpus holds entities that would expand).
TEST(ContentList, FilesInDocumentOrderAndEverythingElseRefused) {
    const auto list = getFileList(
        "<contentlist>\n"
        "  <file size=\"9000000000\" md5sum=\"0123456789abcdef0123456789abcdef\">a/b.tgz</file>\n"
        "  <dir size=\"1\" md5sum=\"x\">ignored</dir><!-- note -->\n"
        "  <file md5sum=\"m\" size=\"-1\">c&amp;d</file>\n"
        "</contentlist>");
    std::string files;
    for (const DumpFile& f : list->getFileList())
        files += f.name + " " + std::to_string(f.size) + " " + f.md5 + "\n";
    EXPECT_EQ("a/b.tgz 9000000000 0123456789abcdef0123456789abcdef\nc&d -1 m\n", files);
    EXPECT_THROW(getFileList("<contentlist><file size=\"12k\" md5sum=\"m\">x</file></contentlist>"),
                 boost::bad_lexical_cast);
    EXPECT_THROW(getFileList("<contentlists/>"), Exc<&tError_WrongDoc>);

    // A listener at a loopback port the kernel picks, which the DTD names.
    const UniqueFd listener(socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ASSERT_EQ(0, bind(listener.get(), reinterpret_cast<sockaddr*>(&address), length));
    ASSERT_EQ(0, listen(listener.get(), 8));
    ASSERT_EQ(0, getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &length));
    const std::string dtd = "<!DOCTYPE contentlist SYSTEM \"http://127.0.0.1:" +
                            std::to_string(ntohs(address.sin_port)) + "/a.dtd\"><contentlist/>";
    EXPECT_NE(std::string::npos, testing::messageOf<&tError_ParseFile>([&] {
                                     getFileList(dtd);
                                 }).find("may not carry a document type declaration"));
    pollfd contact{listener.get(), POLLIN, 0};
    EXPECT_EQ(0, poll(&contact, 1, 0)) << "a document made the reader connect";
}

}  // namespace
}  // namespace tavik
