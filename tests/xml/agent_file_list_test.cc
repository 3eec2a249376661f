#include "xml/agent_file_list.h"

#include <gtest/gtest.h>

#include <boost/lexical_cast.hpp>
#include <string>

#include "support/raised.h"

namespace tavik {
namespace {

using testing::messageOf;

TEST(ContentList, FilesComeInDocumentOrderAndOtherChildrenAreIgnored) {
    const auto list = getFileList(
        "<contentlist size=\"18446744073709551615\" unpacked=\"3000\">\n"
        "  <file size=\"1024\" md5sum=\"0123456789abcdef0123456789abcdef\">a/b.tgz</file>\n"
        "  <dir size=\"1\" md5sum=\"x\">ignored</dir><!-- note -->\n"
        "  <file md5sum=\"d41d8cd98f00b204e9800998ecf8427e\" size=\"9000000000\">c&amp;d</file>\n"
        "</contentlist>");
    const std::vector<DumpFile>& files = list->getFileList();
    ASSERT_EQ(2u, files.size());
    EXPECT_EQ("a/b.tgz", files[0].name);
    EXPECT_EQ(1024, files[0].size);
    EXPECT_EQ("0123456789abcdef0123456789abcdef", files[0].md5);
    EXPECT_EQ("c&d", files[1].name);
    EXPECT_EQ(9000000000LL, files[1].size);
    EXPECT_EQ(18446744073709551615ULL, list->getTotalSize());
    EXPECT_EQ(3000u, list->getUnpackedSize());
}

TEST(ContentList, BadEntriesFailTheWholeList) {
    EXPECT_EQ("Node file does not have attribute md5sum", messageOf<&NoSuchAttribute>([] {
                  getFileList("<contentlist><file size=\"1\">x</file></contentlist>");
              }));
    EXPECT_THROW(getFileList("<contentlist><file size=\"12k\" md5sum=\"m\">x</file></contentlist>"),
                 boost::bad_lexical_cast);
    EXPECT_THROW(getFileList("<files/>"), Exc<&tError_WrongDoc>);
    const auto list = getFileList("<contentlist size=\"-1\"/>");
    EXPECT_THROW(list->getTotalSize(), boost::bad_lexical_cast);
    testing::caught<&NoSuchAttribute>([&] { list->getUnpackedSize(); });
}

}  // namespace
}  // namespace tavik
