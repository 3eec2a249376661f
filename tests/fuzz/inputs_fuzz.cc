// What ferrygate reads from others, on arbitrary bytes; the first byte (modulo 3) chooses which
// part the rest feeds:
// 0. The XML readers (the next byte chooses the reader): the content list the source host sends,
//    and the controlling process's selection file. They refuse only with a tagged exception or
//    the number parser's error, read alike every time, and never bring in the text of a local
//    file that an entity or DTD names; the content list, which may declare nothing, never gives
//    back more text than it was given.
// 1. The status writer (a file name comes from the source host's list): whatever the values hold,
//    every saved file parses and shows the state's element. The next byte chooses the state
//    (agent, dump transfer, file transfer); the rest holds line-feed-separated values: host,
//    speed, files total, files left, size total, size left, current file name, its size, its
//    size left.
// 2. sh_quote (the word cut at the first NUL): `printf %s WORD` must print the word's bytes in
//    dash and in bash under a UTF-8 locale (where a multibyte character could swallow a following
//    backslash); a word that check_shell_arg_nothrow accepts must come out unchanged.
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <unistd.h>

#include <boost/algorithm/string.hpp>
#include <boost/filesystem.hpp>
#include <boost/lexical_cast.hpp>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "commons/exceptions.h"
#include "ferrygate/dump_options.h"
#include "ssh/shell_quote.h"
#include "xml/agent_file_list.h"
#include "xml/migration_status.h"

// Aborts with the condition's text when it does not hold, so that the fuzzer (or the corpus
// replay of the normal build) reports the input that broke it. Unlike assert, never compiled out.
#define FUZZ_CHECK(condition)                                                                  \
    ((condition)                                                                               \
         ? (void)0                                                                             \
         : (fprintf(stderr, "%s:%d: property violated: %s\n", __FILE__, __LINE__, #condition), \
            abort()))

namespace fs = boost::filesystem;

namespace {

// Seeds and the dictionary name this path; the process creates it before the first input.
const char kSecretFile[] = "/tmp/ferrygate-fuzz-selection-secret";
const char kSecret[] = "read-from-the-local-disk";
const char kSelectionFile[] = "/tmp/ferrygate-fuzz-selection";
fs::path statusDir;

// Even: the content list, which content retrieval reads; odd: a selection file.
std::string readDocument(char which, const std::string& text) {
    if (which % 2 == 0) {
        std::string out;
        size_t taken = 0;
        const auto list = tavik::getFileList(text);
        for (const tavik::DumpFile& f : list->getFileList()) {
            out += f.name + "|" + std::to_string(f.size) + "|" + f.md5 + "\n";
            taken += f.name.size() + f.md5.size();
        }
        // Every name and sum is text of the list itself: nothing the list declares expands.
        FUZZ_CHECK(taken <= text.size());
        return out;
    }
    std::ofstream(kSelectionFile, std::ios::binary | std::ios::trunc) << text;
    std::string d = "d0", c = "c0", r = "r0";
    tavik::opt_backup_filter filter = tavik::FILTER_EVERYTHING;
    tavik::opt_backup_compress compress = tavik::COMPRESS_NOT_SPECIFIED;
    tavik::parseSelectedObjectsFile(kSelectionFile, d, c, r, filter, compress);
    // The lists are only appended to, by whole names.
    for (const auto& list :
         {std::make_pair(d, 'd'), std::make_pair(c, 'c'), std::make_pair(r, 'r')}) {
        FUZZ_CHECK(list.first.compare(0, 2, {list.second, '0'}) == 0);
        FUZZ_CHECK(list.first.size() == 2 || list.first[2] == ',');
    }
    return d + "\n" + c + "\n" + r + "\n" + std::to_string(filter) + std::to_string(compress);
}

// What the reader returned, or how it refused.
std::string outcome(char which, const std::string& text) {
    try {
        return "[" + readDocument(which, text) + "]";
    } catch (const tavik::ExTraceable& e) {
        return "<" + e.code() + ">";
    } catch (const boost::bad_lexical_cast&) {
        return "<not a number>";
    }
}

void readDocuments(const std::string& input) {
    if (input.empty()) return;
    const std::string text = input.substr(1);
    const std::string first = outcome(input[0], text);
    FUZZ_CHECK(outcome(input[0], text) == first);
    FUZZ_CHECK(first.find(kSecret) == std::string::npos || text.find(kSecret) != std::string::npos);
}

void ignoreMessage(void*, const char*, ...) {}

// "root/first child" of the saved file, read with libxml2 alone, so that a fault of the writer
// cannot hide behind one of our readers.
std::string savedShape() {
    const std::unique_ptr<xmlDoc, decltype(&xmlFreeDoc)> doc(
        xmlReadFile((statusDir / "migration.status").c_str(), nullptr, XML_PARSE_NONET),
        xmlFreeDoc);
    FUZZ_CHECK(doc != nullptr && xmlDocGetRootElement(doc.get()) != nullptr);
    const xmlNode* root = xmlDocGetRootElement(doc.get());
    std::string shape = reinterpret_cast<const char*>(root->name);
    if (root->children != nullptr)
        shape += "/" + std::string(reinterpret_cast<const char*>(root->children->name));
    return shape;
}

void writeStatus(const std::string& input) {
    if (input.empty()) return;
    const int state = static_cast<unsigned char>(input[0]) % 3;
    std::vector<std::string> v;
    boost::split(v, input.substr(1), boost::is_any_of("\n"));
    v.resize(9);
    tavik::MigrationStatusPtr status = tavik::createMigrationStatusFile(
        (statusDir / "migration.status").string(), {getuid(), getgid()});
    status->setAgentParams(v[0]);
    status->setTransferSpeed(v[1]);
    switch (state) {
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
               (state == 0 ? "migration-status/agent" : "migration-status/transfer"));
    // Destroying the document leaves the idle state behind, and that parses too.
    status.reset();
    FUZZ_CHECK(savedShape() == "migration-status/idle");
}

// What `command` printed under /bin/sh -c; it must succeed.
std::string printed(const std::string& command) {
    FILE* pipe = popen(command.c_str(), "r");
    FUZZ_CHECK(pipe != nullptr);
    std::string out;
    char buffer[4096];
    for (;;) {
        const size_t n = fread(buffer, 1, sizeof buffer, pipe);
        out.append(buffer, n);
        if (n > 0) continue;
        // libFuzzer's timeout timer interrupts the read now and then (its handler does not
        // restart calls); stopping there would close the pipe on a shell still writing.
        if (!ferror(pipe) || errno != EINTR) break;
        clearerr(pipe);
    }
    FUZZ_CHECK(pclose(pipe) == 0);
    return out;
}

void quoteWord(const std::string& input) {
    const std::string word = input.substr(0, input.find('\0'));
    const std::string quoted = tavik::sh_quote(word);
    if (tavik::check_shell_arg_nothrow(word.c_str()) == 1) FUZZ_CHECK(quoted == word);

    // bash takes the command from the environment, so that no other quoting stands between.
    const std::string command = "printf %s " + quoted;
    setenv("FUZZ_COMMAND", command.c_str(), 1);
    FUZZ_CHECK(printed(command) == word);  // dash
    FUZZ_CHECK(printed("exec /bin/bash -c \"$FUZZ_COMMAND\"") == word);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    std::ofstream(kSecretFile) << "<name>" << kSecret << "</name>" << kSecret;
    statusDir = fs::temp_directory_path() / fs::unique_path("ferrygate-status-fuzz-%%%%%%%%");
    fs::create_directories(statusDir);
    static struct Cleanup {
        ~Cleanup() {
            unlink(kSecretFile);
            unlink(kSelectionFile);
            fs::remove_all(statusDir);
        }
    } cleanup;
    xmlSetGenericErrorFunc(nullptr, ignoreMessage);  // the verdict is ours, not the parser's
    // The shells see the same environment on every run, and read no start-up file.
    setenv("PATH", "/usr/bin:/bin", 1);
    setenv("LC_ALL", "C.UTF-8", 1);
    unsetenv("ENV");
    unsetenv("BASH_ENV");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static void (*const parts[])(const std::string&) = {readDocuments, writeStatus, quoteWord};
    if (size > 0)
        parts[data[0] % 3](std::string(reinterpret_cast<const char*>(data) + 1, size - 1));
    return 0;
}
