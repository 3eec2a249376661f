#include "support/product_root.h"

#include <fstream>
#include <sstream>
#include <stdexcept>

namespace tavik {
namespace testing {

ProductRoot::ProductRoot(const std::string& logProperties) {
    if (!inSandbox()) throw std::runtime_error("ProductRoot changes /etc: run in the sandbox");
    writeTextFile("/etc/hmx/hmx.conf", "PRODUCT_ROOT_D " + path() + "\n");
    writeTextFile(dataDir() + "/log4cpp.properties", readTextFile(logProperties));
}

std::string readTextFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot read " + path);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

}  // namespace testing
}  // namespace tavik
