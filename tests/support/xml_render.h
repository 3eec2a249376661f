// Compact text of an element tree, for comparing whole trees in one assertion.
#ifndef FERRYGATE_TESTS_SUPPORT_XML_RENDER_H
#define FERRYGATE_TESTS_SUPPORT_XML_RENDER_H

#include <string>

namespace tavik {
namespace testing {

// The root element of the file at `path` as name[attr=value,...](child,child,...), or
// name:text for an element holding only text ("[...]" and "(...)" left out when empty, blank
// text between elements skipped); "missing" or "unparsable". Read by libxml2 alone, so that a
// fault of the writer under test cannot hide behind the same fault of its reader.
std::string renderFile(const std::string& path);

}  // namespace testing
}  // namespace tavik

#endif  // FERRYGATE_TESTS_SUPPORT_XML_RENDER_H
