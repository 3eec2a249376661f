// The readers of agents' documents on arbitrary text (the first byte chooses the reader): they
// refuse only with a tagged exception or the number parser's error, read alike every time, and
// never give back more text than they were given.
#include <boost/lexical_cast.hpp>
#include <functional>
#include <string>

#include "commons/exceptions.h"
#include "tests/fuzz/fuzz_support.h"
#include "xml/agent_file_list.h"
#include "xml/data_documents.h"

namespace {

using std::to_string;

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
// reader that walks a node set; any other: a command-gate response, whose getters stand for those
// of the credentials and administrator documents (all plain XPath over the root).
std::string readDocument(uint8_t which, const std::string& text) {
    switch (which % 6) {
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

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
    const auto read = [&] { return readDocument(data[0], text); };
    const std::string first = fields({read});
    FUZZ_CHECK(fields({read}) == first);
    return 0;
}
