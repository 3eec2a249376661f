#include "ferrygate/dump_options.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/sandbox_env.h"

namespace tavik {
namespace {

using Args = std::vector<std::string>;

class DumpOptionsTest : public ::testing::Test {
  protected:
    DumpOptionsTest() { cfg_.action = ACTION_DUMP_SELECTED; }

    void selectionFile(const std::string& parameters, const std::string& objects) {
        cfg_.selectedObjectsFile = dir_.path() + "/selected.xml";
        testing::writeTextFile(cfg_.selectedObjectsFile, "<selection><parameters " + parameters +
                                                             "/>" + objects + "</selection>");
    }

    // The agent's arguments in order, then "|" and its input.
    std::string prepare() {
        Args args;
        std::string input;
        prepareDumpAgentArguments(cfg_, args, input);
        std::string all;
        for (const std::string& arg : args) all += arg + " ";
        return all + "| " + input;
    }

    testing::ScratchDir dir_;
    config cfg_;
};

const char kObjects[] =
    "<reseller><name>r1</name><client><name>c1</name><domain><name>d1</name></domain></client>"
    "</reseller><domain><name>d2</name></domain><domain><name></name></domain>";

TEST_F(DumpOptionsTest, TheFileComesFirstAndTheCommandLineAddsToItsListsAndOverridesItsParameters) {
    selectionFile("filter=\"only-phosting\" compression-level=\"do-not-compress\"", kObjects);
    cfg_.domains = "x";
    cfg_.resellers = "r2,r3";
    EXPECT_EQ(
        "--dump-domains=- --dump-clients=- --dump-resellers=- --only-hosting --no-compress "
        "--include-app-distrib | d1,d2,x\nc1\nr1,r2,r3",
        prepare());
    cfg_.filter = FILTER_ONLY_MAIL;
    EXPECT_NE(std::string::npos, prepare().find("--dump-resellers=- --only-mail --no-compress"));

    // Only the file format's own spellings count; a list not given has no argument nor line.
    cfg_ = config();
    cfg_.action = ACTION_DUMP_SELECTED;
    selectionFile("filter=\"only-hosting\" compression-level=\"none\"", "");
    cfg_.clients = "c";
    cfg_.resellers = "r";
    EXPECT_EQ("--dump-clients=- --dump-resellers=- --include-app-distrib | c\nr", prepare());
}

// The rsync lines ahead of the lists are checked by the dump-selected migration.
TEST_F(DumpOptionsTest, DumpAllIgnoresTheSelection) {
    selectionFile("filter=\"only-mail\"", kObjects);
    cfg_.action = ACTION_DUMP_ALL;
    cfg_.compress = COMPRESS_NONE;
    cfg_.filter = FILTER_ONLY_MAIL;
    cfg_.domains = "d";
    EXPECT_EQ("--dump-all | ", prepare());
}

}  // namespace
}  // namespace tavik
