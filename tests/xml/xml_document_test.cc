#include <fcntl.h>
#include <gtest/gtest.h>
#include <libxml/globals.h>
#include <unistd.h>

#include <sstream>
#include <string>

#include "support/raised.h"
#include "support/sandbox_env.h"
#include "xml/xml_parse.h"
#include "xml/xml_wrap.h"

namespace tavik {
namespace {

using testing::messageOf;
using testing::ScratchDir;
using testing::writeTextFile;

std::string savedText(tXmlDocument doc) {
    std::ostringstream out;
    doc.saveToStream(out);
    return out.str();
}

TEST(XmlErrorCollector, EachMessageLosesItsLastCharacter) {
    tXmlErrorCollector errors;
    xmlGenericError(xmlGenericErrorContext, "abc\n");
    xmlGenericError(xmlGenericErrorContext, "line %d: %s.\n", 7, "bad");
    xmlGenericError(xmlGenericErrorContext, "x");
    EXPECT_EQ("abcline 7: bad.", errors.text());
}

TEST(XmlDocumentReading, FileMemoryAndStandardInputGiveTheSameTree) {
    ScratchDir dir;
    const std::string file = dir.path() + "/in.xml";
    writeTextFile(file, "<?xml version=\"1.0\"?>\n<r a=\"1\">t&amp;x<c/></r>\n");
    const int saved = dup(0);
    const int fd = open(file.c_str(), O_RDONLY);
    ASSERT_EQ(0, dup2(fd, 0));
    const std::string fromStdin = savedText(tXmlDocument("-"));
    dup2(saved, 0);
    close(fd);
    close(saved);

    const std::string expected =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<r a=\"1\">t&amp;x<c/></r>\n";
    EXPECT_EQ(expected, fromStdin);
    EXPECT_EQ(expected, savedText(tXmlDocument(file.c_str())));
    EXPECT_EQ(expected, savedText(tXmlDocument(testing::readFile(file))));
}

TEST(XmlDocumentReading, FailuresNameTheSourceAndCarryTheParserMessages) {
    ScratchDir dir;
    EXPECT_THROW(tXmlDocument(static_cast<const char*>(nullptr)), Exc<&AssertionFailed>);
    EXPECT_THROW(tXmlDocument(""), Exc<&AssertionFailed>);
    EXPECT_THROW(tXmlDocument(std::string()), Exc<&AssertionFailed>);
    EXPECT_EQ(
        "The XML file does not exist or is not a regular file. Check the file '" + dir.path() + "'",
        messageOf<&tError_WrongInputFile>([&] { tXmlDocument(dir.path().c_str()); }));

    // Every fragment libxml2 emits loses its last character, line breaks included.
    const std::string bad = dir.path() + "/bad.xml";
    writeTextFile(bad, "<r><open></r>");
    const std::string message = messageOf<&tError_ParseFile>([&] { tXmlDocument(bad.c_str()); });
    const std::string head = "The XML file " + bad +
                             " was not parsed successfully with the following errors:\n" + bad +
                             ":1:parsererror :Opening and ending tag mismatch";
    EXPECT_EQ(head, message.substr(0, head.size()));
    EXPECT_EQ(std::string::npos, message.find('\n', head.size())) << message;
    EXPECT_EQ(0u, messageOf<&tError_ParseFile>([] {
                      tXmlDocument(std::string("no"));
                  }).find("The XML file - was not parsed successfully"));
}

TEST(XmlRkuDocument, RootAndContentChecksNameWhatTheyExpected) {
    tXmlRkuDocument doc(std::string("<found><a x=\"1\"/></found>"));
    EXPECT_EQ("The document has the wrong type, root node is <found>, but <Found> was expected",
              messageOf<&tError_WrongDoc>([&] { doc.initFileDoc("Found"); }));
    EXPECT_EQ("The document is empty. Can not find root element <wanted>",
              messageOf<&tError_EmptyDoc>([] { tXmlRkuDocument().initFileDoc("wanted"); }));
    doc.initFileDoc("found");
    EXPECT_EQ("Can not find 'b' element in 'found' element.",
              messageOf<&tError_WrongContent>([&] { doc.getRootNodeChild("b"); }));
    xmlNode* a = doc.getRootNodeChild("a");
    EXPECT_EQ("1", doc.getAttribute(a, "x"));
    EXPECT_EQ("Node a does not have attribute y",
              messageOf<&NoSuchAttribute>([&] { doc.getAttribute(a, "y"); }));
    EXPECT_EQ("", doc.getNodeText(a));
}

TEST(XmlRkuDocument, BuiltTreesEscapeTextAndEntitiesAreSubstitutedOnReading) {
    tXmlRkuDocument doc;
    doc.initNewDoc("root");
    EXPECT_EQ(nullptr, doc.newTextChild(nullptr, "pid", "1"));
    xmlNode* item = doc.newTextChild(doc.getRootNode(), "item", "a<b & \"c\"");
    doc.addAttribute(item, "k", "first");
    doc.addAttribute(item, "k", "second");
    doc.newChild(doc.getRootNode(), "empty");
    EXPECT_EQ(
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<root><item k=\"second\">a&lt;b &amp; \"c\"</item><empty/></root>\n",
        savedText(doc));

    tXmlRkuDocument read(std::string("<!DOCTYPE r [<!ENTITY w \"world\">]><r><n>hi &w;</n></r>"));
    read.initFileDoc("r");
    EXPECT_EQ("hi world", read.getNodeText(read.getRootNodeChild("n")));
}

TEST(XmlDocumentSaving, FailuresAreReportedAndStandardOutputUsesTheDerivedWriter) {
    tXmlRkuDocument doc;
    doc.initNewDoc("r");
    std::ostringstream broken;
    broken.setstate(std::ios::badbit);
    EXPECT_EQ("Can not save the XML document to file 'in-memory buffer'",
              messageOf<&tError_SaveFile>([&] { doc.saveToStream(broken); }));
    EXPECT_THROW(doc.saveToBuffer(nullptr), Exc<&AssertionFailed>);
    EXPECT_EQ("Can not save the XML document to file '/nonexistent/x.xml'",
              messageOf<&tError_SaveFile>([&] { doc.saveToFile("/nonexistent/x.xml"); }));

    struct Recording : tXmlDocument {
        using tXmlDocument::saveToFile;
        std::string target;
        void saveToFile(const char* filename) override { target = filename; }
    } recording;
    EXPECT_EQ(0, recording.saveToStdout());
    EXPECT_EQ("-", recording.target);
}

}  // namespace
}  // namespace tavik
