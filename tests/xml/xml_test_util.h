// Helpers shared by the XML tests.
#ifndef FERRYGATE_TESTS_XML_XML_TEST_UTIL_H
#define FERRYGATE_TESTS_XML_XML_TEST_UTIL_H

#include <libxml/tree.h>

#include <boost/filesystem.hpp>
#include <set>
#include <string>

#include "support/raised.h"
#include "support/sandbox_env.h"
#include "support/xml_render.h"

namespace tavik {
namespace testing {

inline std::string str(const xmlChar* s) { return reinterpret_cast<const char*>(s); }

inline std::set<std::string> listDir(const std::string& dir) {
    std::set<std::string> names;
    for (const auto& entry : boost::filesystem::directory_iterator(dir))
        names.insert(entry.path().filename().string());
    return names;
}

}  // namespace testing
}  // namespace tavik

#endif  // FERRYGATE_TESTS_XML_XML_TEST_UTIL_H
