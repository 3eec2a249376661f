// A product installation for code and binaries under test: /etc/hmx/hmx.conf (in the sandbox's
// private /etc) names a scratch product root that holds the shipped log configuration.
#ifndef FERRYGATE_TESTS_SUPPORT_PRODUCT_ROOT_H
#define FERRYGATE_TESTS_SUPPORT_PRODUCT_ROOT_H

#include <string>

#include "support/sandbox_env.h"

namespace tavik {
namespace testing {

class ProductRoot {
  public:
    // Copies `logProperties` (the shipped one is FERRYGATE_SOURCE_DIR
    // "/data/log4cpp.properties") to dataDir(). Throws std::runtime_error outside the sandbox.
    // Must exist before the product configuration is first read in this process.
    explicit ProductRoot(const std::string& logProperties);
    const std::string& path() const { return dir_.path(); }
    // The program's data directory, path() + "/RKU".
    std::string dataDir() const { return path() + "/RKU"; }

  private:
    ScratchDir dir_;
};

}  // namespace testing
}  // namespace tavik

#endif  // FERRYGATE_TESTS_SUPPORT_PRODUCT_ROOT_H
