// The XML readers on arbitrary text (the first byte chooses the reader): the agents' documents
// and the controlling process's selection file. They refuse only with a tagged exception or the
// number parser's error, read alike every time, and never bring in the text of a local file that
// an entity or DTD names; the agents' documents, which may declare nothing, never give back more
// text than they were given.
#include <unistd.h>

#include <boost/lexical_cast.hpp>
#include <fstream>
#include <functional>
#include <string>

#include "commons/exceptions.h"
#include "ferrygate/dump_options.h"
#include "tests/fuzz/fuzz_support.h"
#include "xml/agent_file_list.h"
#include "xml/data_documents.h"

namespace {

using std::to_string;

// Seeds and the dictionary name this path; the process creates it before the first input.
const char kSecretFile[] = "/tmp/ferrygate-fuzz-selection-secret";
const char kSecret[] = "read-from-the-local-disk";
const char kSelectionFile[] = "/tmp/ferrygate-fuzz-selection";

// Getters run one by one: one that refuses must not hide what the others return.
std::string fields(std::initializer_list<std::function<std::string()>> getters) {
    std::string out;
    for (const auto& getter : getters) {
        try {
            out += "[" + getter() + "]";
        } catch (const tavik::ExTraceable& e) {
            out += "<" + e.code() + ">";
        } catch (const boost::bad_lexical_cast&) {
            out += "<not a number>";
        }
    }
    return out;
}

// 0: the content list, which content retrieval reads; 4: the address information, the one
// reader that walks a node set; 6: a selection file; any other: a command-gate response, whose
// getters stand for those of the credentials and administrator documents (all plain XPath).
std::string readDocument(uint8_t which, const std::string& text) {
    switch (which % 7) {
        case 0: {
            const auto list = tavik::getFileList(text);
            std::string out;
            size_t taken = 0;
            for (const tavik::DumpFile& f : list->getFileList()) {
                out += f.name + "|" + to_string(f.size) + "|" + f.md5 + "\n";
                taken += f.name.size() + f.md5.size();
            }
            // Every name and sum is text of the list itself: nothing the list declares expands.
            FUZZ_CHECK(taken <= text.size());
            return out + fields({[&] { return to_string(list->getTotalSize()); },
                                 [&] { return to_string(list->getUnpackedSize()); }});
        }
        case 4: {
            std::string out;
            for (const auto& ip : tavik::getTavikIpInfo(text))
                out +=
                    ip.first + "|" + to_string(ip.second.defDomain) + "|" + ip.second.type + "\n";
            return out;
        }
        case 6: {
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
            return d + "\n" + c + "\n" + r + "\n" + to_string(filter) + to_string(compress);
        }
        default: {
            const auto r = tavik::getCliGateResponse(text);
            return fields({[&] { return to_string(r->isOk()); },
                           [&] { return to_string(r->getReturn()); },
                           [&] { return r->getStdout(); }, [&] { return r->getStderr(); },
                           [&] { return r->getError(); }});
        }
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
    const auto read = [&] { return readDocument(data[0], text); };
    const std::string first = fields({read});
    FUZZ_CHECK(fields({read}) == first);
    FUZZ_CHECK(first.find(kSecret) == std::string::npos || text.find(kSecret) != std::string::npos);
    return 0;
}
