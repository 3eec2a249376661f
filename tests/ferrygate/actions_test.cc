// What the actions send to the source host, seen through a recording transport.
#include "ferrygate/actions.h"

#include <gtest/gtest.h>

#include <memory>
#include <sstream>

#include "commons/exceptions.h"
#include "ferrygate/session.h"
#include "support/fake_ssh.h"
#include "support/raised.h"
#include "support/sandbox_env.h"

namespace tavik {
namespace {

using testing::caught;
using testing::FakeSsh;
using testing::readFile;
using testing::Reply;
using testing::ScratchDir;
using testing::SentCommand;
using testing::writeTextFile;

class Actions : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(testing::addSystemAccount("hmxadm"));
        agents_ = scratch_.path() + "/product/RKU/agents";
        writeTextFile("/etc/hmx/hmx.conf", "PRODUCT_ROOT_D " + scratch_.path() + "/product\n");
        session_.reset(new SessionLifetimeController(scratch_.path() + "/session"));
        cfg_.host = "src.example";
        cfg_.login = "mover";
        cfg_.agentDir = "/srv/agent";
        cfg_.agentName = "probe";
        cfg_.sessionPath = scratch_.path() + "/session";
    }

    template <class A>
    void run(A& action, FakeSsh::Responder reply = FakeSsh::Responder()) {
        action.setConfig(&cfg_);
        action.setSsh(std::unique_ptr<Ssh>(new FakeSsh(&sent_, reply)));
        action.execute();
    }

    std::string commands() const {
        std::string all;
        for (const SentCommand& c : sent_) all += c.command + "\n";
        return all;
    }

    ScratchDir scratch_;
    std::string agents_;
    std::unique_ptr<SessionLifetimeController> session_;
    config cfg_;
    std::vector<SentCommand> sent_;
};

TEST_F(Actions, DeploymentSendsTheTreesButNoControlDirectory) {
    SendAgentAction missing;
    EXPECT_THROW(run(missing), Exc<&NoSharedAgentsDirectory>);
    writeTextFile(agents_ + "/shared/Common.pm", "1;\n");
    SendAgentAction noAgent;
    EXPECT_THROW(run(noAgent), Exc<&NoAgentDirectory>);
    EXPECT_EQ("", commands()) << "something was sent for a deployment that cannot work";

    writeTextFile(agents_ + "/probe/control/spec", "EntryPoint: probe.pl\n");
    writeTextFile(agents_ + "/probe/control/extra/notes", "x");
    writeTextFile(agents_ + "/probe/probe.pl", "print 1;\n");
    writeTextFile(agents_ + "/probe/lib/control/keep", "x");
    SendAgentAction deploy;
    run(deploy, FakeSsh::answer("get-status", Reply{0, "<agentstatus/>", ""}));
    const std::string sent = commands();
    EXPECT_NE(std::string::npos, sent.find("cat > /srv/agent/Common.pm\n"));
    EXPECT_NE(std::string::npos, sent.find("cat > /srv/agent/probe.pl\n"));
    EXPECT_NE(std::string::npos, sent.find("mkdir\\ -p\\ /srv/agent/lib\n"));
    EXPECT_EQ(std::string::npos, sent.find("control")) << sent;
    EXPECT_EQ(
        "sh -c cd\\ /srv/agent\\;\\ sh\\ -c\\ cd\\\\\\ /srv/agent\\\\\\ \\\\\\&\\\\\\&\\\\\\ "
        "perl\\\\\\ /srv/agent/probe.pl\\\\\\ --get-status",
        sent_.back().command);
    EXPECT_EQ("<agentstatus/>", readFile(theSession->getDeploymentStatusFileName()));
}

TEST_F(Actions, AFailingStatusRequestLeavesAnEmptyDeploymentStatus) {
    writeTextFile(agents_ + "/shared/Common.pm", "1;\n");
    writeTextFile(agents_ + "/probe/control/spec", "EntryPoint: probe.pl\n");
    writeTextFile(theSession->getDeploymentStatusFileName(), "<agentstatus>old</agentstatus>");
    SendAgentAction deploy;
    const std::string message = testing::messageOf<&CantRequestAgentStatus>([&] {
        run(deploy, FakeSsh::answer("get-status", Reply{2, "", "perl: not found"}));
    });
    EXPECT_NE(std::string::npos, message.find(": perl: not found")) << message;
    EXPECT_EQ("", readFile(theSession->getDeploymentStatusFileName()));
}

TEST_F(Actions, TheDumpCommandNamesTheAgentAndItsArguments) {
    RetrieveDumpAction unknown({"--dump-all"}, "");
    const auto e = caught<&CantRetrieveDump>([&] { run(unknown); });
    ASSERT_NE(nullptr, e.inner());
    EXPECT_EQ("AgentNotFound", e.inner()->code());
    EXPECT_EQ("", commands());

    writeTextFile(agents_ + "/probe/control/spec", "EntryPoint: run me.pl\n");
    cfg_.noContent = true;
    RetrieveDumpAction failing({"--dump-domains=-", "a;b"}, "d1,d2");
    EXPECT_EQ(
        "Error during dump file retrieving. \nRemote agent failed with the following stderr "
        "messages: ",
        testing::messageOf<&CantRetrieveDumpFile>([&] {
            run(failing, FakeSsh::answer("", Reply{1, "", ""}));
        }));
    stopStatusRefresh();
    ASSERT_EQ(1u, sent_.size()) << "a download followed the failed dump";
    EXPECT_EQ(
        "sh -c cd\\ /srv/agent\\;\\ perl\\ /srv/agent/run\\\\\\ me.pl\\ --dump-domains=-\\ "
        "a\\\\\\;b\\ --no-content",
        sent_[0].command);
    EXPECT_EQ("d1,d2", sent_[0].input);
}

TEST_F(Actions, RemovingTheAgentNeverFails) {
    cfg_.agentDir = "/srv/it's here";
    RemoveAgentAction plain;
    run(plain);
    ASSERT_EQ(1u, sent_.size());
    EXPECT_EQ("sh -c cd\\ /srv/it\\'s\\ here\\;\\ rm\\ -rf\\ /srv/it\\\\\\'s\\\\\\ here",
              sent_[0].command);

    cfg_.sudo = true;
    RemoveAgentAction withoutSudo;
    EXPECT_NO_THROW(run(withoutSudo, FakeSsh::answer("", Reply{127, "", ""})));
    EXPECT_EQ("sudo -V", sent_.back().command);
}

}  // namespace
}  // namespace tavik
