// Documents from the source host are hostile: one that carries a document type declaration is
// refused before anything in it is read or expanded, be it a DTD that names a local file or a
// URL, or entities whose expansion would exhaust time and memory.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>

#include <chrono>
#include <string>

#include "commons/exceptions.h"
#include "support/loopback.h"
#include "support/raised.h"
#include "support/sandbox_env.h"
#include "xml/agent_file_list.h"

namespace tavik {
namespace {

long peakKilobytes() {
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

TEST(HostileXml, ADocumentTypeDeclarationIsRefusedBeforeAnythingIsReadOrExpanded) {
    testing::ScratchDir dir;
    const std::string dtd = dir.path() + "/defaults.dtd";
    testing::writeTextFile(dtd, "<!ATTLIST file md5sum CDATA \"m\"><!ENTITY fromDtd \"secret\">");
    testing::LoopbackSocket listener;
    const std::string url = "http://127.0.0.1:" + std::to_string(listener.port()) + "/";

    const std::string head = "<?xml version=\"1.0\"?><!DOCTYPE contentlist ";
    const std::string file = "<file size=\"1\" md5sum=\"m\">";
    std::string flat =
        head + "[<!ENTITY e \"" + std::string(100 * 1024, 'x') + "\">]>" + "<contentlist>" + file;
    for (int i = 0; i < 10000; ++i) flat += "&e;";
    flat += "</file></contentlist>";
    std::string nested = head + "[<!ENTITY a0 \"0123456789\">";
    for (int i = 1; i < 10; ++i) {
        const std::string below = "&a" + std::to_string(i - 1) + ";";
        std::string tenfold;
        for (int k = 0; k < 10; ++k) tenfold += below;
        nested += "<!ENTITY a" + std::to_string(i) + " \"" + tenfold + "\">";
    }
    nested += "]><contentlist>" + file + "&a9;</file></contentlist>";

    const long peakBefore = peakKilobytes();
    const auto start = std::chrono::steady_clock::now();
    for (const std::string& list : {
             head + "SYSTEM \"file://" + dtd +
                 "\"><contentlist><file size=\"1\">&fromDtd;</file></contentlist>",
             head + "[<!ENTITY % p SYSTEM \"file://" + dtd + "\"> %p;]><contentlist>" + file +
                 "&fromDtd;</file></contentlist>",
             head + "SYSTEM \"" + url + "a.dtd\" [<!ENTITY y SYSTEM \"" + url +
                 "y\">]><contentlist>" + file + "&y;</file></contentlist>",
             head + "[<!ENTITY ok \"plain\">]><contentlist>" + file + "&ok;</file></contentlist>",
             nested,
             flat,
         }) {
        EXPECT_NE(std::string::npos, testing::messageOf<&tError_ParseFile>([&] {
                                         getFileList(list);
                                     }).find("may not carry a document type declaration"))
            << list.substr(0, 200);
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    EXPECT_LT(peakKilobytes() - peakBefore, 32 * 1024) << "kilobytes more at the peak";
    pollfd contact{listener.fd(), POLLIN, 0};
    EXPECT_EQ(0, poll(&contact, 1, 0)) << "a document made the reader connect";
}

}  // namespace
}  // namespace tavik
