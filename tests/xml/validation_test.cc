#include <gtest/gtest.h>

#include <string>

#include "commons/exceptions.h"
#include "support/sandbox_env.h"
#include "xml/xml_validation.h"
#include "xml_test_util.h"

namespace tavik {
namespace {

using testing::messageOf;
using testing::ScratchDir;
using testing::writeTextFile;

const char kInternal[] =
    "<!DOCTYPE list [<!ELEMENT list (item*)><!ELEMENT item (#PCDATA)>]>"
    "<list><item>a</item>%s</list>";

std::string withExtra(const std::string& extra) {
    std::string text = kInternal;
    return text.replace(text.find("%s"), 2, extra);
}

TEST(DtdValidation, InternalSubsetAcceptsValidAndReportsInvalidDocuments) {
    const tDtdValidator validator;
    EXPECT_NO_THROW(validator.validateXml(tXmlDocument(withExtra("<item>b</item>"))));
    const std::string message = messageOf<&InternalDtdValidationFailed>(
        [&] { validator.validateXml(tXmlDocument(withExtra("<stray/>"))); });
    EXPECT_EQ(0u, message.find("Failed validation of the document with its internal DTD. The "
                               "errors are: "))
        << message;
    EXPECT_NE(std::string::npos, message.find("stray")) << message;
    EXPECT_NE("nothing thrown", messageOf<&InternalDtdValidationFailed>([&] {
                  validator.validateXml(tXmlDocument(std::string("<list/>")));
              }));
}

// Validating against the document's own DTD must not fetch the external subset it names.
TEST(DtdValidation, InternalValidationIgnoresTheNamedExternalSubset) {
    ScratchDir dir;
    // Fetching this would fail the validation: it does not even parse.
    writeTextFile(dir.path() + "/strict.dtd", "<!ELEMENT list (nothing");
    const std::string text = "<!DOCTYPE list SYSTEM \"" + dir.path() +
                             "/strict.dtd\" [<!ELEMENT list (item*)><!ELEMENT item "
                             "(#PCDATA)>]><list><item>a</item></list>";
    EXPECT_NO_THROW(tDtdValidator().validateXml(tXmlDocument(text)));
}

TEST(DtdValidation, ExternalDtdNamesItsFileInEveryFailure) {
    ScratchDir dir;
    const std::string dtd = dir.path() + "/list.dtd";
    writeTextFile(dtd, "<!ELEMENT list (item+)><!ELEMENT item (#PCDATA)>");
    writeTextFile(dir.path() + "/broken.dtd", "<!ELEMENT list (item+)");
    const tDtdValidator validator;
    EXPECT_NO_THROW(validator.validateXml(tXmlDocument(std::string("<list><item/></list>")), dtd));
    const std::string message = messageOf<&ExternalDtdValidationFailed>(
        [&] { validator.validateXml(tXmlDocument(std::string("<list/>")), dtd); });
    EXPECT_EQ(0u, message.find("Failed validation of the document with external DTD " + dtd +
                               ". The errors are: "))
        << message;
    EXPECT_EQ(
        "The DTD file " + dir.path() + "/broken.dtd is invalid", messageOf<&InvalidDtdFile>([&] {
            validator.validateXml(tXmlDocument(std::string("<list/>")), dir.path() + "/broken.dtd");
        }));
}

TEST(SchemaValidation, FailuresShareTheInternalDtdTagAndBadSchemasReadAsAllocation) {
    ScratchDir dir;
    const std::string xsd = dir.path() + "/n.xsd";
    writeTextFile(xsd,
                  "<xs:schema xmlns:xs=\"http://www.w3.org/2001/XMLSchema\">"
                  "<xs:element name=\"n\" type=\"xs:integer\"/></xs:schema>");
    writeTextFile(dir.path() + "/bad.xsd", "<xs:schema xmlns:xs=\"urn:not-a-schema\"/>");
    EXPECT_NO_THROW(validateSchema(tXmlDocument(std::string("<n>42</n>")), xsd));
    const std::string message = messageOf<&InternalDtdValidationFailed>(
        [&] { validateSchema(tXmlDocument(std::string("<n>forty-two</n>")), xsd); });
    EXPECT_EQ(0u, message.find("Failed validation of the document with its internal DTD. The "
                               "errors are: "))
        << message;
    EXPECT_NE(std::string::npos, message.find("forty-two")) << message;
    EXPECT_EQ("Can not allocate memory for xmlSchemaParse", messageOf<&tError_XmlInternal>([&] {
                  validateSchema(tXmlDocument(std::string("<n>1</n>")), dir.path() + "/bad.xsd");
              }));
}

}  // namespace
}  // namespace tavik
