#include "commons/exceptions.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace tavik {
namespace {

// Records every visitor call, so the visiting order can be compared whole.
class RecordingVisitor : public ExInfoVisitor {
  public:
    std::string calls;
    void setCode(const std::string& s) override { calls += "code=" + s + "|"; }
    void setMessage(const std::string& s) override { calls += "message=" + s + "|"; }
    void setContext(const std::string& s) override { calls += "context=" + s + "|"; }
    void setFile(const std::string& s) override { calls += "file=" + s + "|"; }
    void setLine(int n) override { calls += "line=" + std::to_string(n) + "|"; }
    void advanceToInnerException() override { calls += "inner|"; }
};

TEST(ExceptionModel, WhatIsTheFilledMessageAndRuntimeErrorWhatIsTheCode) {
    auto e = TAVIK_EXC(HostNotFound, "x.invalid", "Unknown host");
    EXPECT_STREQ("Unable to resolve hostname x.invalid: Unknown host", e.what());
    EXPECT_STREQ("HostNotFound",
                 static_cast<const std::runtime_error&>(e).std::runtime_error::what());
    EXPECT_EQ(__FILE__, e.file());
    EXPECT_NE(std::string::npos, e.context().find("TestBody"));
    EXPECT_EQ("Agent::ParseFailed", TAVIK_EXC(ParseFailed, "x").code());
}

TEST(ExceptionModel, VisitorSeesOuterThenEachCause) {
    auto innermost = TAVIK_EXC(StreamRead);
    const int innermostLine = __LINE__ - 1;
    auto middle = makeWrappedExc<&FileWrite>(innermost, "ctx-middle", "middle.cc", 7, "f", "why");
    auto outer = makeWrappedExc<&CantRetrieveDump>(middle, "ctx-outer", "outer.cc", 3);
    RecordingVisitor v;
    outer.accept(v);
    EXPECT_EQ(
        "context=ctx-outer|file=outer.cc|line=3|code=CantRetrieveDump|"
        "message=Error during dump retrieval|inner|context=ctx-middle|file=middle.cc|"
        "line=7|code=FileWrite|message=Error during f write: why|inner|context=" +
            innermost.context() + "|file=" + __FILE__ + "|line=" + std::to_string(innermostLine) +
            "|code=StreamRead|message=Cannot read data from the stream|",
        v.calls);
}

TEST(ExceptionModel, UntaggedBasesVisitCodeAndMessageOnly) {
    ExTaggedIncludable outer("Outer", "outer %1%");
    outer % 42;
    outer.setInner(ExTraceable("Inner", "plain"));
    RecordingVisitor v;
    outer.accept(v);
    EXPECT_EQ("code=Outer|message=outer 42|inner|code=Inner|message=plain|", v.calls);
}

TEST(ExceptionModel, ClonesAndCopiesOwnTheirCauseChain) {
    std::unique_ptr<ExTraceable> copy;
    {
        auto cause = TAVIK_EXC(FileWrite, "dump-name", "disk full");
        auto source = makeWrappedExc<&CantRetrieveDump>(cause, "ctx", "f.cc", 1);
        copy.reset(source.clone());
        auto assigned = source;
        EXPECT_NE(source.inner(), assigned.inner());
    }
    auto* wrapped = dynamic_cast<Exc<&CantRetrieveDump>*>(copy.get());
    ASSERT_NE(nullptr, wrapped);
    ASSERT_NE(nullptr, wrapped->inner());
    EXPECT_STREQ("Error during dump-name write: disk full", wrapped->inner()->what());
    EXPECT_NE(nullptr, dynamic_cast<const Exc<&FileWrite>*>(wrapped->inner()));
}

// A catch of our own kinds must never swallow a requested stop.
TEST(ExceptionModel, TerminationStandsOutsideTheHierarchy) {
    MigrationTerminatedException e;
    EXPECT_EQ(nullptr, dynamic_cast<const ExTraceable*>(static_cast<const std::exception*>(&e)));
}

// Every kind formatted once with as many arguments as its format has placeholders: a format
// with a typo in its placeholders fails here instead of at a raise site in the field.
template <void (*Tag)()>
void expectFormats(int placeholders) {
    Exc<Tag> e("ctx", "file", 1);
    for (int i = 1; i <= placeholders; ++i) e % ("a" + std::to_string(i));
    EXPECT_NO_THROW(e.message()) << e.code();
    for (int i = 1; i <= placeholders; ++i)
        EXPECT_NE(std::string::npos, e.message().find("a" + std::to_string(i))) << e.code();
}

int countPlaceholders(const std::string& format) {
    int highest = 0;
    for (size_t i = 0; i + 2 < format.size(); ++i)
        if (format[i] == '%' && isdigit(static_cast<unsigned char>(format[i + 1])))
            highest = std::max(highest, format[i + 1] - '0');
    return highest;
}

TEST(ExceptionModel, EveryKindFormatsWithItsOwnArgumentCount) {
#define TAVIK_CHECK_KIND(tag, code, format) expectFormats<&tag>(countPlaceholders(format));
    TAVIK_EXCEPTION_KINDS(TAVIK_CHECK_KIND)
#undef TAVIK_CHECK_KIND
}

}  // namespace
}  // namespace tavik
