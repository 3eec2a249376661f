#include "ferrygate/action.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <boost/filesystem/operations.hpp>
#include <memory>
#include <sstream>

#include "commons/exceptions.h"
#include "ferrygate/session.h"
#include "support/fake_ssh.h"
#include "support/raised.h"
#include "support/sandbox_env.h"

namespace tavik {
namespace {

using testing::FakeSsh;
using testing::messageOf;
using testing::readFile;
using testing::Reply;
using testing::ScratchDir;
using testing::SentCommand;

class NoOpAction : public Action {
  public:
    NoOpAction() : Action(true) {}
    void execute() override {}
};

class ActionBase : public ::testing::Test {
  protected:
    void SetUp() override {
        session_.reset(new SessionLifetimeController(scratch_.path() + "/session"));
        cfg_.host = "src.example";
        cfg_.login = "mover";
        cfg_.agentDir = "/opt/agent dir";
    }
    void TearDown() override {
        alarm(0);
        pAction = nullptr;
    }

    std::unique_ptr<NoOpAction> makeAction(FakeSsh::Responder reply = FakeSsh::Responder()) {
        std::unique_ptr<NoOpAction> action(new NoOpAction);
        action->setConfig(&cfg_);
        action->setSsh(std::unique_ptr<Ssh>(new FakeSsh(&sent_, reply)));
        return action;
    }

    std::string run(Action& action, const std::string& cmd, const std::string& input) {
        std::istringstream in(input);
        std::ostringstream out, err;
        action.execRoot(cmd, in, out, err, false, false);
        return out.str();
    }

    ScratchDir scratch_;
    std::unique_ptr<SessionLifetimeController> session_;
    config cfg_;
    std::vector<SentCommand> sent_;
};

const char kUserLine[] = "sh -c cd\\ /opt/agent\\ dir\\;\\ ls\\ -l";
const char kSudoLine[] =
    "sh -c cd\\ /opt/agent\\ dir\\;\\ sudo\\ -k\\;\\ sudo\\ -S\\ -p\\ \\'\\ \\'\\ ls\\ -l";

TEST_F(ActionBase, WithoutSudoRootCommandsAreTheLoginsAndFilesAreLeftAlone) {
    std::unique_ptr<NoOpAction> action = makeAction();
    run(*action, "ls -l", "data\n");
    action->takeFile("/opt/agent dir/dump.xml");
    ASSERT_EQ(1u, sent_.size());
    EXPECT_EQ(kUserLine, sent_[0].command);
    EXPECT_EQ("data\n", sent_[0].input);
    EXPECT_FALSE(sent_[0].quietInput);
}

TEST_F(ActionBase, SudoIsProbedOnceAndItsPasswordLeadsTheInput) {
    cfg_.sudo = true;
    cfg_.sudoPassword = "s3cr et";
    std::unique_ptr<NoOpAction> action = makeAction();
    run(*action, "ls -l", "data\n");
    std::ostringstream out, err;
    action->execRoot("ls -l", out, err, false);
    ASSERT_EQ(4u, sent_.size());
    EXPECT_EQ("sudo -V", sent_[0].command);
    EXPECT_EQ("sudo -k; sudo -S -p ' ' true", sent_[1].command);
    EXPECT_EQ("s3cr et", sent_[1].input);
    EXPECT_TRUE(sent_[1].quietInput);
    EXPECT_EQ(kSudoLine, sent_[2].command);
    EXPECT_EQ("s3cr et\ndata\n", sent_[2].input);
    EXPECT_EQ(kSudoLine, sent_[3].command);
    EXPECT_EQ("s3cr et\n", sent_[3].input);

    sent_.clear();
    cfg_.sudoPassword.clear();
    std::unique_ptr<NoOpAction> noPassword = makeAction();
    run(*noPassword, "ls -l", "data\n");
    ASSERT_EQ(3u, sent_.size());
    EXPECT_EQ("data\n", sent_[2].input);
}

TEST_F(ActionBase, SudoFailuresAreReportedAndProbedAgain) {
    cfg_.sudo = true;
    cfg_.sudoPassword = "pw";
    struct Case {
        const char* failing;
        const char* message;
    } cases[] = {
        {"sudo -V",
         "sudo command not found on the host src.example. You should install sudo to this host "
         "or supply root password for the migration."},
        {"sudo -k; sudo -S -p ' ' true", "sudo is not allowed for user mover on host src.example."},
    };
    for (const Case& c : cases) {
        std::unique_ptr<NoOpAction> action =
            makeAction(FakeSsh::answer(c.failing, Reply{1, "", ""}));
        for (int attempt = 0; attempt < 2; ++attempt) {
            sent_.clear();
            std::string message = "nothing raised";
            try {
                run(*action, "ls -l", "");
            } catch (const ExTraceable& e) {
                message = e.what();
            }
            EXPECT_EQ(c.message, message);
            EXPECT_EQ(c.failing, sent_.back().command);
        }
    }
}

TEST_F(ActionBase, TakingAFileThatWillNotChangeOwnerReportsWhy) {
    cfg_.sudo = true;
    cfg_.sudoPassword = "pw";
    std::unique_ptr<NoOpAction> action =
        makeAction(FakeSsh::answer("chown", Reply{1, "", "chown: not permitted"}));
    EXPECT_EQ("Cannot take ownership of /opt/a b/dump.xml: chown: not permitted",
              messageOf<&CantTakeFileOwnership>([&] { action->takeFile("/opt/a b/dump.xml"); }));
    EXPECT_NE(std::string::npos,
              sent_.back().command.find("chown\\ mover\\ /opt/a\\\\\\ b/dump.xml"))
        << sent_.back().command;
}

TEST(ActionPaths, NamesAndDirectoriesSplitAtTheLastSlash) {
    struct {
        const char* path;
        const char* name;
        const char* dir;
    } cases[] = {{"a/b/c", "c", "a/b"},
                 {"c", "c", ""},
                 {"/c", "c", ""},
                 {"a/", "", "a"},
                 {"../../etc/x", "x", "../../etc"}};
    for (const auto& c : cases) {
        EXPECT_EQ(c.name, getFileNameFromPath(c.path)) << c.path;
        EXPECT_EQ(c.dir, getPath(c.path)) << c.path;
    }
}

TEST(ActionPaths, FreeSpaceIsWhatTheFileSystemStillHas) {
    ASSERT_TRUE(testing::inSandbox());
    ScratchDir dir;
    ASSERT_EQ(0, mount("fgtest", dir.path().c_str(), "tmpfs", 0, "size=1m"));
    EXPECT_EQ(1024u * 1024u, getFreeSpace(dir.path()));
    testing::writeTextFile(dir.path() + "/quarter", std::string(256 * 1024, 'x'));
    EXPECT_EQ(768u * 1024u, getFreeSpace(dir.path()));
    umount(dir.path().c_str());
    EXPECT_EQ(
        "Cannot stat filesystem containing " + dir.path() + "/missing: No such file or directory",
        messageOf<&CantStatFS>([&] { getFreeSpace(dir.path() + "/missing"); }));
}

TEST_F(ActionBase, TheAlarmCopiesTheDumpingStatusAndStopsAfterAFailure) {
    bool failing = false;
    std::unique_ptr<NoOpAction> action =
        makeAction([&failing](const std::string& cmd, const std::string&) -> Reply {
            if (failing) TAVIK_RAISE(StreamWrite);
            Reply reply;
            if (cmd == "cat /opt/agent\\ dir/dumping-status.xml") reply.out = "<dumping-status/>";
            return reply;
        });
    startStatusRefresh(action.get());
    alarm(0);
    const std::string copy = theSession->getDumpingStatusFileName();
    action->doAlarm();
    EXPECT_EQ("<dumping-status/>", readFile(copy));
    EXPECT_EQ(action.get(), pAction.load());
    EXPECT_GT(alarm(0), 0u);
    EXPECT_FALSE(boost::filesystem::exists(copy + ".tmp"));

    failing = true;
    action->doAlarm();
    EXPECT_EQ(nullptr, pAction.load());
    EXPECT_EQ(0u, alarm(0));
    EXPECT_EQ("<dumping-status/>", readFile(copy));
}

// Records what the progress updater reports.
class RecordingStatus : public MigrationStatus {
  public:
    void setIdle() override {}
    void setAgentParams(const std::string&) override {}
    void setAgentOperation(agentOperation) override {}
    void setTransferSpeed(const std::string& speed) override { this->speed = speed; }
    void setTransferDump() override {}
    void setTransferTotals(const std::string&, const std::string&) override {}
    void setTransferFilesLeft(const std::string&) override {}
    void setTransferSizeLeft(const std::string& size) override { sizeLeft = size; }
    void setCurrentFile(const std::string&, const std::string&) override {}
    void setTransferCurrentFileSizeLeft(const std::string& size) override { fileLeft = size; }
    void setDeployTotals(const std::string&, const std::string&) override {}
    void setDeploy(const std::string&, const std::string&) override {}
    void setCurrentObject(const std::string&, objectType) override {}
    void setTranslate() override {}
    void saveFile() override { ++saves; }

    std::string speed, sizeLeft, fileLeft;
    int saves = 0;
};

TEST(ProgressUpdater, EveryBlockIsCountedAndSaved) {
    RecordingStatus status;
    FileRetrievalProgressUpdater updater(&status, 5000000000LL);
    updater.startFile(3000000000LL);
    updater(65536);
    EXPECT_EQ("4999934464", status.sizeLeft);
    EXPECT_EQ("2999934464", status.fileLeft);
    updater(100);
    EXPECT_EQ("4999934364", status.sizeLeft);
    EXPECT_EQ(2, status.saves);
    updater.skip(1000);
    EXPECT_EQ("4999933364", status.sizeLeft);
    EXPECT_EQ(2, status.saves);
    // Speed counts whole seconds since the start, and only transferred bytes.
    sleep(1);
    updater(64);
    EXPECT_TRUE(status.speed == "65700" || status.speed == "32850") << status.speed;
}

}  // namespace
}  // namespace tavik
