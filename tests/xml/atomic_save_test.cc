#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "support/raised.h"
#include "support/sandbox_env.h"
#include "support/xml_render.h"
#include "xml/xml_wrap.h"

namespace tavik {
namespace {

using testing::listDir;
using testing::messageOf;
using testing::readFile;
using testing::renderFile;
using testing::ScratchDir;

// A document saved atomically over `target`, an existing file that holds "old".
class AtomicSave : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(testing::addSystemAccount("hmxadm"));
        testing::writeTextFile(target_, "old");
        doc_.initNewDoc("new");
    }
    ~AtomicSave() noexcept override {}  // holds a document, whose destructor may throw

    ScratchDir dir_;
    const std::string target_ = dir_.path() + "/status.xml";
    tXmlRkuDocument doc_;
};

TEST_F(AtomicSave, ReplacesTheTargetWithAFileOfHmxadm) {
    doc_.saveToFileAtomically(target_);
    EXPECT_EQ("new", renderFile(target_));
    struct stat st = {};
    ASSERT_EQ(0, stat(target_.c_str(), &st));
    EXPECT_EQ(getpwnam("hmxadm")->pw_uid, st.st_uid);
    EXPECT_EQ(getpwnam("hmxadm")->pw_gid, st.st_gid);
    EXPECT_EQ(std::set<std::string>{"status.xml"}, listDir(dir_.path()));

    // A bare name is replaced in the current directory, not from the default temporary one.
    ASSERT_EQ(0, chdir(dir_.path().c_str()));
    doc_.newChild(doc_.getRootNode(), "again");
    doc_.saveToFileAtomically("status.xml");
    EXPECT_EQ("new(again)", renderFile(target_));
    EXPECT_EQ(1u, listDir(dir_.path()).size());
}

// An unprivileged process may write the directory but not give files away: the save fails,
// and neither the target nor the directory show any trace of it.
TEST_F(AtomicSave, RefusedOwnerChangeLeavesNothingBehindAndTheTargetUntouched) {
    ASSERT_EQ(0, chmod(dir_.path().c_str(), 0777));
    EXPECT_EXIT(
        {
            if (setgid(65534) != 0 || setuid(65534) != 0) _exit(3);
            const std::string message =
                messageOf<&CantTakeFileOwnership>([&] { doc_.saveToFileAtomically(target_); });
            fprintf(stderr, "%s\n", message.c_str());
            _exit(message.rfind("Cannot take ownership of " + target_, 0) == 0 ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "Cannot take ownership of .*: Operation not permitted");
    EXPECT_EQ(std::set<std::string>{"status.xml"}, listDir(dir_.path()));
    EXPECT_EQ("old", readFile(target_));
}

TEST_F(AtomicSave, FullFileSystemFailsTheWriteAndKeepsTheTarget) {
    // Two blocks: one for the old target, one too few for the new document.
    ASSERT_EQ(0, mount("ferrygate-full", dir_.path().c_str(), "tmpfs", 0, "size=8k"));
    testing::writeTextFile(target_, "old");
    doc_.newTextChild(doc_.getRootNode(), "big", std::string(20000, 'x'));
    EXPECT_EQ(0u, messageOf<&tError_SaveFile>([&] {
                      doc_.saveToFileAtomically(target_);
                  }).find("Can not save the XML document to file '" + target_));
    EXPECT_EQ("old", readFile(target_));
    EXPECT_EQ(std::set<std::string>{"status.xml"}, listDir(dir_.path()));
    umount(dir_.path().c_str());
}

}  // namespace
}  // namespace tavik
