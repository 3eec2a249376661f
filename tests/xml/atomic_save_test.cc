// Files that others read are replaced whole: a reader polling one never sees it missing or half
// written, and a save that fails leaves the old version.
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <boost/filesystem.hpp>
#include <string>
#include <thread>

#include "support/sandbox_env.h"
#include "xml/migration_status.h"
#include "xml/xml_wrap.h"

namespace tavik {
namespace {

using testing::renderFile;

// A status file is replaced whole by a file of hmxadm; a save that fails (here a full file
// system) leaves the old version and nothing beside it.
TEST(AtomicSave, ReplacesTheTargetWithAFileOfHmxadmOrLeavesItUntouched) {
    ASSERT_TRUE(testing::addSystemAccount("hmxadm"));
    testing::ScratchDir dir;
    const std::string target = dir.path() + "/status.xml";
    // Two blocks: one for the target, one too few for the big document below.
    ASSERT_EQ(0, mount("ferrygate-full", dir.path().c_str(), "tmpfs", 0, "size=8k"));
    testing::writeTextFile(target, "old");
    tXmlRkuDocument doc;
    doc.initNewDoc("new");
    doc.saveToFileAtomically(target);
    EXPECT_EQ("new", renderFile(target));
    struct stat st = {};
    ASSERT_EQ(0, stat(target.c_str(), &st));
    EXPECT_EQ(getpwnam("hmxadm")->pw_uid, st.st_uid);
    EXPECT_EQ(getpwnam("hmxadm")->pw_gid, st.st_gid);

    // A bare name is replaced in the current directory, not from the default temporary one.
    ASSERT_EQ(0, chdir(dir.path().c_str()));
    doc.newChild(doc.getRootNode(), "again");
    doc.saveToFileAtomically("status.xml");
    EXPECT_EQ("new(again)", renderFile(target));

    doc.newTextChild(doc.getRootNode(), "big", std::string(20000, 'x'));
    EXPECT_EQ(0u, testing::messageOf<&tError_SaveFile>([&] {
                      doc.saveToFileAtomically(target);
                  }).find("Can not save the XML document to file '" + target));
    EXPECT_EQ("new(again)", renderFile(target));
    EXPECT_EQ(std::set<std::string>{"status.xml"}, testing::listDir(dir.path()));
    ASSERT_EQ(0, chdir("/"));
    umount(dir.path().c_str());
}

// A reader polling the file while the writer replaces it must always find a whole document.
TEST(AtomicSave, AReaderNeverSeesAMissingOrPartialStatusFile) {
    testing::ScratchDir dir;
    const std::string file = dir.path() + "/migration.status";
    MigrationStatusPtr status = createMigrationStatusFile(file, {getuid(), getgid()});
    EXPECT_FALSE(boost::filesystem::exists(file)) << "nothing may be written before saveFile";
    status->setTransferTotals("1000", "65536000");
    status->saveFile();
    std::atomic<bool> stop(false);
    long reads = 0, bad = 0;
    std::thread reader([&] {
        for (; !stop; ++reads) bad += renderFile(file).rfind("migration-status(", 0) != 0;
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
    EXPECT_EQ(std::set<std::string>{"migration.status"}, testing::listDir(dir.path()));
}

}  // namespace
}  // namespace tavik
