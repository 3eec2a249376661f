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

TEST(DtdValidation, InternalSubsetOnlyAndExternalDtdNamedInEveryFailure) {
    testing::ScratchDir dir;
    const std::string dtd = dir.path() + "/list.dtd", broken = dir.path() + "/broken.dtd";
    testing::writeTextFile(dtd, "<!ELEMENT list (item+)><!ELEMENT item (#PCDATA)>");
    // Fetching this would fail the internal validation: it does not even parse.
    testing::writeTextFile(broken, "<!ELEMENT list (item+)");
    const std::string internal = "<!DOCTYPE list SYSTEM \"" + broken +
                                 "\" [<!ELEMENT list (item*)><!ELEMENT item (#PCDATA)>]>";
    const tDtdValidator validator;
    const auto local = [](const std::string& text) { return tXmlDocument(text, XmlOrigin::Local); };
    EXPECT_NO_THROW(validator.validateXml(local(internal + "<list><item>a</item></list>")));
    const std::string message = messageOf<&InternalDtdValidationFailed>(
        [&] { validator.validateXml(local(internal + "<list><stray/></list>")); });
    EXPECT_EQ(0u, message.find("Failed validation of the document with its internal DTD. The "
                               "errors are: "));
    EXPECT_NE(std::string::npos, message.find("stray")) << message;

    const tXmlDocument empty(std::string("<list/>"));
    EXPECT_NO_THROW(validator.validateXml(tXmlDocument(std::string("<list><item/></list>")), dtd));
    EXPECT_EQ(0u,
              messageOf<&ExternalDtdValidationFailed>([&] { validator.validateXml(empty, dtd); })
                  .find("Failed validation of the document with external DTD " + dtd +
                        ". The errors are: "));
    EXPECT_EQ("The DTD file " + broken + " is invalid",
              messageOf<&InvalidDtdFile>([&] { validator.validateXml(empty, broken); }));
}

}  // namespace
}  // namespace tavik
