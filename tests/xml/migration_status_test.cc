#include "xml/migration_status.h"

#include <gtest/gtest.h>
#include <libxml/parser.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <iostream>
#include <string>

#include "commons/exceptions.h"
#include "ferrygate/session.h"
#include "support/sandbox_env.h"
#include "xml_test_util.h"

namespace tavik {
namespace {

using testing::outlineOfFile;
using testing::ScratchDir;

// A session in a scratch directory, with hmxadm present so that saves stay quiet.
class MigrationStatusTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(haveHmxadm_); }
    std::string written() const { return outlineOfFile(theSession->getStatusFileName()); }

    const bool haveHmxadm_ = testing::haveHmxadm();
    ScratchDir dir_;
    SessionLifetimeController session_{dir_.path() + "/session"};
};

TEST_F(MigrationStatusTest, FreshStatusShowsOnlyIdleAndNoPid) {
    MigrationStatusPtr status = createMigrationStatusFile();
    EXPECT_EQ("missing", written()) << "nothing may be written before saveFile";
    status->saveFile();
    EXPECT_EQ("migration-status(idle)", written());
}

TEST_F(MigrationStatusTest, EveryStateWritesItsOwnStructure) {
    MigrationStatusPtr status = createMigrationStatusFile();
    MigrationStatus& s = *status;
    s.setAgentParams("src.example");
    s.setAgentOperation(MigrationStatus::opDeploy);
    s.saveFile();
    EXPECT_EQ("migration-status(agent[action=deploy](host{src.example}))", written());
    s.setAgentOperation(static_cast<MigrationStatus::agentOperation>(7));
    s.saveFile();
    EXPECT_EQ("migration-status(agent[action=wait](host{src.example}))", written());

    s.setTransferDump();
    s.saveFile();
    EXPECT_EQ("migration-status(transfer(host{src.example} dumpfile))", written());

    s.setTransferSpeed("1200");
    s.setTransferTotals("10", "5000");
    s.saveFile();
    EXPECT_EQ(
        "migration-status(transfer[speed=1200](host{src.example} "
        "files[total=10,left=10,size-total=5000,size-left=5000]))",
        written());
    s.setCurrentFile("a<b>.tgz", "300");
    s.setTransferCurrentFileSizeLeft("100");
    s.setTransferFilesLeft("9");
    s.setTransferSizeLeft("4800");
    s.saveFile();
    EXPECT_EQ(
        "migration-status(transfer[speed=1200](host{src.example} "
        "files[total=10,left=9,size-total=5000,size-left=4800]"
        "(current-file[size=300,size-left=100]{a<b>.tgz})))",
        written());

    s.setTranslate();
    s.saveFile();
    EXPECT_EQ("migration-status(translate)", written());

    s.setDeployTotals("3", "7");
    s.saveFile();
    EXPECT_EQ(
        "migration-status[total-accounts=3,total-domains=7,completed-accounts=,"
        "completed-domains=]",
        written());
    s.setDeploy("1", "2");
    s.setCurrentObject("example.org", MigrationStatus::objDomain);
    s.saveFile();
    EXPECT_EQ(
        "migration-status[total-accounts=3,total-domains=7,completed-accounts=1,"
        "completed-domains=2](current-object[type=domain]{example.org})",
        written());
    s.setCurrentObject("jdoe", MigrationStatus::objAccount);
    s.saveFile();
    EXPECT_EQ(
        "migration-status[total-accounts=3,total-domains=7,completed-accounts=1,"
        "completed-domains=2](current-object[type=account]{jdoe})",
        written());

    // Only the children are rebuilt: the deploy counters stay on the root in later states.
    s.setIdle();
    s.saveFile();
    EXPECT_EQ(
        "migration-status[total-accounts=3,total-domains=7,completed-accounts=1,"
        "completed-domains=2](idle)",
        written());
}

TEST_F(MigrationStatusTest, TransferWithoutSizesOrCurrentFileSizeLeavesAttributesOut) {
    MigrationStatusPtr status = createMigrationStatusFile();
    status->setTransferTotals("10", "");
    status->setCurrentFile("only-name", "");
    status->saveFile();
    EXPECT_EQ(
        "migration-status(transfer(host files[total=10,left=10]"
        "(current-file{only-name})))",
        written());
}

TEST_F(MigrationStatusTest, DestructionSavesIdle) {
    MigrationStatusPtr status = createMigrationStatusFile();
    status->setTransferDump();
    status->saveFile();
    status.reset();
    EXPECT_EQ("migration-status(idle)", written());
}

TEST_F(MigrationStatusTest, FinalSaveFailureReachesTheOwnerUnlessAnotherIsPropagating) {
    MigrationStatusPtr status = createMigrationStatusFile();
    const std::string saved = dir_.path() + "/moved";
    ASSERT_EQ(0, rename(theSession->getDir().c_str(), saved.c_str()));
    EXPECT_THROW(status.reset(), Exc<&CantCreateTempFile>);
    EXPECT_FALSE(status);

    try {
        MigrationStatusPtr dying = createMigrationStatusFile();
        throw std::runtime_error("first failure");
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ("first failure", e.what());
    }
}

TEST_F(MigrationStatusTest, SaveWithoutSessionIsRefused) {
    MigrationStatusPtr status = createMigrationStatusFile();
    SessionFiles* current = theSession;
    theSession = nullptr;
    EXPECT_THROW(status->saveFile(), Exc<&AssertionFailed>);
    theSession = current;
}

void ignoreXmlMessage(void*, const char*, ...) {}

// A reader polling the file while the writer replaces it must always find a whole document.
TEST_F(MigrationStatusTest, ReaderNeverSeesAMissingOrPartialFile) {
    const std::string path = theSession->getStatusFileName();
    MigrationStatusPtr status = createMigrationStatusFile();
    status->setTransferTotals("1000", "65536000");
    status->saveFile();

    struct Shared {
        std::atomic<bool> stop;
        std::atomic<long> reads;
        std::atomic<long> bad;
    };
    void* memory =
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(MAP_FAILED, memory);
    Shared* shared = new (memory) Shared{{false}, {0}, {0}};
    const pid_t reader = fork();
    ASSERT_NE(-1, reader);
    if (reader == 0) {
        xmlSetGenericErrorFunc(nullptr, ignoreXmlMessage);
        while (!shared->stop.load()) {
            xmlDoc* doc = xmlReadFile(path.c_str(), nullptr, XML_PARSE_NONET);
            if (doc == nullptr || xmlDocGetRootElement(doc) == nullptr) ++shared->bad;
            xmlFreeDoc(doc);
            ++shared->reads;
        }
        _exit(0);
    }

    const int saves = 20000;
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < saves; ++i) {
        status->setTransferSizeLeft(std::to_string(65536000 - 65536 * i));
        status->saveFile();
    }
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    shared->stop = true;
    int exitStatus = 0;
    ASSERT_EQ(reader, waitpid(reader, &exitStatus, 0));

    std::cout << "status saves per second with a reader polling: "
              << static_cast<long>(saves / elapsed.count()) << " (" << shared->reads << " reads)\n";
    EXPECT_GT(shared->reads.load(), 100) << "the reader did not run alongside the writer";
    EXPECT_EQ(0, shared->bad.load());
    EXPECT_EQ(1u, testing::listDir(theSession->getDir()).count("migration.status"));
    EXPECT_EQ(2u, testing::listDir(theSession->getDir()).size()) << "temporary files left";
    munmap(memory, sizeof(Shared));
}

}  // namespace
}  // namespace tavik
