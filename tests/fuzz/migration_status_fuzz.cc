// The migration status writer on arbitrary values. The controlling process polls the file
// while a migration runs: whatever the values (a host from the command line, a file name from
// the source host's content list), every saved file must parse and say what was set.
//
// Input: the first byte chooses the state (agent, dump transfer, file transfer, deploy); the
// rest holds the values, separated by line feeds: host, speed, files total, files left, size
// total, size left, current file name, current file size, its size left, current object name.
#include <libxml/chvalid.h>
#include <libxml/parser.h>
#include <libxml/parserInternals.h>
#include <libxml/tree.h>
#include <libxml/xmlstring.h>
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

struct DocFree {
    void operator()(xmlDoc* doc) const { xmlFreeDoc(doc); }
};
struct XmlFree {
    void operator()(xmlChar* text) const { xmlFree(text); }
};

// The library sees C strings: a value ends at its first NUL.
std::string cut(const std::string& value) { return value.substr(0, value.find('\0')); }

// Whether `value` is XML character data: UTF-8 of characters XML allows. Every value that
// reaches the status in a run is (names come from parsed documents, numbers are digits); for
// other bytes the file must still parse, but what it shows of them is the library's business.
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

const xmlNode* child(const xmlNode* parent, const char* name) {
    for (const xmlNode* node = parent->children; node != nullptr; node = node->next) {
        if (node->type == XML_ELEMENT_NODE && xmlStrEqual(node->name, BAD_CAST name)) return node;
    }
    return nullptr;
}

std::string text(const xmlNode* node) {
    std::unique_ptr<xmlChar, XmlFree> content(xmlNodeGetContent(node));
    return content ? reinterpret_cast<const char*>(content.get()) : "";
}

std::string attribute(const xmlNode* node, const char* name) {
    std::unique_ptr<xmlChar, XmlFree> value(xmlGetProp(node, BAD_CAST name));
    FUZZ_CHECK(value != nullptr);
    return reinterpret_cast<const char*>(value.get());
}

// Reads the saved file with libxml2 directly, never with the code under test.
std::unique_ptr<xmlDoc, DocFree> readStatusFile() {
    std::unique_ptr<xmlDoc, DocFree> doc(
        xmlReadFile(tavik::theSession->getStatusFileName().c_str(), nullptr, XML_PARSE_NONET));
    FUZZ_CHECK(doc != nullptr);
    const xmlNode* root = xmlDocGetRootElement(doc.get());
    FUZZ_CHECK(root != nullptr && xmlStrEqual(root->name, BAD_CAST "migration-status"));
    return doc;
}

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

    {
        const auto doc = readStatusFile();
        const xmlNode* root = xmlDocGetRootElement(doc.get());
        if (state == 3) {
            FUZZ_CHECK(says(attribute(root, "total-accounts"), v[2]));
            FUZZ_CHECK(says(attribute(root, "completed-domains"), v[5]));
            if (!cut(objectName).empty()) {
                const xmlNode* object = child(root, "current-object");
                FUZZ_CHECK(object != nullptr && says(text(object), objectName));
            }
        } else {
            const xmlNode* element = child(root, state == 0 ? "agent" : "transfer");
            FUZZ_CHECK(element != nullptr);
            const xmlNode* hostNode = child(element, "host");
            FUZZ_CHECK(hostNode != nullptr && says(text(hostNode), host));
            if (state != 0 && !cut(speed).empty())
                FUZZ_CHECK(says(attribute(element, "speed"), speed));
            if (state == 2 && !cut(name).empty()) {
                const xmlNode* files = child(element, "files");
                FUZZ_CHECK(files != nullptr);
                const xmlNode* current = child(files, "current-file");
                FUZZ_CHECK(current != nullptr && says(text(current), name));
            }
        }
    }

    // Destroying the document leaves the idle state behind, and that parses too.
    status.reset();
    const auto doc = readStatusFile();
    FUZZ_CHECK(child(xmlDocGetRootElement(doc.get()), "idle") != nullptr);
    return 0;
}
