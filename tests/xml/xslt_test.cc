#include <gtest/gtest.h>

#include <string>

#include "support/raised.h"
#include "support/sandbox_env.h"
#include "xml/xml_xslt.h"

namespace tavik {
namespace {

// A stylesheet file holding `body`.
std::string sheet(const std::string& path, const std::string& body) {
    testing::writeTextFile(path,
                           "<xsl:stylesheet version=\"1.0\" "
                           "xmlns:xsl=\"http://www.w3.org/1999/XSL/Transform\">" +
                               body + "</xsl:stylesheet>");
    return path;
}

// Results are saved with the stylesheet's output settings, and a stop that the stylesheet asks
// for is told apart from other failures.
TEST(Xslt, ResultsKeepTheStylesheetOutputAndStopsAreTheirOwnKind) {
    ASSERT_TRUE(testing::addSystemAccount("hmxadm"));
    testing::ScratchDir dir;
    tXmlDocument input(std::string("<names><n>ann</n><n>bob</n></names>"));
    auto text = std::make_unique<tXsltStylesheet>(
        sheet(dir.path() + "/text.xsl",
              "<xsl:output method=\"text\"/><xsl:template match=\"/\"><xsl:for-each "
              "select=\"//n\"><xsl:value-of select=\".\"/>;</xsl:for-each></xsl:template>")
            .c_str());
    tXmlDocFromXslt result = apply_stylesheet(*text, input);
    text.reset();  // the result keeps what it needs of the stylesheet
    result.saveToFileAtomically(dir.path() + "/out.txt");
    EXPECT_EQ("ann;bob;", testing::readFile(dir.path() + "/out.txt"));

    tXsltStylesheet stop(sheet(dir.path() + "/stop.xsl",
                               "<xsl:template match=\"/\"><out/><xsl:message "
                               "terminate=\"yes\">no</xsl:message></xsl:template>")
                             .c_str());
    testing::caught<&tError_Xslt_ApplyStylesheetTerminated>([&] { apply_stylesheet(stop, input); });
}

}  // namespace
}  // namespace tavik
