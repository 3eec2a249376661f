#include "xml/agent_file_list.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <boost/lexical_cast.hpp>
#include <string>

#include "support/loopback.h"
#include "support/raised.h"

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

    testing::LoopbackSocket listener;
    const std::string dtd =
        "<!DOCTYPE contentlist SYSTEM \"http://127.0.0.1:" + std::to_string(listener.port()) +
        "/a.dtd\"><contentlist/>";
    EXPECT_NE(std::string::npos, testing::messageOf<&tError_ParseFile>([&] {
                                     getFileList(dtd);
                                 }).find("may not carry a document type declaration"));
    pollfd contact{listener.fd(), POLLIN, 0};
    EXPECT_EQ(0, poll(&contact, 1, 0)) << "a document made the reader connect";
}

}  // namespace
}  // namespace tavik
