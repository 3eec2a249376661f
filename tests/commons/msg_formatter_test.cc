#include "commons/msg_formatter.h"

#include <gtest/gtest.h>

#include <string>

#include "commons/exceptions.h"

namespace tavik {
namespace {

std::string place(int line) {
    return std::string(" [") + __FILE__ + ":" + std::to_string(line) + "]";
}

TEST(PlainTextMessage, OneLinePerExceptionJoinedByTheInnerMarker) {
    const int innerLine = __LINE__ + 1;
    const auto cause = TAVIK_EXC(FileWrite, "/s/dump.xml", "No space left on device");
    const auto outer = makeWrappedExc<&CantRetrieveDump>(cause, "void retrieve()", __FILE__, 4321);
    EXPECT_EQ("CantRetrieveDump: Error during dump retrieval" + place(4321) +
                  "\nInner exception:\n"
                  "FileWrite: Error during /s/dump.xml write: No space left on device" +
                  place(innerLine),
              formatPlainTextMessage(outer));
}

}  // namespace
}  // namespace tavik
