// The selection file reader on arbitrary files: it refuses only with a tagged exception, only
// appends to its lists, reads a file alike every time, and never brings in the text of a local
// file that an entity or DTD names.
#include <fstream>
#include <string>

#include "commons/exceptions.h"
#include "ferrygate/dump_options.h"
#include "tests/fuzz/fuzz_support.h"

namespace {

using tavik::fuzz::MemFile;

// Seeds and the dictionary name this path; the process creates it before the first input.
const char kSecretFile[] = "/tmp/ferrygate-fuzz-selection-secret";
const char kSecret[] = "read-from-the-local-disk";

const char kDomains[] = "d0", kClients[] = "c0", kResellers[] = "r0";

std::string read(const std::string& path) {
    std::string domains = kDomains, clients = kClients, resellers = kResellers;
    tavik::opt_backup_filter filter = tavik::FILTER_EVERYTHING;
    tavik::opt_backup_compress compress = tavik::COMPRESS_NOT_SPECIFIED;
    try {
        tavik::parseSelectedObjectsFile(path, domains, clients, resellers, filter, compress);
    } catch (const tavik::ExTraceable& e) {
        return "<" + e.code() + ">";
    }
    for (const auto& list : {std::make_pair(&domains, kDomains), std::make_pair(&clients, kClients),
                             std::make_pair(&resellers, kResellers)}) {
        const std::string& text = *list.first;
        FUZZ_CHECK(text.compare(0, 2, list.second) == 0);
        FUZZ_CHECK(text.size() == 2 || text[2] == ',');
    }
    return domains + "\n" + clients + "\n" + resellers + "\n" + std::to_string(filter) + "\n" +
           std::to_string(compress);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    std::ofstream(kSecretFile) << "<name>" << kSecret << "</name>" << kSecret;
    static struct Cleanup {
        ~Cleanup() { unlink(kSecretFile); }
    } cleanup;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const MemFile file(data, size);
    const std::string first = read(file.path());
    FUZZ_CHECK(read(file.path()) == first);
    const std::string input(reinterpret_cast<const char*>(data), size);
    FUZZ_CHECK(first.find(kSecret) == std::string::npos ||
               input.find(kSecret) != std::string::npos);
    return 0;
}
