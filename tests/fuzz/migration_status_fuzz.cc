// The status writer on arbitrary values (a file name comes from the source host's list): whatever
// they hold, every saved file parses and shows the state's element. Input: the first byte chooses
// the state (agent, dump transfer, file transfer); the rest holds line-feed-separated values:
// host, speed, files total, files left, size total, size left, current file name, its size, its
// size left.
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <unistd.h>

#include <boost/algorithm/string.hpp>
#include <boost/filesystem.hpp>
#include <memory>
#include <string>
#include <vector>

#include "tests/fuzz/fuzz_support.h"
#include "xml/migration_status.h"

namespace fs = boost::filesystem;

namespace {

fs::path dir;

void ignoreMessage(void*, const char*, ...) {}

// "root/first child" of the saved file, read with libxml2 alone, so that a fault of the writer
// cannot hide behind one of our readers.
std::string savedShape() {
    const std::unique_ptr<xmlDoc, decltype(&xmlFreeDoc)> doc(
        xmlReadFile((dir / "migration.status").c_str(), nullptr, XML_PARSE_NONET), xmlFreeDoc);
    FUZZ_CHECK(doc != nullptr && xmlDocGetRootElement(doc.get()) != nullptr);
    const xmlNode* root = xmlDocGetRootElement(doc.get());
    std::string shape = reinterpret_cast<const char*>(root->name);
    if (root->children != nullptr)
        shape += "/" + std::string(reinterpret_cast<const char*>(root->children->name));
    return shape;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    dir = fs::temp_directory_path() / fs::unique_path("ferrygate-status-fuzz-%%%%%%%%");
    fs::create_directories(dir);
    static struct Cleanup {
        ~Cleanup() { fs::remove_all(dir); }
    } cleanup;
    xmlSetGenericErrorFunc(nullptr, ignoreMessage);  // the verdict is ours, not the parser's
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    std::vector<std::string> v;
    boost::split(v, std::string(reinterpret_cast<const char*>(data) + 1, size - 1),
                 boost::is_any_of("\n"));
    v.resize(9);
    tavik::MigrationStatusPtr status =
        tavik::createMigrationStatusFile((dir / "migration.status").string(), {getuid(), getgid()});
    status->setAgentParams(v[0]);
    status->setTransferSpeed(v[1]);
    switch (data[0] % 3) {
        case 0:
            status->setAgentOperation(tavik::MigrationStatus::opWait);
            break;
        case 1:
            status->setTransferDump();
            break;
        default:
            status->setTransferTotals(v[2], v[4]);
            status->setTransferFilesLeft(v[3]);
            status->setTransferSizeLeft(v[5]);
            status->setCurrentFile(v[6], v[7]);
            status->setTransferCurrentFileSizeLeft(v[8]);
            break;
    }
    status->saveFile();
    FUZZ_CHECK(savedShape() ==
               (data[0] % 3 == 0 ? "migration-status/agent" : "migration-status/transfer"));
    // Destroying the document leaves the idle state behind, and that parses too.
    status.reset();
    FUZZ_CHECK(savedShape() == "migration-status/idle");
    return 0;
}
