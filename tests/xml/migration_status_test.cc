#include "xml/migration_status.h"

#include <gtest/gtest.h>
#include <libxml/parser.h>

#include <atomic>
#include <string>
#include <thread>

#include "support/sandbox_env.h"
#include "support/xml_render.h"

namespace tavik {
namespace {

class MigrationStatusTest : public ::testing::Test {
  protected:
    ~MigrationStatusTest() noexcept override {}  // holds a status, whose destructor may throw
    std::string save(MigrationStatus& status) const {
        status.saveFile();
        return testing::renderFile(file_);
    }

    testing::ScratchDir dir_;
    const std::string file_ = dir_.path() + "/migration.status";
    MigrationStatusPtr status_ = createMigrationStatusFile(file_, {getuid(), getgid()});
};

// The agent and transfer states as the actions go through them are checked by the actions'
// progress test; here the rest, and values that need escaping or filtering.
TEST_F(MigrationStatusTest, EveryStateWritesItsOwnStructure) {
    EXPECT_EQ("missing", testing::renderFile(file_)) << "nothing may be written before saveFile";
    MigrationStatus& s = *status_;
    s.setTransferTotals("10", "");
    s.setCurrentFile("a<b>\xc3\xbc\x01.tgz", "");
    EXPECT_EQ(
        "migration-status(transfer(host,files[total=10,left=10](current-file:a<b>\xc3\xbc.tgz)))",
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
    const std::string counters =
        "migration-status[total-accounts=3,total-domains=7,completed-accounts=1,"
        "completed-domains=2]";
    EXPECT_EQ(counters + "(current-object[type=domain]:example.org)", save(s));
    s.setCurrentObject("jdoe", MigrationStatus::objAccount);
    EXPECT_EQ(counters + "(current-object[type=account]:jdoe)", save(s));

    // Only the children are rebuilt: the deploy counters stay on the root in later states.
    s.setTransferDump();
    EXPECT_EQ(counters + "(transfer(host,dumpfile))", save(s));
    status_.reset();
    EXPECT_EQ(counters + "(idle)", testing::renderFile(file_)) << "a run ends with idle";
}

void ignoreXmlMessage(void*, const char*, ...) {}

// A reader polling the file while the writer replaces it must always find a whole document.
TEST_F(MigrationStatusTest, ReaderNeverSeesAMissingOrPartialFile) {
    status_->setTransferTotals("1000", "65536000");
    status_->saveFile();
    std::atomic<bool> stop(false);
    long reads = 0, bad = 0;
    std::thread reader([&] {
        xmlSetGenericErrorFunc(nullptr, ignoreXmlMessage);  // per thread
        for (; !stop; ++reads) {
            xmlDoc* doc = xmlReadFile(file_.c_str(), nullptr, XML_PARSE_NONET);
            if (doc == nullptr || xmlDocGetRootElement(doc) == nullptr) ++bad;
            xmlFreeDoc(doc);
        }
    });
    // Documents of very different lengths, so that a file rewritten in place would be caught
    // half long, half short.
    for (int i = 0; i < 20000; ++i) {
        status_->setCurrentFile(i % 2 ? "short" : std::string(1500, 'n'), "65536000");
        status_->setTransferSizeLeft(std::to_string(65536000 - 65536 * i));
        status_->saveFile();
    }
    stop = true;
    reader.join();
    EXPECT_GT(reads, 100) << "the reader did not run alongside the writer";
    EXPECT_EQ(0, bad);
    EXPECT_EQ(std::set<std::string>{"migration.status"}, testing::listDir(dir_.path()));
}

}  // namespace
}  // namespace tavik
