#include "commons/xml_log.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <stdexcept>
#include <string>

#include "commons/exceptions.h"
#include "support/sandbox_env.h"
#include "support/xml_render.h"
#include "xml/xml_wrap.h"

namespace tavik {
namespace {

using testing::renderElement;
using testing::ScratchDir;

// The result file's root as the controlling process reads it.
std::string resultTree(const std::string& file) {
    tXmlRkuDocument doc(file.c_str());
    doc.initFileDoc("execution-result");
    return renderElement(doc.getRootNode());
}

class XmlLogTest : public ::testing::Test {
  protected:
    std::string resultFile() const { return dir_.path() + "/migration.result"; }

    ScratchDir dir_;
};

TEST_F(XmlLogTest, ASuccessfulRunLeavesAnEmptySuccessResult) {
    testing::writeTextFile(resultFile(), "an earlier run's result");
    {
        XmlLog log(resultFile());
        log.setSuccess(true);
    }
    EXPECT_EQ("execution-result[status=success]", resultTree(resultFile()));
}

TEST_F(XmlLogTest, AFailedRunLeavesOneMessageWithItsCauses) {
    const auto cause = TAVIK_EXC(FileWrite, "<dump & co>.xml", "disk full");
    const auto error = makeWrappedExc<&CantRetrieveDump>(cause, "void f()", "a.cc", 7);
    { XmlLog(resultFile()).log(error); }
    EXPECT_EQ(
        "execution-result[status=error](message[code=CantRetrieveDump,severity=error]("
        "context:void f(),file:a.cc,line:7,text:Error during dump retrieval,"
        "message[code=FileWrite,severity=error](context:" +
            cause.context() + ",file:" + cause.file() + ",line:" + std::to_string(cause.line()) +
            ",text:Error during <dump & co>.xml write: disk full)))",
        resultTree(resultFile()));
}

TEST_F(XmlLogTest, OnlyObjectsWithMessagesInsideThemAreKept) {
    const auto e = makeExc<&HostNotFound>("void g()", "b.cc", 3, "h", "r");
    {
        XmlLog log(resultFile());
        log.pushObject("quiet.example", "domain");
        log.popObject();
        log.pushObject("owner", "client");
        log.pushObject("loud.example", "domain");
        EXPECT_EQ(2, log.getDepth());
        log.log(e);
        log.popObject();
        log.pushObject("after", "domain");
        log.popObject();
        log.popObject();
        EXPECT_EQ(0, log.getDepth());
        EXPECT_THROW(log.popObject(), Exc<&NoParentNode>);
        log.setSuccess(true);
    }
    EXPECT_EQ(
        "execution-result[status=success](object[name=owner,type=client](object[name=loud."
        "example,type=domain](message[code=HostNotFound,severity=error](context:void g(),file:b."
        "cc,line:3,text:Unable to resolve hostname h: r))))",
        resultTree(resultFile()));
}

TEST_F(XmlLogTest, AFailedSaveFailsTheEndUnlessAnotherFailureIsAlreadyOnItsWay) {
    const std::string unwritable = dir_.path() + "/missing/migration.result";
    EXPECT_THROW({ XmlLog log(unwritable); }, ExTraceable);
    try {
        XmlLog log(unwritable);
        throw std::runtime_error("the action failed");
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ("the action failed", e.what());
    }
}

}  // namespace
}  // namespace tavik
