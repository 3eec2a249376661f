#include "commons/msg_formatter.h"

#include <gtest/gtest.h>

#include <string>

#include "commons/exceptions.h"
#include "commons/xml_log.h"
#include "support/sandbox_env.h"
#include "support/xml_render.h"

namespace tavik {
namespace {

// The terminal and the debug log get one line per exception; the controlling process reads
// every cause from the result file, in order, with markup in texts escaped.
TEST(ErrorMessages, PlainTextAndResultFileCarryEveryCauseInOrder) {
    const auto cause = TAVIK_EXC(FileWrite, "<dump & co>.xml", "disk full");
    const auto error = makeWrappedExc<&CantRetrieveDump>(cause, "void f()", "a.cc", 7);
    const std::string line = std::to_string(cause.line());
    EXPECT_EQ(
        "CantRetrieveDump: Error during dump retrieval [a.cc:7]\nInner exception:\n"
        "FileWrite: Error during <dump & co>.xml write: disk full [" +
            cause.file() + ":" + line + "]",
        formatPlainTextMessage(error));

    testing::ScratchDir dir;
    const std::string resultFile = dir.path() + "/migration.result";
    { XmlLog(resultFile).log(error); }
    EXPECT_EQ(
        "execution-result[status=error](message[code=CantRetrieveDump,severity=error]("
        "context:void f(),file:a.cc,line:7,text:Error during dump retrieval,"
        "message[code=FileWrite,severity=error](context:" +
            cause.context() + ",file:" + cause.file() + ",line:" + line +
            ",text:Error during <dump & co>.xml write: disk full)))",
        testing::renderFile(resultFile));
}

}  // namespace
}  // namespace tavik
