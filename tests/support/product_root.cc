#include "support/product_root.h"

#include <stdexcept>

namespace tavik {
namespace testing {

ProductRoot::ProductRoot(const std::string& logProperties) {
    if (!inSandbox()) throw std::runtime_error("ProductRoot changes /etc: run in the sandbox");
    writeTextFile("/etc/hmx/hmx.conf", "PRODUCT_ROOT_D " + path() + "\n");
    writeTextFile(dataDir() + "/log4cpp.properties", readFile(logProperties));
}

}  // namespace testing
}  // namespace tavik
