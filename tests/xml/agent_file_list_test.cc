#include "xml/agent_file_list.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>

#include <boost/lexical_cast.hpp>
#include <chrono>
#include <string>

#include "support/loopback.h"
#include "support/raised.h"

namespace tavik {
namespace {

// What the actions' content tests never show: sizes beyond 32 bits, entities in names, children
// that are no files, and sizes that are no numbers.
TEST(ContentList, FilesInDocumentOrderAndSizesThatAreNoNumbersRefused) {
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
}

// The source host is hostile: a list with a document type declaration is refused before anything
// it names is fetched, or anything it declares expanded (one entity of 100 KB referenced 10,000
// times would make a gigabyte).
TEST(ContentList, ADocumentTypeDeclarationIsRefusedBeforeAnythingIsFetchedOrExpanded) {
    testing::LoopbackSocket listener;
    const std::string url = "http://127.0.0.1:" + std::to_string(listener.port()) + "/";
    const std::string head = "<!DOCTYPE contentlist ";
    std::string flat = head + "[<!ENTITY e \"" + std::string(100 * 1024, 'x') +
                       "\">]><contentlist><file size=\"1\" md5sum=\"m\">";
    for (int i = 0; i < 10000; ++i) flat += "&e;";
    rusage before = {}, after = {};
    getrusage(RUSAGE_SELF, &before);
    const auto start = std::chrono::steady_clock::now();
    for (const std::string& list :
         {head + "SYSTEM \"" + url + "a.dtd\"><contentlist/>", flat + "</file></contentlist>"}) {
        EXPECT_NE(std::string::npos, testing::messageOf<&tError_ParseFile>([&] {
                                         getFileList(list);
                                     }).find("may not carry a document type declaration"));
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    getrusage(RUSAGE_SELF, &after);
    EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 32 * 1024) << "KiB more at the peak";
    pollfd contact{listener.fd(), POLLIN, 0};
    EXPECT_EQ(0, poll(&contact, 1, 0)) << "a document made the reader connect";
}

}  // namespace
}  // namespace tavik
