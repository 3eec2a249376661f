#include <gtest/gtest.h>

#include <string>

#include "support/product_root.h"
#include "support/run_program.h"
#include "support/sandbox_env.h"

namespace tavik {
namespace {

using testing::ProductRoot;
using testing::ProgramResult;
using testing::readTextFile;
using testing::runProgram;
using testing::ScratchDir;

const char kShippedLogProperties[] = FERRYGATE_SOURCE_DIR "/data/log4cpp.properties";

size_t find(const std::string& text, const std::string& what, size_t from = 0) {
    const size_t at = text.find(what, from);
    EXPECT_NE(std::string::npos, at) << "no \"" << what << "\" in:\n" << text;
    return at;
}

TEST(DriverLog, AVerificationFailureIsRecordedInTheSessionLogBetweenStartAndEnd) {
    ASSERT_TRUE(testing::addSystemAccount("hmxadm"));
    ProductRoot product(kShippedLogProperties);
    ScratchDir cwd;
    ProgramResult r =
        runProgram(FERRYGATE_BINARY, {"--send-scout", "--session-path", "S"}, cwd.path());
    EXPECT_EQ(1, r.exitCode);
    EXPECT_EQ("", r.out);
    EXPECT_EQ("", r.err);

    const std::string log = readTextFile(cwd.path() + "/S/migration.log");
    size_t at = find(log, std::string(" [INFO] p.log: Ferrygate started : ") + FERRYGATE_BINARY +
                              " --send-scout --session-path S\n");
    at = find(log,
              "[INFO] p.log: OptParsingError: Unable to parse command line: host is required "
              "unless --help or -h requested\n [",
              at);
    at = find(log, "/ferrygate/options.cc:", at);
    at = find(log, "[INFO] p.log: Ferrygate finished. Exit code: 1\n", at);
    EXPECT_EQ(log.size(),
              at + std::string("[INFO] p.log: Ferrygate finished. Exit code: 1\n").size());
    EXPECT_EQ("", readTextFile(cwd.path() + "/S/migration.log.debug"));
}

TEST(DriverLog, VerboseAddsTheDebugOutputBesideTheSessionLog) {
    ASSERT_TRUE(testing::addSystemAccount("hmxadm"));
    ProductRoot product(kShippedLogProperties);
    ScratchDir cwd;
    ProgramResult r =
        runProgram(FERRYGATE_BINARY, {"--send-scout", "--session-path=S", "--verbose"}, cwd.path());
    EXPECT_EQ(1, r.exitCode);
    EXPECT_EQ("", r.out);
    EXPECT_EQ("", r.err);
    const std::string debug = readTextFile(cwd.path() + "/S/migration.log.debug");
    find(debug, "p.log: Ferrygate started : ");
    find(debug, "p.log: Ferrygate finished. Exit code: 1\n");
}

TEST(DriverLog, WithoutTheLogConfigurationTheRunStopsAtTheLastResortHandler) {
    ASSERT_TRUE(testing::addSystemAccount("hmxadm"));
    ScratchDir product;
    testing::writeTextFile("/etc/hmx/hmx.conf", "PRODUCT_ROOT_D " + product.path() + "\n");
    ScratchDir cwd;
    ProgramResult r =
        runProgram(FERRYGATE_BINARY, {"--send-scout", "--session-path", "S"}, cwd.path());
    EXPECT_EQ(1, r.exitCode);
    EXPECT_EQ(0u, r.err.find("Uncaught std::exception: ")) << r.err;
    find(r.err, product.path() + "/RKU/log4cpp.properties");
}

}  // namespace
}  // namespace tavik
