#include "xml/data_documents.h"

#include <gtest/gtest.h>

#include <boost/lexical_cast.hpp>
#include <string>

#include "support/raised.h"
#include "support/sandbox_env.h"
#include "xml/agent_file_list.h"
#include "xml/agents_list.h"

namespace tavik {
namespace {

using testing::messageOf;

TEST(ContentList, FilesComeInDocumentOrderAndOtherChildrenAreIgnored) {
    const auto list = getFileList(
        "<contentlist size=\"18446744073709551615\" unpacked=\"3000\">\n"
        "  <file size=\"1024\" md5sum=\"0123456789abcdef0123456789abcdef\">a/b.tgz</file>\n"
        "  <dir size=\"1\" md5sum=\"x\">ignored</dir><!-- note -->\n"
        "  <file md5sum=\"d41d8cd98f00b204e9800998ecf8427e\" size=\"9000000000\">c&amp;d</file>\n"
        "</contentlist>");
    const std::vector<DumpFile>& files = list->getFileList();
    ASSERT_EQ(2u, files.size());
    EXPECT_EQ("a/b.tgz", files[0].name);
    EXPECT_EQ(1024, files[0].size);
    EXPECT_EQ("0123456789abcdef0123456789abcdef", files[0].md5);
    EXPECT_EQ("c&d", files[1].name);
    EXPECT_EQ(9000000000LL, files[1].size);
    EXPECT_EQ(18446744073709551615ULL, list->getTotalSize());
    EXPECT_EQ(3000u, list->getUnpackedSize());
}

TEST(ContentList, BadEntriesFailTheWholeList) {
    EXPECT_EQ("Node file does not have attribute md5sum", messageOf<&NoSuchAttribute>([] {
                  getFileList("<contentlist><file size=\"1\">x</file></contentlist>");
              }));
    EXPECT_THROW(getFileList("<contentlist><file size=\"12k\" md5sum=\"m\">x</file></contentlist>"),
                 boost::bad_lexical_cast);
    EXPECT_EQ(
        "The document has the wrong type, root node is <files>, but <contentlist> was "
        "expected",
        messageOf<&tError_WrongDoc>([] { getFileList("<files/>"); }));
    const auto list = getFileList("<contentlist size=\"-1\"/>");
    EXPECT_THROW(list->getTotalSize(), boost::bad_lexical_cast);
    testing::caught<&NoSuchAttribute>([&] { list->getUnpackedSize(); });
}

TEST(DataDocuments, GettersReadTheirElementsAndMissingOnesReadEmpty) {
    const auto ok = getCliGateResponse(
        "<cli><ok/><return>-3</return><stdout>out &lt;1&gt;</stdout><failure>why</failure></cli>");
    EXPECT_TRUE(ok->isOk());
    EXPECT_EQ(-3, ok->getReturn());
    EXPECT_EQ("out <1>", ok->getStdout());
    EXPECT_EQ("", ok->getStderr());
    EXPECT_EQ("why", ok->getError());
    const auto failed = getCliGateResponse("<cli><error>no</error></cli>");
    EXPECT_FALSE(failed->isOk());
    EXPECT_THROW(failed->getReturn(), boost::bad_lexical_cast);
    EXPECT_EQ("", failed->getError());

    const auto credentials = getDatabaseCredentials(
        "<credentials><username>u</username><password>p w</password></credentials>");
    EXPECT_EQ("u", credentials->getUsername());
    EXPECT_EQ("p w", credentials->getPassword());
    EXPECT_FALSE(credentials->notConfigured());
    EXPECT_TRUE(
        getDatabaseCredentials("<credentials><not-configured/></credentials>")->notConfigured());

    const auto admin = getAdminLocation("<admin><country>DE</country><zip>10115</zip></admin>");
    EXPECT_EQ("DE", admin->getCountry());
    EXPECT_EQ("", admin->getState());
    EXPECT_EQ("10115", admin->getZip());
    testing::caught<&tError_WrongDoc>([] { getAdminLocation("<cli/>"); });
}

TEST(DataDocuments, DeploymentStatusAndAddressesReadTheFirstOfARepeat) {
    testing::ScratchDir dir;
    testing::writeTextFile(dir.path() + "/s.xml",
                           "<agentstatus><other/><statusfile>/var/a.status</statusfile>"
                           "<statusfile>second</statusfile></agentstatus>");
    EXPECT_EQ(
        "/var/a.status",
        XmlAgentDeploymentStatusDocument(dir.path() + "/s.xml").getAgentDeploymentStatusFileName());

    const auto addresses = getTavikIpInfo(
        "<ipinfo><ip name=\"10.0.0.1\"><def_domain/><type>shared</type></ip>"
        "<ip name=\"10.0.0.2\"><type>exclusive</type></ip>"
        "<ip name=\"10.0.0.1\"><type>later</type></ip></ipinfo>");
    ASSERT_EQ(2u, addresses.size());
    EXPECT_TRUE(addresses.at("10.0.0.1").defDomain);
    EXPECT_EQ("shared", addresses.at("10.0.0.1").type);
    EXPECT_FALSE(addresses.at("10.0.0.2").defDomain);
    EXPECT_EQ("exclusive", addresses.at("10.0.0.2").type);
}

TEST(AgentsList, AgentsAreWrittenInOrderWithNameThenDescription) {
    const auto list = createAgentsListFile();
    list->addAgent("unix", "Unix & co");
    list->addAgent("win", "");
    ::testing::internal::CaptureStdout();
    list->saveDocToStdout();
    EXPECT_EQ(
        "<?xml version=\"1.0\"?>\n<agents-list><agent><name>unix</name><description>Unix "
        "&amp; co</description></agent><agent><name>win</name><description></description>"
        "</agent></agents-list>\n",
        ::testing::internal::GetCapturedStdout());
}

}  // namespace
}  // namespace tavik
