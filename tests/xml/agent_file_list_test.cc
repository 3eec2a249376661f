#include "xml/agent_file_list.h"

#include <gtest/gtest.h>

#include <boost/lexical_cast.hpp>
#include <string>

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

}  // namespace
}  // namespace tavik
