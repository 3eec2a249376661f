// Documents from the source host are hostile: entity bombs are refused, and nothing a document
// names outside itself (files, DTDs, URLs) is ever read. The selection corpus holds the same.
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <string>

#include "commons/exceptions.h"
#include "support/loopback.h"
#include "support/sandbox_env.h"
#include "xml/agent_file_list.h"

namespace tavik {
namespace {

using testing::ScratchDir;
using testing::writeTextFile;

const char kSecret[] = "TOPSECRET-4711";

// In a child with an alarm, so that a bomb that does explode cannot hang the test run.
TEST(HostileXml, EntityBombsAreRefusedBeforeTheyExpand) {
    std::string dtd = "<!ENTITY e0 \"laugh\">";
    for (int i = 1; i < 10; ++i) {
        dtd += "<!ENTITY e" + std::to_string(i) + " \"";
        for (int j = 0; j < 10; ++j) dtd += "&e" + std::to_string(i - 1) + ";";
        dtd += "\">";
    }
    const std::string laughs = "<?xml version=\"1.0\"?><!DOCTYPE contentlist [" + dtd +
                               "]><contentlist><file size=\"1\" md5sum=\"m\">&e9;</file>"
                               "</contentlist>";
    EXPECT_EXIT(
        {
            alarm(10);  // generous for sanitizer and valgrind builds
            try {
                getFileList(laughs)->getFileList();
            } catch (const ExTraceable&) {
                _exit(0);
            }
            _exit(1);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST(HostileXml, NothingOutsideTheDocumentIsEverRead) {
    ScratchDir dir;
    const std::string secret = dir.path() + "/secret.txt";
    const std::string dtd = dir.path() + "/defaults.dtd";
    writeTextFile(secret, kSecret);
    writeTextFile(dtd, std::string("<!ATTLIST file md5sum CDATA \"") + kSecret +
                           "\"><!ENTITY fromDtd \"" + kSecret + "\">");
    testing::LoopbackSocket listener;
    const std::string url = "http://127.0.0.1:" + std::to_string(listener.port()) + "/";

    // Each document reaches for the secret one way; it must never be in what the reader returns.
    const std::string head = "<?xml version=\"1.0\"?><!DOCTYPE contentlist ";
    const std::string lists[] = {
        head + "[<!ENTITY x SYSTEM \"file://" + secret +
            "\">]><contentlist>"
            "<file size=\"1\" md5sum=\"m\">&x;</file></contentlist>",
        head + "SYSTEM \"file://" + dtd +
            "\"><contentlist><file size=\"1\">&fromDtd;</file>"
            "</contentlist>",
        head + "[<!ENTITY % p SYSTEM \"file://" + dtd +
            "\"> %p;]><contentlist>"
            "<file size=\"1\" md5sum=\"m\">&fromDtd;</file></contentlist>",
        head + "SYSTEM \"" + url + "a.dtd" + "\" [<!ENTITY y SYSTEM \"" + url + "y" +
            "\">]><contentlist><file size=\"1\" md5sum=\"m\">&y;</file>"
            "</contentlist>",
    };
    for (const std::string& list : lists) {
        std::string seen;
        try {
            const auto files = getFileList(list)->getFileList();
            for (const DumpFile& file : files) seen += file.name + " " + file.md5 + "\n";
        } catch (const ExTraceable& e) {
            seen = e.what();
        }
        EXPECT_EQ(std::string::npos, seen.find(kSecret)) << list;
    }

    pollfd contact{listener.fd(), POLLIN, 0};
    EXPECT_EQ(0, poll(&contact, 1, 0)) << "a document made the reader connect";
}

}  // namespace
}  // namespace tavik
