#include <gtest/gtest.h>

#include <string>

#include "support/raised.h"
#include "support/sandbox_env.h"
#include "xml/xml_wrap.h"

namespace tavik {
namespace {

using testing::messageOf;

TEST(XmlDocument, FailuresNameTheSourceAndWhatWasExpected) {
    testing::ScratchDir dir;
    EXPECT_EQ(
        "The XML file does not exist or is not a regular file. Check the file '" + dir.path() + "'",
        messageOf<&tError_WrongInputFile>([&] { tXmlDocument(dir.path().c_str()); }));

    // Every fragment libxml2 emits loses its last character, line breaks included.
    const std::string bad = dir.path() + "/bad.xml";
    testing::writeTextFile(bad, "<r><open></r>");
    const std::string message = messageOf<&tError_ParseFile>([&] { tXmlDocument(bad.c_str()); });
    const std::string head = "The XML file " + bad +
                             " was not parsed successfully with the following errors:\n" + bad +
                             ":1:parsererror :Opening and ending tag mismatch";
    EXPECT_EQ(head, message.substr(0, head.size()));
    EXPECT_EQ(std::string::npos, message.find('\n', head.size())) << message;
    EXPECT_EQ(0u, messageOf<&tError_ParseFile>([] {
                      tXmlDocument(std::string("no"));
                  }).find("The XML file - was not parsed successfully"));

    tXmlRkuDocument doc(std::string("<found><a x=\"1\"/></found>"));
    EXPECT_EQ("The document has the wrong type, root node is <found>, but <Found> was expected",
              messageOf<&tError_WrongDoc>([&] { doc.initFileDoc("Found"); }));
    EXPECT_EQ("The document is empty. Can not find root element <wanted>",
              messageOf<&tError_EmptyDoc>([] { tXmlRkuDocument().initFileDoc("wanted"); }));
    doc.initFileDoc("found");
    EXPECT_EQ("Can not find 'b' element in 'found' element.",
              messageOf<&tError_WrongContent>([&] { doc.getRootNodeChild("b"); }));
}

}  // namespace
}  // namespace tavik
