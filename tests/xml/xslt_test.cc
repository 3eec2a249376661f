#include <gtest/gtest.h>

#include <string>

#include "commons/exceptions.h"
#include "support/sandbox_env.h"
#include "xml/xml_xslt.h"
#include "xml_test_util.h"

namespace tavik {
namespace {

using testing::haveHmxadm;
using testing::messageOf;
using testing::readFile;
using testing::ScratchDir;
using testing::writeTextFile;

const char kHead[] =
    "<xsl:stylesheet version=\"1.0\" xmlns:xsl=\"http://www.w3.org/1999/XSL/Transform\">";

class XsltTest : public ::testing::Test {
  protected:
    // A stylesheet file holding `body` inside the stylesheet element.
    std::string sheet(const std::string& name, const std::string& body) {
        const std::string path = dir_.path() + "/" + name;
        writeTextFile(path, kHead + body + "</xsl:stylesheet>");
        return path;
    }
    ~XsltTest() noexcept override {}  // holds a document: see xpath_test.cc
    ScratchDir dir_;
    tXmlDocument input_{std::string("<names><n>ann</n><n>bob</n></names>")};
};

TEST_F(XsltTest, TextOutputIsSavedAsPlainTextEvenAtomically) {
    ASSERT_TRUE(haveHmxadm());
    std::unique_ptr<tXsltStylesheet> style(
        new tXsltStylesheet(sheet("text.xsl",
                                  "<xsl:output method=\"text\"/><xsl:template match=\"/\">"
                                  "<xsl:for-each select=\"//n\"><xsl:value-of select=\".\"/>;"
                                  "</xsl:for-each></xsl:template>")
                                .c_str()));
    tXmlDocFromXslt result = apply_stylesheet(*style, input_);
    style.reset();  // the result keeps what it needs of the stylesheet
    result.saveToFile(dir_.path() + "/out.txt");
    EXPECT_EQ("ann;bob;", readFile(dir_.path() + "/out.txt"));
    result.saveToFileAtomically(dir_.path() + "/atomic.txt");
    EXPECT_EQ("ann;bob;", readFile(dir_.path() + "/atomic.txt"));
}

TEST_F(XsltTest, XmlOutputFollowsTheStylesheetSettings) {
    tXsltStylesheet style(
        sheet("xml.xsl",
              "<xsl:output method=\"xml\" encoding=\"ISO-8859-1\" indent=\"yes\"/>"
              "<xsl:template match=\"/\"><list><xsl:for-each select=\"//n\">"
              "<item><xsl:value-of select=\".\"/></item></xsl:for-each></list>"
              "</xsl:template>")
            .c_str());
    apply_stylesheet(style, input_).saveToFile(dir_.path() + "/out.xml");
    EXPECT_EQ(
        "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\n<list>\n  <item>ann</item>\n"
        "  <item>bob</item>\n</list>\n",
        readFile(dir_.path() + "/out.xml"));
}

TEST_F(XsltTest, TerminatingMessageStopsTheTransformation) {
    tXsltStylesheet style(sheet("stop.xsl",
                                "<xsl:template match=\"/\"><out/>"
                                "<xsl:message terminate=\"yes\">no</xsl:message>"
                                "</xsl:template>")
                              .c_str());
    EXPECT_EQ(
        "The translation of XML document was terminated by XSLT stylesheet. Check for the "
        "error reason and try again.",
        messageOf<&tError_Xslt_ApplyStylesheetTerminated>(
            [&] { apply_stylesheet(style, input_); }));
}

// The network is closed to stylesheets; the refusal puts the transformation in its error state.
TEST_F(XsltTest, RefusedNetworkReadIsAnErrorOfTheTransformation) {
    tXsltStylesheet style(sheet("net.xsl",
                                "<xsl:template match=\"/\"><out>"
                                "<xsl:copy-of select=\"document('http://127.0.0.1:9/x')\"/>"
                                "</out></xsl:template>")
                              .c_str());
    EXPECT_EQ("Some error while applying stylesheet. Check the error reason and try again.",
              messageOf<&tError_XmlInternal>([&] { apply_stylesheet(style, input_); }));
}

TEST_F(XsltTest, UnparsableStylesheetsAndUnreadStylesheetsFail) {
    const std::string plain = dir_.path() + "/plain.xml";
    writeTextFile(plain, "<not-a-stylesheet/>");
    EXPECT_EQ("Can not parse XSLT file '" + plain + "'",
              messageOf<&tError_XslParse_CanNotParseFile>([&] { tXsltStylesheet(plain.c_str()); }));
    tXsltStylesheet unread;
    EXPECT_EQ("Assertion failed: style != NULL",
              messageOf<&AssertionFailed>([&] { apply_stylesheet(unread, input_); }));
}

}  // namespace
}  // namespace tavik
