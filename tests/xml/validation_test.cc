// The validators the agents' document types go through: a document is checked against its own
// internal subset only, never against a file it names itself, and every failure says which DTD.
#include <gtest/gtest.h>

#include <string>

#include "support/raised.h"
#include "support/sandbox_env.h"
#include "xml/xml_validation.h"

namespace tavik {
namespace {

using testing::messageOf;
using testing::writeTextFile;

TEST(DtdValidation, InternalSubsetNeverFetchesTheDtdTheDocumentNames) {
    testing::ScratchDir dir;
    // Fetching this would fail the validation: it does not even parse.
    writeTextFile(dir.path() + "/strict.dtd", "<!ELEMENT list (nothing");
    const std::string head = "<!DOCTYPE list SYSTEM \"" + dir.path() +
                             "/strict.dtd\" [<!ELEMENT list (item*)><!ELEMENT item (#PCDATA)>]>";
    const tDtdValidator validator;
    EXPECT_NO_THROW(validator.validateXml(tXmlDocument(head + "<list><item>a</item></list>")));
    const std::string message = messageOf<&InternalDtdValidationFailed>(
        [&] { validator.validateXml(tXmlDocument(head + "<list><stray/></list>")); });
    EXPECT_EQ(0u, message.find("Failed validation of the document with its internal DTD. The "
                               "errors are: "));
    EXPECT_NE(std::string::npos, message.find("stray")) << message;
}

TEST(DtdValidation, ExternalDtdNamesItsFileInEveryFailure) {
    testing::ScratchDir dir;
    const std::string dtd = dir.path() + "/list.dtd", broken = dir.path() + "/broken.dtd";
    writeTextFile(dtd, "<!ELEMENT list (item+)><!ELEMENT item (#PCDATA)>");
    writeTextFile(broken, "<!ELEMENT list (item+)");
    const tDtdValidator validator;
    EXPECT_NO_THROW(validator.validateXml(tXmlDocument(std::string("<list><item/></list>")), dtd));
    EXPECT_EQ(0u, messageOf<&ExternalDtdValidationFailed>(
                      [&] { validator.validateXml(tXmlDocument(std::string("<list/>")), dtd); })
                      .find("Failed validation of the document with external DTD " + dtd +
                            ". The errors are: "));
    EXPECT_EQ("The DTD file " + broken + " is invalid", messageOf<&InvalidDtdFile>([&] {
                  validator.validateXml(tXmlDocument(std::string("<list/>")), broken);
              }));
}

}  // namespace
}  // namespace tavik
