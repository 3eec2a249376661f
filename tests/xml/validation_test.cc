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

// Validating against the internal subset must never fetch the external DTD that a hostile
// document names; an external DTD given by us is named in every failure.
TEST(DtdValidation, InternalSubsetOnlyOrTheNamedExternalDtd) {
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

    const std::string dtd = dir.path() + "/list.dtd", broken = dir.path() + "/strict.dtd";
    writeTextFile(dtd, "<!ELEMENT list (item+)><!ELEMENT item (#PCDATA)>");
    EXPECT_NO_THROW(validator.validateXml(parse("<list><item/></list>"), dtd));
    EXPECT_EQ(0u, messageOf<&ExternalDtdValidationFailed>(
                      [&] { validator.validateXml(parse("<list/>"), dtd); })
                      .find("Failed validation of the document with external DTD " + dtd +
                            ". The errors are: "));
    EXPECT_EQ("The DTD file " + broken + " is invalid",
              messageOf<&InvalidDtdFile>([&] { validator.validateXml(parse("<list/>"), broken); }));
}

// Schema failures share the internal DTD's tag; callers cannot tell them apart.
TEST(SchemaValidation, FailuresShareTheInternalDtdTag) {
    testing::ScratchDir dir;
    const std::string xsd = dir.path() + "/n.xsd";
    writeTextFile(xsd,
                  "<xs:schema xmlns:xs=\"http://www.w3.org/2001/XMLSchema\">"
                  "<xs:element name=\"n\" type=\"xs:integer\"/></xs:schema>");
    EXPECT_NO_THROW(validateSchema(parse("<n>42</n>"), xsd));
    EXPECT_EQ(0u, messageOf<&InternalDtdValidationFailed>([&] {
                      validateSchema(parse("<n>forty-two</n>"), xsd);
                  }).find("Failed validation of the document with its internal DTD."));
}

}  // namespace
}  // namespace tavik
