#include <gtest/gtest.h>

#include <string>

#include "support/raised.h"
#include "support/sandbox_env.h"
#include "xml/xml_validation.h"

namespace tavik {
namespace {

using testing::messageOf;
using testing::writeTextFile;

tXmlDocument parse(const std::string& text) { return tXmlDocument(text); }

TEST(DtdValidation, InternalSubsetOnlyAndNeverTheExternalOneTheDocumentNames) {
    testing::ScratchDir dir;
    // Fetching this would fail the validation: it does not even parse.
    writeTextFile(dir.path() + "/strict.dtd", "<!ELEMENT list (nothing");
    const std::string head = "<!DOCTYPE list SYSTEM \"" + dir.path() +
                             "/strict.dtd\" [<!ELEMENT list (item*)><!ELEMENT item (#PCDATA)>]>";
    const tDtdValidator validator;
    EXPECT_NO_THROW(validator.validateXml(parse(head + "<list><item>a</item></list>")));
    const std::string message = messageOf<&InternalDtdValidationFailed>(
        [&] { validator.validateXml(parse(head + "<list><stray/></list>")); });
    EXPECT_EQ(0u, message.find("Failed validation of the document with its internal DTD. The "
                               "errors are: "));
    EXPECT_NE(std::string::npos, message.find("stray")) << message;
    testing::caught<&InternalDtdValidationFailed>([&] { validator.validateXml(parse("<list/>")); });
}

TEST(DtdValidation, ExternalDtdNamesItsFileInEveryFailure) {
    testing::ScratchDir dir;
    const std::string dtd = dir.path() + "/list.dtd", broken = dir.path() + "/broken.dtd";
    writeTextFile(dtd, "<!ELEMENT list (item+)><!ELEMENT item (#PCDATA)>");
    writeTextFile(broken, "<!ELEMENT list (item+)");
    const tDtdValidator validator;
    EXPECT_NO_THROW(validator.validateXml(parse("<list><item/></list>"), dtd));
    EXPECT_EQ(0u, messageOf<&ExternalDtdValidationFailed>(
                      [&] { validator.validateXml(parse("<list/>"), dtd); })
                      .find("Failed validation of the document with external DTD " + dtd +
                            ". The errors are: "));
    EXPECT_EQ("The DTD file " + broken + " is invalid",
              messageOf<&InvalidDtdFile>([&] { validator.validateXml(parse("<list/>"), broken); }));
}

// Schema failures share the internal DTD's tag and text; callers cannot tell them apart.
TEST(SchemaValidation, FailuresShareTheInternalDtdTagAndBadSchemasReadAsAllocation) {
    testing::ScratchDir dir;
    const std::string xsd = dir.path() + "/n.xsd", bad = dir.path() + "/bad.xsd";
    writeTextFile(xsd,
                  "<xs:schema xmlns:xs=\"http://www.w3.org/2001/XMLSchema\">"
                  "<xs:element name=\"n\" type=\"xs:integer\"/></xs:schema>");
    writeTextFile(bad, "<xs:schema xmlns:xs=\"urn:not-a-schema\"/>");
    EXPECT_NO_THROW(validateSchema(parse("<n>42</n>"), xsd));
    const std::string message = messageOf<&InternalDtdValidationFailed>(
        [&] { validateSchema(parse("<n>forty-two</n>"), xsd); });
    EXPECT_EQ(0u, message.find("Failed validation of the document with its internal DTD. The "
                               "errors are: "));
    EXPECT_NE(std::string::npos, message.find("forty-two")) << message;
    EXPECT_EQ("Can not allocate memory for xmlSchemaParse",
              messageOf<&tError_XmlInternal>([&] { validateSchema(parse("<n>1</n>"), bad); }));
}

}  // namespace
}  // namespace tavik
