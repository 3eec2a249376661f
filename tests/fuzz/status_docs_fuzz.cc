// The readers of agents' documents on arbitrary text (the first byte chooses the reader): they
// refuse only with a tagged exception or the number parser's error, and read alike every time.
#include <boost/lexical_cast.hpp>
#include <string>

#include "commons/exceptions.h"
#include "tests/fuzz/fuzz_support.h"
#include "xml/agent_file_list.h"
#include "xml/data_documents.h"

namespace {

using tavik::fuzz::MemFile;

// Getters run one by one: one that refuses must not hide what the others return.
template <class Getter>
std::string field(Getter getter) {
    try {
        return "[" + getter() + "]";
    } catch (const tavik::ExTraceable& e) {
        return "<" + e.code() + ">";
    } catch (const boost::bad_lexical_cast&) {
        return "<not a number>";
    }
}

std::string readContentList(const std::string& text) {
    const auto list = tavik::getFileList(text);
    std::string out;
    for (const tavik::DumpFile& file : list->getFileList()) {
        out += file.name + "|" + std::to_string(file.size) + "|" + file.md5 + "\n";
    }
    out += field([&] { return std::to_string(list->getTotalSize()); });
    out += field([&] { return std::to_string(list->getUnpackedSize()); });
    return out;
}

std::string readCliGateResponse(const std::string& text) {
    const auto response = tavik::getCliGateResponse(text);
    return field([&] { return std::to_string(response->isOk()); }) +
           field([&] { return std::to_string(response->getReturn()); }) +
           field([&] { return response->getStdout(); }) +
           field([&] { return response->getStderr(); }) +
           field([&] { return response->getError(); });
}

std::string readCredentials(const std::string& text) {
    const auto credentials = tavik::getDatabaseCredentials(text);
    return field([&] { return credentials->getUsername(); }) +
           field([&] { return credentials->getPassword(); }) +
           field([&] { return std::to_string(credentials->notConfigured()); });
}

std::string readAdminLocation(const std::string& text) {
    const auto location = tavik::getAdminLocation(text);
    return field([&] { return location->getCountry(); }) +
           field([&] { return location->getState(); }) + field([&] { return location->getZip(); });
}

std::string readIpInfo(const std::string& text) {
    std::string out;
    for (const auto& entry : tavik::getTavikIpInfo(text)) {
        out += entry.first + "|" + std::to_string(entry.second.defDomain) + "|" +
               entry.second.type + "\n";
    }
    return out;
}

std::string readDeploymentStatus(const std::string& text) {
    MemFile file(reinterpret_cast<const uint8_t*>(text.data()), text.size());
    tavik::XmlAgentDeploymentStatusDocument document(file.path());
    return field([&] { return document.getAgentDeploymentStatusFileName(); });
}

std::string readDocument(uint8_t which, const std::string& text) {
    return field([&] {
        switch (which % 6) {
            case 0:
                return readContentList(text);
            case 1:
                return readCliGateResponse(text);
            case 2:
                return readCredentials(text);
            case 3:
                return readAdminLocation(text);
            case 4:
                return readIpInfo(text);
            default:
                return readDeploymentStatus(text);
        }
    });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
    const std::string first = readDocument(data[0], text);
    FUZZ_CHECK(readDocument(data[0], text) == first);
    return 0;
}
