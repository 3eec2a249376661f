#include "ferrygate/dump_options.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "commons/exceptions.h"
#include "support/sandbox_env.h"

namespace tavik {
namespace {

using testing::ScratchDir;
using Args = std::vector<std::string>;

struct Prepared {
    Args args;
    std::string input;
};

Prepared prepare(const config& cfg) {
    Prepared p;
    prepareDumpAgentArguments(cfg, p.args, p.input);
    return p;
}

class DumpOptionsTest : public ::testing::Test {
  protected:
    DumpOptionsTest() { cfg_.action = ACTION_DUMP_SELECTED; }

    // A selection file with the given <parameters> attributes and objects.
    void selectionFile(const std::string& parameters, const std::string& objects) {
        cfg_.selectedObjectsFile = dir_.path() + "/selected.xml";
        testing::writeTextFile(cfg_.selectedObjectsFile,
                               "<?xml version=\"1.0\"?>\n<selection>\n  <parameters " + parameters +
                                   "/>\n" + objects + "</selection>\n");
    }

    ScratchDir dir_;
    config cfg_;
};

const char kObjects[] =
    "  <reseller><name>r1</name><client><name>c1</name>\n"
    "    <domain><name>d1</name></domain></client></reseller>\n"
    "  <domain><name>d2</name></domain>\n"
    "  <domain><name></name></domain>\n";

TEST_F(DumpOptionsTest, TheFileComesFirstAndTheCommandLineAddsToItsListsAndOverridesItsParameters) {
    selectionFile("filter=\"only-phosting\" compression-level=\"do-not-compress\"", kObjects);
    cfg_.domains = "x";
    cfg_.resellers = "r2,r3";
    Prepared p = prepare(cfg_);
    EXPECT_EQ((Args{"--dump-domains=-", "--dump-clients=-", "--dump-resellers=-", "--only-hosting",
                    "--no-compress", "--include-app-distrib"}),
              p.args);
    EXPECT_EQ("d1,d2,x\nc1\nr1,r2,r3", p.input);

    cfg_.filter = FILTER_ONLY_MAIL;
    EXPECT_EQ((Args{"--dump-domains=-", "--dump-clients=-", "--dump-resellers=-", "--only-mail",
                    "--no-compress", "--include-app-distrib"}),
              prepare(cfg_).args);
}

TEST_F(DumpOptionsTest, OnlyTheFileFormatsOwnSpellingsSetFilterAndCompression) {
    const struct {
        std::string parameters;
        opt_backup_filter filter;
        opt_backup_compress compress;
    } cases[] = {
        {"filter=\"only-mail\" compression-level=\"standard\"", FILTER_ONLY_MAIL,
         COMPRESS_STANDARD},
        {"filter=\"only-hosting\" compression-level=\"none\"", FILTER_EVERYTHING,
         COMPRESS_NOT_SPECIFIED},
        {"", FILTER_EVERYTHING, COMPRESS_NOT_SPECIFIED},
    };
    for (const auto& c : cases) {
        selectionFile(c.parameters, "");
        std::string domains, clients, resellers;
        opt_backup_filter filter = FILTER_EVERYTHING;
        opt_backup_compress compress = COMPRESS_NOT_SPECIFIED;
        parseSelectedObjectsFile(cfg_.selectedObjectsFile, domains, clients, resellers, filter,
                                 compress);
        EXPECT_EQ(c.filter, filter) << c.parameters;
        EXPECT_EQ(c.compress, compress) << c.parameters;
    }
}

TEST_F(DumpOptionsTest, ListsBecomeLinesOnlyForTheArgumentsGiven) {
    const struct {
        const char *domains, *clients, *resellers;
        Args args;
        const char* input;
    } cases[] = {
        {"a,b", "", "", {"--dump-domains=-", "--include-app-distrib"}, "a,b"},
        {"", "c", "r", {"--dump-clients=-", "--dump-resellers=-", "--include-app-distrib"}, "c\nr"},
        {"", "", "", {"--include-app-distrib"}, ""},
    };
    for (const auto& c : cases) {
        cfg_.domains = c.domains;
        cfg_.clients = c.clients;
        cfg_.resellers = c.resellers;
        const Prepared p = prepare(cfg_);
        EXPECT_EQ(c.args, p.args) << c.input;
        EXPECT_EQ(c.input, p.input);
    }
}

TEST_F(DumpOptionsTest, RsyncConnectionLinesComeFirstAndDumpAllIgnoresTheSelection) {
    cfg_.contentTransport = "rsync";
    cfg_.host = "src.example";
    cfg_.login = "admin";
    cfg_.password = "pw";
    cfg_.domains = "d";
    Prepared p = prepare(cfg_);
    EXPECT_EQ((Args{"--content-transport=rsync", "--dump-domains=-", "--include-app-distrib"}),
              p.args);
    EXPECT_EQ("src.example\nadmin\npw\n0\nd", p.input);

    selectionFile("filter=\"only-mail\"", kObjects);
    cfg_.action = ACTION_DUMP_ALL;
    cfg_.port = 2222;
    cfg_.compress = COMPRESS_NONE;
    cfg_.filter = FILTER_ONLY_MAIL;
    p = prepare(cfg_);
    EXPECT_EQ((Args{"--content-transport=rsync", "--dump-all"}), p.args);
    EXPECT_EQ("src.example\nadmin\npw\n2222\n", p.input);

    cfg_.contentTransport = "Rsync";
    p = prepare(cfg_);
    EXPECT_EQ((Args{"--dump-all"}), p.args);
    EXPECT_EQ("", p.input);

    cfg_.action = ACTION_GET_CONTENT;
    EXPECT_THROW(prepare(cfg_), Exc<&UnknownAction>);
}

TEST_F(DumpOptionsTest, AMissingSelectionFileIsTheXmlLayersError) {
    cfg_.selectedObjectsFile = dir_.path() + "/missing.xml";
    EXPECT_THROW(prepare(cfg_), Exc<&tError_WrongInputFile>);
    testing::writeTextFile(cfg_.selectedObjectsFile, "<selection>");
    EXPECT_THROW(prepare(cfg_), Exc<&tError_ParseFile>);
}

}  // namespace
}  // namespace tavik
