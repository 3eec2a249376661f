// Documents from the source host are hostile: nothing a document names outside itself (a DTD
// with entities or attribute defaults, a URL) is ever read. The selection corpus of the fuzz
// targets holds local entities, entity bombs and XIncludes.
#include <gtest/gtest.h>
#include <poll.h>

#include <string>

#include "commons/exceptions.h"
#include "support/loopback.h"
#include "support/sandbox_env.h"
#include "xml/agent_file_list.h"

namespace tavik {
namespace {

TEST(HostileXml, NothingOutsideTheDocumentIsEverRead) {
    const std::string secret = "TOPSECRET-4711";
    testing::ScratchDir dir;
    const std::string dtd = dir.path() + "/defaults.dtd";
    testing::writeTextFile(
        dtd, "<!ATTLIST file md5sum CDATA \"" + secret + "\"><!ENTITY fromDtd \"" + secret + "\">");
    testing::LoopbackSocket listener;
    const std::string url = "http://127.0.0.1:" + std::to_string(listener.port()) + "/";

    const std::string head = "<?xml version=\"1.0\"?><!DOCTYPE contentlist ";
    const std::string file = "<file size=\"1\" md5sum=\"m\">";
    for (const std::string& list : {
             head + "SYSTEM \"file://" + dtd +
                 "\"><contentlist><file size=\"1\">&fromDtd;</file></contentlist>",
             head + "[<!ENTITY % p SYSTEM \"file://" + dtd + "\"> %p;]><contentlist>" + file +
                 "&fromDtd;</file></contentlist>",
             head + "SYSTEM \"" + url + "a.dtd\" [<!ENTITY y SYSTEM \"" + url +
                 "y\">]><contentlist>" + file + "&y;</file></contentlist>",
         }) {
        std::string seen;
        try {
            const auto files = getFileList(list);
            for (const DumpFile& f : files->getFileList()) seen += f.name + f.md5;
        } catch (const ExTraceable& e) {
            seen = e.what();
        }
        EXPECT_EQ(std::string::npos, seen.find(secret)) << list;
    }
    pollfd contact{listener.fd(), POLLIN, 0};
    EXPECT_EQ(0, poll(&contact, 1, 0)) << "a document made the reader connect";
}

}  // namespace
}  // namespace tavik
