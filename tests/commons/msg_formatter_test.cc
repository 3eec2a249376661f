#include "commons/msg_formatter.h"

#include <gtest/gtest.h>

#include <string>

#include "commons/exceptions.h"

namespace tavik {
namespace {

// A dump file that could not be written, wrapped by the dump retrieval.
struct TwoLevelChain {
    const int innerLine = __LINE__ + 1;
    const Exc<& FileWrite> cause = TAVIK_EXC(FileWrite, "/s/dump.xml", "No space left on device");
    const int outerLine = 4321;
    const Exc<& CantRetrieveDump> outer =
        makeWrappedExc<&CantRetrieveDump>(cause, "void retrieve()", __FILE__, outerLine);
};

std::string place(int line) {
    return std::string(" [") + __FILE__ + ":" + std::to_string(line) + "]";
}

TEST(PlainTextMessage, OneLinePerExceptionJoinedByTheInnerMarker) {
    TwoLevelChain chain;
    EXPECT_EQ("CantRetrieveDump: Error during dump retrieval" + place(chain.outerLine) +
                  "\nInner exception:\n"
                  "FileWrite: Error during /s/dump.xml write: No space left on device" +
                  place(chain.innerLine),
              formatPlainTextMessage(chain.outer));
}

TEST(PlainTextMessage, ACauseWithoutAPlaceKeepsThePlaceOfItsWrapper) {
    ExTraceable bare("Bare", "lost %1%");
    bare % 7;
    const int line = __LINE__ + 1;
    const auto e = makeWrappedExc<&CantRetrieveDump>(bare, "f()", __FILE__, __LINE__);
    EXPECT_EQ("CantRetrieveDump: Error during dump retrieval" + place(line) +
                  "\nInner exception:\nBare: lost 7" + place(line),
              formatPlainTextMessage(e));
}

}  // namespace
}  // namespace tavik
