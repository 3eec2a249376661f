// Compact text of an element tree, for comparing whole trees in one assertion.
#ifndef FERRYGATE_TESTS_SUPPORT_XML_RENDER_H
#define FERRYGATE_TESTS_SUPPORT_XML_RENDER_H

#include <string>

struct _xmlNode;
typedef struct _xmlNode xmlNode;

namespace tavik {
namespace testing {

// name[attr=value,...](child,child,...) for an element, name:text for an element holding only
// text; "[...]" and "(...)" are left out when empty. Blank text between elements is skipped.
std::string renderElement(const xmlNode* element);
// renderElement of the root of the file at `path`, read by libxml2 alone (so that a fault of the
// writer under test cannot hide behind the same fault of its reader); "missing" or "unparsable".
std::string renderFile(const std::string& path);

}  // namespace testing
}  // namespace tavik

#endif  // FERRYGATE_TESTS_SUPPORT_XML_RENDER_H
