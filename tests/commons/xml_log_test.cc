#include "commons/xml_log.h"

#include <gtest/gtest.h>

#include <string>

#include "commons/exceptions.h"
#include "support/sandbox_env.h"
#include "support/xml_render.h"
#include "xml/xml_wrap.h"

namespace tavik {
namespace {

// The controlling process reads every cause from here, in order, with markup in texts escaped.
TEST(XmlLog, AFailedRunLeavesOneMessageWithItsCauses) {
    testing::ScratchDir dir;
    const std::string resultFile = dir.path() + "/migration.result";
    const auto cause = TAVIK_EXC(FileWrite, "<dump & co>.xml", "disk full");
    const auto error = makeWrappedExc<&CantRetrieveDump>(cause, "void f()", "a.cc", 7);
    { XmlLog(resultFile).log(error); }
    tXmlRkuDocument doc(resultFile.c_str());
    doc.initFileDoc("execution-result");
    EXPECT_EQ(
        "execution-result[status=error](message[code=CantRetrieveDump,severity=error]("
        "context:void f(),file:a.cc,line:7,text:Error during dump retrieval,"
        "message[code=FileWrite,severity=error](context:" +
            cause.context() + ",file:" + cause.file() + ",line:" + std::to_string(cause.line()) +
            ",text:Error during <dump & co>.xml write: disk full)))",
        testing::renderElement(doc.getRootNode()));
}

}  // namespace
}  // namespace tavik
