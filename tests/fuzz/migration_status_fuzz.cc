// The status writer on arbitrary values: every saved file must parse and say what was set.
// Input: the first byte chooses the state (agent, dump transfer, file transfer, deploy); the
// rest holds line-feed-separated values: host, speed, files total, files left, size total, size
// left, current file name, its size, its size left, current object name.
#include <libxml/chvalid.h>
#include <libxml/parser.h>
#include <libxml/parserInternals.h>
#include <libxml/tree.h>
#include <libxml/xmlstring.h>
#include <libxml/xpath.h>
#include <pwd.h>

#include <boost/filesystem.hpp>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "ferrygate/session.h"
#include "tests/fuzz/fuzz_support.h"
#include "xml/migration_status.h"

namespace fs = boost::filesystem;

namespace {

using tavik::fuzz::splitLines;

// The library sees C strings: a value ends at its first NUL.
std::string cut(const std::string& value) { return value.substr(0, value.find('\0')); }

// Whether `value` is UTF-8 of characters XML allows, as every value of a real run is; other
// bytes must still leave a file that parses, but what it shows of them is the library's affair.
bool isXmlText(const std::string& value) {
    const std::string text = cut(value);
    const auto* p = reinterpret_cast<const unsigned char*>(text.c_str());
    for (int left = static_cast<int>(text.size()); left > 0;) {
        int length = left;
        const int c = xmlGetUTF8Char(p, &length);
        // The library's reader takes a continuation byte for a lead byte: the shortest
        // encoding of what it read must be the bytes themselves.
        xmlChar encoded[8];
        if (c < 0 || !xmlIsCharQ(c) || xmlCopyCharMultiByte(encoded, c) != length ||
            memcmp(encoded, p, static_cast<size_t>(length)) != 0)
            return false;
        p += length;
        left -= length;
    }
    return true;
}

// `shown` is what the file says of `value`.
bool says(const std::string& shown, const std::string& value) {
    return shown == cut(value) || !isXmlText(value);
}

// Read with libxml2 alone, so that a fault of the writer cannot hide behind one of our readers.
class Saved {
  public:
    Saved()
        : doc_(
              xmlReadFile(tavik::theSession->getStatusFileName().c_str(), nullptr, XML_PARSE_NONET),
              xmlFreeDoc),
          context_(xmlXPathNewContext(doc_.get()), xmlXPathFreeContext) {
        FUZZ_CHECK(doc_ != nullptr && context_ != nullptr);
    }
    // The string value of `expression`.
    std::string operator()(const std::string& expression) const {
        std::unique_ptr<xmlXPathObject, decltype(&xmlXPathFreeObject)> result(
            xmlXPathEvalExpression(BAD_CAST expression.c_str(), context_.get()),
            xmlXPathFreeObject);
        FUZZ_CHECK(result != nullptr);
        std::unique_ptr<xmlChar, xmlFreeFunc> text(xmlXPathCastToString(result.get()), xmlFree);
        return reinterpret_cast<const char*>(text.get());
    }
    // Whether the one node at `path` says `value`.
    bool shows(const std::string& path, const std::string& value) const {
        return (*this)("count(" + path + ")") == "1" &&
               says((*this)("string(" + path + ")"), value);
    }

  private:
    std::unique_ptr<xmlDoc, decltype(&xmlFreeDoc)> doc_;
    std::unique_ptr<xmlXPathContext, decltype(&xmlXPathFreeContext)> context_;
};

void ignoreMessage(void*, const char*, ...) {}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Saved files are given to hmxadm. The account is made in the sandbox's private /etc only.
    const char* sandboxed = getenv("FERRYGATE_SANDBOXED");
    FUZZ_CHECK(sandboxed != nullptr && std::string(sandboxed) == "1");
    if (getpwnam("hmxadm") == nullptr) FUZZ_CHECK(system("useradd -r -M hmxadm") == 0);
    static const fs::path dir =
        fs::temp_directory_path() / fs::unique_path("ferrygate-status-fuzz-%%%%%%%%");
    static tavik::SessionLifetimeController session(dir.string());
    static struct Cleanup {
        ~Cleanup() { fs::remove_all(dir); }
    } cleanup;
    xmlSetGenericErrorFunc(nullptr, ignoreMessage);  // the verdict is ours, not the parser's
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    std::vector<std::string> v =
        splitLines(std::string(reinterpret_cast<const char*>(data) + 1, size - 1));
    v.resize(10);
    const std::string &host = v[0], &speed = v[1], &name = v[6], &objectName = v[9];

    tavik::MigrationStatusPtr status = tavik::createMigrationStatusFile();
    const int state = data[0] % 4;
    switch (state) {
        case 0:
            status->setAgentParams(host);
            status->setAgentOperation(tavik::MigrationStatus::opWait);
            break;
        case 1:
            status->setAgentParams(host);
            status->setTransferSpeed(speed);
            status->setTransferDump();
            break;
        case 2:
            status->setAgentParams(host);
            status->setTransferSpeed(speed);
            status->setTransferTotals(v[2], v[4]);
            status->setTransferFilesLeft(v[3]);
            status->setTransferSizeLeft(v[5]);
            status->setCurrentFile(name, v[7]);
            status->setTransferCurrentFileSizeLeft(v[8]);
            break;
        default:
            status->setDeployTotals(v[2], v[3]);
            status->setDeploy(v[4], v[5]);
            status->setCurrentObject(objectName, tavik::MigrationStatus::objDomain);
            break;
    }
    status->saveFile();

    const Saved saved;
    const std::string root = "/migration-status", element = root + (state ? "/transfer" : "/agent");
    if (state == 3) {
        FUZZ_CHECK(saved.shows(root + "/@total-accounts", v[2]));
        FUZZ_CHECK(saved.shows(root + "/@completed-domains", v[5]));
        if (!cut(objectName).empty()) FUZZ_CHECK(saved.shows(root + "/current-object", objectName));
    } else {
        FUZZ_CHECK(saved.shows(element + "/host", host));
        if (state != 0 && !cut(speed).empty()) FUZZ_CHECK(saved.shows(element + "/@speed", speed));
        if (state == 2 && !cut(name).empty())
            FUZZ_CHECK(saved.shows(element + "/files/current-file", name));
    }

    // Destroying the document leaves the idle state behind, and that parses too.
    status.reset();
    FUZZ_CHECK(Saved()("count(/migration-status/idle)") == "1");
    return 0;
}
