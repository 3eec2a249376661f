#include "xml/migration_status.h"

#include <gtest/gtest.h>
#include <libxml/parser.h>

#include <atomic>
#include <string>
#include <thread>

#include "commons/exceptions.h"
#include "ferrygate/session.h"
#include "support/sandbox_env.h"
#include "support/xml_render.h"

namespace tavik {
namespace {

using testing::renderFile;

// A session in a scratch directory, hmxadm made first so that the session and saves are quiet.
class MigrationStatusTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(haveHmxadm_); }
    std::string written() const { return renderFile(theSession->getStatusFileName()); }
    std::string save(MigrationStatus& status) const {
        status.saveFile();
        return written();
    }

    const bool haveHmxadm_ = testing::addSystemAccount("hmxadm");
    testing::ScratchDir dir_;
    SessionLifetimeController session_{dir_.path() + "/session"};
};

TEST_F(MigrationStatusTest, EveryStateWritesItsOwnStructure) {
    MigrationStatusPtr status = createMigrationStatusFile();
    EXPECT_EQ("missing", written()) << "nothing may be written before saveFile";
    MigrationStatus& s = *status;
    s.setAgentParams("src");
    s.setAgentOperation(MigrationStatus::opDeploy);
    EXPECT_EQ("migration-status(agent[action=deploy](host:src))", save(s));
    s.setAgentOperation(MigrationStatus::opWait);
    EXPECT_EQ("migration-status(agent[action=wait](host:src))", save(s));

    s.setTransferDump();
    EXPECT_EQ("migration-status(transfer(host:src,dumpfile))", save(s));

    s.setTransferSpeed("1200");
    s.setTransferTotals("10", "5000");
    EXPECT_EQ(
        "migration-status(transfer[speed=1200](host:src,"
        "files[total=10,left=10,size-total=5000,size-left=5000]))",
        save(s));
    s.setCurrentFile("a<b>.tgz", "300");
    s.setTransferCurrentFileSizeLeft("100");
    s.setTransferFilesLeft("9");
    s.setTransferSizeLeft("4800");
    EXPECT_EQ(
        "migration-status(transfer[speed=1200](host:src,files[total=10,left=9,"
        "size-total=5000,size-left=4800](current-file[size=300,size-left=100]:a<b>.tgz)))",
        save(s));

    s.setTranslate();
    EXPECT_EQ("migration-status(translate)", save(s));

    s.setDeployTotals("3", "7");
    EXPECT_EQ(
        "migration-status[total-accounts=3,total-domains=7,completed-accounts=,"
        "completed-domains=]",
        save(s));
    s.setDeploy("1", "2");
    s.setCurrentObject("example.org", MigrationStatus::objDomain);
    s.saveFile();
    const std::string counters =
        "migration-status[total-accounts=3,total-domains=7,completed-accounts=1,"
        "completed-domains=2]";
    EXPECT_EQ(counters + "(current-object[type=domain]:example.org)", written());
    s.setCurrentObject("jdoe", MigrationStatus::objAccount);
    EXPECT_EQ(counters + "(current-object[type=account]:jdoe)", save(s));

    // Only the children are rebuilt: the deploy counters stay on the root in later states.
    s.setIdle();
    EXPECT_EQ(counters + "(idle)", save(s));

    s.setTransferDump();
    s.saveFile();
    status.reset();
    EXPECT_EQ(counters + "(idle)", written()) << "the end of a run leaves the status idle";
}

TEST_F(MigrationStatusTest, TransferWithoutSizesLeavesTheirAttributesOut) {
    MigrationStatusPtr status = createMigrationStatusFile();
    status->setTransferTotals("10", "");
    status->setCurrentFile("only-name", "");
    EXPECT_EQ("migration-status(transfer(host,files[total=10,left=10](current-file:only-name)))",
              save(*status));
}

void ignoreXmlMessage(void*, const char*, ...) {}

// A reader polling the file while the writer replaces it must always find a whole document.
TEST_F(MigrationStatusTest, ReaderNeverSeesAMissingOrPartialFile) {
    const std::string path = theSession->getStatusFileName();
    MigrationStatusPtr status = createMigrationStatusFile();
    status->setTransferTotals("1000", "65536000");
    status->saveFile();
    std::atomic<bool> stop(false);
    long reads = 0, bad = 0;
    std::thread reader([&] {
        xmlSetGenericErrorFunc(nullptr, ignoreXmlMessage);  // per thread
        for (; !stop; ++reads) {
            xmlDoc* doc = xmlReadFile(path.c_str(), nullptr, XML_PARSE_NONET);
            if (doc == nullptr || xmlDocGetRootElement(doc) == nullptr) ++bad;
            xmlFreeDoc(doc);
        }
    });
    // Documents of very different lengths, so that a file rewritten in place would be caught
    // half long, half short.
    for (int i = 0; i < 20000; ++i) {
        status->setCurrentFile(i % 2 ? "short" : std::string(1500, 'n'), "65536000");
        status->setTransferSizeLeft(std::to_string(65536000 - 65536 * i));
        status->saveFile();
    }
    stop = true;
    reader.join();
    EXPECT_GT(reads, 100) << "the reader did not run alongside the writer";
    EXPECT_EQ(0, bad);
    EXPECT_EQ((std::set<std::string>{"archives", "migration.status"}),
              testing::listDir(theSession->getDir()));
}

}  // namespace
}  // namespace tavik
