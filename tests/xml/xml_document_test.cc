#include <fcntl.h>
#include <gtest/gtest.h>
#include <libxml/tree.h>
#include <libxml/xmlIO.h>
#include <unistd.h>

#include <chrono>
#include <sstream>
#include <string>

#include "commons/exceptions.h"
#include "support/sandbox_env.h"
#include "xml/xml_parse.h"
#include "xml/xml_wrap.h"
#include "xml_test_util.h"

namespace tavik {
namespace {

using testing::messageOf;
using testing::readFile;
using testing::ScratchDir;
using testing::writeTextFile;

TEST(XmlErrorCollector, EachMessageLosesItsLastCharacter) {
    tXmlErrorCollector errors;
    xmlGenericError(xmlGenericErrorContext, "abc\n");
    xmlGenericError(xmlGenericErrorContext, "line %d: %s.\n", 7, "bad");
    xmlGenericError(xmlGenericErrorContext, "x");
    EXPECT_EQ("abcline 7: bad.", errors.text());
}

TEST(XmlErrorCollector, NestedCollectorsHandBackTheOuterOne) {
    tXmlErrorCollector outer;
    {
        tXmlErrorCollector inner;
        xmlGenericError(xmlGenericErrorContext, "inner\n");
        EXPECT_EQ("inner", inner.text());
    }
    xmlGenericError(xmlGenericErrorContext, "outer\n");
    EXPECT_EQ("outer", outer.text());
}

TEST(XmlDocumentReading, FileMemoryAndStandardInputGiveTheSameTree) {
    ScratchDir dir;
    const std::string text = "<?xml version=\"1.0\"?>\n<r a=\"1\">t&amp;x<c/></r>\n";
    writeTextFile(dir.path() + "/in.xml", text);
    std::ostringstream fromFile, fromPath, fromMemory, fromStdin;
    tXmlDocument((dir.path() + "/in.xml").c_str()).saveToStream(fromFile);
    tXmlDocument(boost::filesystem::path(dir.path() + "/in.xml")).saveToStream(fromPath);
    tXmlDocument(std::string(text)).saveToStream(fromMemory);

    const int saved = dup(0);
    const int fd = open((dir.path() + "/in.xml").c_str(), O_RDONLY);
    ASSERT_EQ(0, dup2(fd, 0));
    tXmlDocument("-").saveToStream(fromStdin);
    dup2(saved, 0);
    close(fd);
    close(saved);

    const std::string expected =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<r a=\"1\">t&amp;x<c/></r>\n";
    EXPECT_EQ(expected, fromFile.str());
    EXPECT_EQ(expected, fromPath.str());
    EXPECT_EQ(expected, fromMemory.str());
    EXPECT_EQ(expected, fromStdin.str());
}

TEST(XmlDocumentReading, FailuresNameTheSourceAndCarryTheParserMessages) {
    ScratchDir dir;
    EXPECT_EQ("Assertion failed: filename != NULL",
              messageOf<&AssertionFailed>([] { tXmlDocument(static_cast<const char*>(nullptr)); }));
    EXPECT_EQ("Assertion failed: *filename != 0",
              messageOf<&AssertionFailed>([] { tXmlDocument(""); }));
    EXPECT_EQ("Assertion failed: content.size()",
              messageOf<&AssertionFailed>([] { tXmlDocument(std::string()); }));
    EXPECT_EQ(
        "The XML file does not exist or is not a regular file. Check the file '" + dir.path() + "'",
        messageOf<&tError_WrongInputFile>([&] { tXmlDocument(dir.path().c_str()); }));

    writeTextFile(dir.path() + "/bad.xml", "<r><open></r>");
    const std::string fromFile =
        messageOf<&tError_ParseFile>([&] { tXmlDocument((dir.path() + "/bad.xml").c_str()); });
    EXPECT_EQ(0u, fromFile.find("The XML file " + dir.path() +
                                "/bad.xml was not parsed successfully with the following "
                                "errors:\n" +
                                dir.path() + "/bad.xml:1:parsererror :"))
        << fromFile;
    EXPECT_NE(std::string::npos, fromFile.find("mismatch")) << fromFile;
    EXPECT_EQ(std::string::npos, fromFile.find('\n', fromFile.find(":\n") + 2)) << fromFile;

    const std::string fromMemory =
        messageOf<&tError_ParseFile>([] { tXmlDocument(std::string("not xml")); });
    EXPECT_EQ(0u, fromMemory.find("The XML file - was not parsed successfully")) << fromMemory;
}

TEST(XmlRkuDocument, RootChecksNameTheExpectedElementFirst) {
    tXmlRkuDocument doc(std::string("<found><a x=\"1\"/></found>"));
    EXPECT_EQ("The document has the wrong type, root node is <found>, but <wanted> was expected",
              messageOf<&tError_WrongDoc>([&] { doc.initFileDoc("wanted"); }));
    EXPECT_EQ(nullptr, doc.getRootNode());
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

TEST(XmlRkuDocument, BuiltTreesEscapeTextAndReplaceAttributes) {
    tXmlRkuDocument doc;
    doc.initNewDoc("root");
    EXPECT_EQ(nullptr, doc.newTextChild(nullptr, "pid", "1"));
    xmlNode* item = doc.newTextChild(doc.getRootNode(), "item", "a<b & \"c\"");
    doc.addAttribute(item, "k", "first");
    doc.addAttribute(item, "k", "second");
    doc.newChild(doc.getRootNode(), "empty");
    std::ostringstream out;
    doc.saveToStream(out);
    EXPECT_EQ(
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<root><item k=\"second\">a&lt;b &amp; \"c\"</item><empty/></root>\n",
        out.str());

    tXmlRkuDocument reread(out.str());
    reread.initFileDoc("root");
    EXPECT_EQ("a<b & \"c\"", reread.getNodeText(reread.getRootNodeChild("item")));
}

TEST(XmlRkuDocument, NodeTextSubstitutesInternalEntities) {
    tXmlRkuDocument doc(
        std::string("<!DOCTYPE r [<!ENTITY who \"world\">]><r><n>hello &who;!</n></r>"));
    doc.initFileDoc("r");
    EXPECT_EQ("hello world!", doc.getNodeText(doc.getRootNodeChild("n")));
}

TEST(XmlDocument, CopiesShareOneTreeThatOutlivesTheOriginal) {
    std::unique_ptr<tXmlRkuDocument> original(new tXmlRkuDocument);
    original->initNewDoc("r");
    tXmlRkuDocument copy(*original);
    original->newChild(original->getRootNode(), "added");
    original.reset();
    std::ostringstream out;
    copy.saveToStream(out);
    EXPECT_NE(std::string::npos, out.str().find("<r><added/></r>")) << out.str();
}

// A stream that fails every write, as a full disk behind an std::ofstream would.
TEST(XmlDocumentSaving, WriterFailuresAreReported) {
    tXmlRkuDocument doc;
    doc.initNewDoc("r");
    std::ostringstream broken;
    broken.setstate(std::ios::badbit);
    EXPECT_NE("nothing thrown", messageOf<&tError_SaveFile>([&] { doc.saveToStream(broken); }));
    EXPECT_EQ("Assertion failed: buffer != 0",
              messageOf<&AssertionFailed>([&] { doc.saveToBuffer(nullptr); }));
    EXPECT_EQ("Can not save the XML document to file '/nonexistent/dir/x.xml'",
              messageOf<&tError_SaveFile>([&] { doc.saveToFile("/nonexistent/dir/x.xml"); }));
    EXPECT_EQ("Assertion failed: *filename != 0",
              messageOf<&AssertionFailed>([&] { doc.saveToFile(std::string()); }));
}

TEST(XmlDocumentSaving, StandardOutputGoesThroughTheDerivedWriter) {
    struct Recording : tXmlDocument {
        using tXmlDocument::saveToFile;
        std::string target;
        void saveToFile(const char* filename) override { target = filename; }
    } doc;
    EXPECT_EQ(0, doc.saveToStdout());
    EXPECT_EQ("-", doc.target);
}

// Documents arrive from the source host: nothing they point at may be read on this one.
TEST(XmlHostileInput, ExternalEntitiesAndDtdsAreNotLoaded) {
    ScratchDir dir;
    writeTextFile(dir.path() + "/secret.txt", "TOPSECRET");
    writeTextFile(dir.path() + "/ext.dtd", "<!ATTLIST r a CDATA \"from-dtd\"> broken <");
    writeTextFile(dir.path() + "/entity.xml",
                  "<!DOCTYPE r [<!ENTITY x SYSTEM \"secret.txt\">]><r>&x;</r>");
    writeTextFile(dir.path() + "/dtd.xml", "<!DOCTYPE r SYSTEM \"ext.dtd\"><r/>");

    tXmlRkuDocument entity((dir.path() + "/entity.xml").c_str());
    entity.initFileDoc("r");
    EXPECT_EQ("", entity.getNodeText(entity.getRootNode()));
    std::ostringstream saved;
    entity.saveToStream(saved);
    EXPECT_EQ(std::string::npos, saved.str().find("TOPSECRET"));

    // Loading the broken DTD would fail the parse; applying it would add the attribute.
    tXmlRkuDocument dtd((dir.path() + "/dtd.xml").c_str());
    dtd.initFileDoc("r");
    EXPECT_EQ("Node r does not have attribute a",
              messageOf<&NoSuchAttribute>([&] { dtd.getAttribute(dtd.getRootNode(), "a"); }));
}

TEST(XmlHostileInput, EntityExpansionBombIsRefusedQuickly) {
    std::string text = "<!DOCTYPE b [<!ENTITY e0 \"lollollollollollollollollollol\">";
    for (int i = 1; i <= 12; ++i) {
        text += "<!ENTITY e" + std::to_string(i) + " \"";
        for (int j = 0; j < 10; ++j) text += "&e" + std::to_string(i - 1) + ";";
        text += "\">";
    }
    text += "]><b>&e12;</b>";
    const auto start = std::chrono::steady_clock::now();
    const std::string message = messageOf<&tError_ParseFile>([&] { tXmlDocument doc(text); });
    EXPECT_EQ(0u, message.find("The XML file - was not parsed successfully")) << message;
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

}  // namespace
}  // namespace tavik
