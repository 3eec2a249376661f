// The XML readers on arbitrary text (the first byte chooses the reader): the content list the
// source host sends, and the controlling process's selection file. They refuse only with a
// tagged exception or the number parser's error, read alike every time, and never bring in the
// text of a local file that an entity or DTD names; the content list, which may declare nothing,
// never gives back more text than it was given.
#include <unistd.h>

#include <boost/lexical_cast.hpp>
#include <fstream>
#include <string>

#include "commons/exceptions.h"
#include "ferrygate/dump_options.h"
#include "tests/fuzz/fuzz_support.h"
#include "xml/agent_file_list.h"

namespace {

// Seeds and the dictionary name this path; the process creates it before the first input.
const char kSecretFile[] = "/tmp/ferrygate-fuzz-selection-secret";
const char kSecret[] = "read-from-the-local-disk";
const char kSelectionFile[] = "/tmp/ferrygate-fuzz-selection";

// Even: the content list, which content retrieval reads; odd: a selection file.
std::string readDocument(uint8_t which, const std::string& text) {
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
std::string outcome(uint8_t which, const std::string& text) {
    try {
        return "[" + readDocument(which, text) + "]";
    } catch (const tavik::ExTraceable& e) {
        return "<" + e.code() + ">";
    } catch (const boost::bad_lexical_cast&) {
        return "<not a number>";
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    std::ofstream(kSecretFile) << "<name>" << kSecret << "</name>" << kSecret;
    static struct Cleanup {
        ~Cleanup() {
            unlink(kSecretFile);
            unlink(kSelectionFile);
        }
    } cleanup;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
    const std::string first = outcome(data[0], text);
    FUZZ_CHECK(outcome(data[0], text) == first);
    FUZZ_CHECK(first.find(kSecret) == std::string::npos || text.find(kSecret) != std::string::npos);
    return 0;
}
