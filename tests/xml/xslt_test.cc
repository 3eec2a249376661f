#include <gtest/gtest.h>

#include <string>

#include "support/raised.h"
#include "support/sandbox_env.h"
#include "xml/xml_xslt.h"

namespace tavik {
namespace {

using testing::messageOf;
using testing::readFile;

class XsltTest : public ::testing::Test {
  protected:
    ~XsltTest() noexcept override {}  // holds a document, whose destructor may throw

    // A stylesheet holding `body`.
    std::string sheet(const std::string& body) {
        const std::string path = dir_.path() + "/" + std::to_string(++sheets_) + ".xsl";
        testing::writeTextFile(path,
                               "<xsl:stylesheet version=\"1.0\" "
                               "xmlns:xsl=\"http://www.w3.org/1999/XSL/Transform\">" +
                                   body + "</xsl:stylesheet>");
        return path;
    }

    testing::ScratchDir dir_;
    int sheets_ = 0;
    tXmlDocument input_{std::string("<names><n>ann</n><n>bob</n></names>")};
};

TEST_F(XsltTest, ResultsAreSavedWithTheStylesheetOutputSettings) {
    ASSERT_TRUE(testing::addSystemAccount("hmxadm"));
    std::unique_ptr<tXsltStylesheet> text(
        new tXsltStylesheet(sheet("<xsl:output method=\"text\"/><xsl:template match=\"/\">"
                                  "<xsl:for-each select=\"//n\"><xsl:value-of select=\".\"/>;"
                                  "</xsl:for-each></xsl:template>")
                                .c_str()));
    tXmlDocFromXslt result = apply_stylesheet(*text, input_);
    text.reset();  // the result keeps what it needs of the stylesheet
    result.saveToFileAtomically(dir_.path() + "/out.txt");
    EXPECT_EQ("ann;bob;", readFile(dir_.path() + "/out.txt"));
}

TEST_F(XsltTest, StopsAndErrorsOfTheTransformationAreToldApart) {
    tXsltStylesheet stop(sheet("<xsl:template match=\"/\"><out/>"
                               "<xsl:message terminate=\"yes\">no</xsl:message></xsl:template>")
                             .c_str());
    EXPECT_EQ(
        "The translation of XML document was terminated by XSLT stylesheet. Check for the "
        "error reason and try again.",
        messageOf<&tError_Xslt_ApplyStylesheetTerminated>([&] { apply_stylesheet(stop, input_); }));
}

}  // namespace
}  // namespace tavik
