#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "commons/exceptions.h"
#include "support/sandbox_env.h"
#include "xml/xml_wrap.h"
#include "xml_test_util.h"

namespace tavik {
namespace {

using testing::haveHmxadm;
using testing::listDir;
using testing::outlineOfFile;
using testing::readFile;
using testing::ScratchDir;
using testing::writeTextFile;

tXmlRkuDocument documentWithRoot(const std::string& root, const std::string& text = "") {
    tXmlRkuDocument doc;
    doc.initNewDoc(root);
    if (!text.empty()) doc.newTextChild(doc.getRootNode(), "t", text);
    return doc;
}

// The one name in `dir` besides `target`: what a failed save left behind.
std::string leftoverBeside(const std::string& dir, const std::string& target) {
    std::set<std::string> names = listDir(dir);
    names.erase(target);
    return names.size() == 1 ? dir + "/" + *names.begin() : "none or several";
}

TEST(AtomicSave, ReplacesTheTargetWithAFileOfHmxadm) {
    ASSERT_TRUE(haveHmxadm());
    const passwd* hmxadm = getpwnam("hmxadm");
    ASSERT_NE(nullptr, hmxadm);
    ScratchDir dir;
    const std::string target = dir.path() + "/status.xml";
    writeTextFile(target, "old");
    documentWithRoot("new").saveToFileAtomically(target);
    EXPECT_EQ("new", outlineOfFile(target));
    struct stat st = {};
    ASSERT_EQ(0, stat(target.c_str(), &st));
    EXPECT_EQ(hmxadm->pw_uid, st.st_uid);
    EXPECT_EQ(hmxadm->pw_gid, st.st_gid);
    EXPECT_EQ(std::set<std::string>{"status.xml"}, listDir(dir.path()));
}

TEST(AtomicSave, BareNameIsReplacedInTheCurrentDirectory) {
    ASSERT_TRUE(haveHmxadm());
    ScratchDir dir;
    ASSERT_EQ(0, chdir(dir.path().c_str()));
    documentWithRoot("here").saveToFileAtomically("status.xml");
    EXPECT_EQ("here", outlineOfFile(dir.path() + "/status.xml"));
    EXPECT_EQ(std::set<std::string>{"status.xml"}, listDir(dir.path()));
}

TEST(AtomicSave, MissingDirectoryFailsOnTheTemporaryFile) {
    ScratchDir dir;
    try {
        documentWithRoot("r").saveToFileAtomically(dir.path() + "/missing/status.xml");
        FAIL() << "saved into a missing directory";
    } catch (const Exc<&CantCreateTempFile>& e) {
        EXPECT_EQ("Can not create temporary file with the template '" + dir.path() +
                      "/missing/status.xmlXXXXXX': No such file or directory.",
                  e.message());
    }
    EXPECT_TRUE(listDir(dir.path()).empty());
}

// An unprivileged process may write the directory but not give files away.
TEST(AtomicSave, RefusedOwnerChangeLeavesTheNewFileBesideTheUntouchedTarget) {
    ASSERT_TRUE(haveHmxadm());
    ScratchDir dir;
    ASSERT_EQ(0, chmod(dir.path().c_str(), 0777));
    const std::string target = dir.path() + "/status.xml";
    writeTextFile(target, "old");
    int pipeFds[2];
    ASSERT_EQ(0, pipe(pipeFds));
    const pid_t child = fork();
    ASSERT_NE(-1, child);
    if (child == 0) {
        close(pipeFds[0]);
        int code = 3;
        if (setgid(65534) == 0 && setuid(65534) == 0) {
            try {
                documentWithRoot("new").saveToFileAtomically(target);
                code = 2;
            } catch (const Exc<&CantTakeFileOwnership>& e) {
                const std::string message = e.message();
                code = write(pipeFds[1], message.data(), message.size()) < 0 ? 4 : 0;
            } catch (...) {
            }
        }
        _exit(code);
    }
    close(pipeFds[1]);
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    char buffer[4096];
    const ssize_t n = read(pipeFds[0], buffer, sizeof buffer);
    close(pipeFds[0]);
    ASSERT_TRUE(WIFEXITED(status));
    ASSERT_EQ(0, WEXITSTATUS(status)) << "2: saved, 3: could not drop root, other: wrong kind";

    const std::string leftover = leftoverBeside(dir.path(), "status.xml");
    EXPECT_EQ("Cannot take ownership of " + leftover + ": Operation not permitted",
              std::string(buffer, n > 0 ? n : 0));
    EXPECT_EQ("new", outlineOfFile(leftover));
    EXPECT_EQ("old", readFile(target));
}

TEST(AtomicSave, FailedRenameLeavesTheNewFileBesideTheTarget) {
    ASSERT_TRUE(haveHmxadm());
    ScratchDir dir;
    const std::string target = dir.path() + "/status.xml";
    writeTextFile(target + "/occupied", "x");
    try {
        documentWithRoot("new").saveToFileAtomically(target);
        FAIL() << "renamed over a directory";
    } catch (const Exc<&CantRenameFile>& e) {
        const std::string leftover = leftoverBeside(dir.path(), "status.xml");
        EXPECT_EQ("Cannot rename " + leftover + " to " + target + ": Is a directory", e.message());
        EXPECT_EQ("new", outlineOfFile(leftover));
    }
    EXPECT_EQ("x", readFile(target + "/occupied"));
}

TEST(AtomicSave, FullFileSystemFailsTheWriteAndKeepsTheTarget) {
    ASSERT_TRUE(haveHmxadm());
    ScratchDir dir;
    // Two blocks: one for the old target, one too few for the new document.
    ASSERT_EQ(0, mount("ferrygate-full", dir.path().c_str(), "tmpfs", 0, "size=8k"));
    const std::string target = dir.path() + "/status.xml";
    writeTextFile(target, "old");
    try {
        documentWithRoot("new", std::string(20000, 'x')).saveToFileAtomically(target);
        ADD_FAILURE() << "saved into a full file system";
    } catch (const Exc<&tError_SaveFile>& e) {
        EXPECT_EQ(0u, e.message().find("Can not save the XML document to file '" + target))
            << e.message();
    }
    EXPECT_EQ("old", readFile(target));
    umount(dir.path().c_str());
}

}  // namespace
}  // namespace tavik
