// Compact text of an element tree, for comparing whole trees in one assertion.
#ifndef FERRYGATE_TESTS_SUPPORT_XML_RENDER_H
#define FERRYGATE_TESTS_SUPPORT_XML_RENDER_H

#include <libxml/parser.h>
#include <libxml/tree.h>
#include <unistd.h>

#include <string>

namespace tavik {
namespace testing {

inline std::string renderElement(const xmlNode* element) {
    auto text = [](const xmlChar* s) {
        return s ? std::string(reinterpret_cast<const char*>(s)) : "";
    };
    std::string out = text(element->name), attributes, children, content;
    for (const xmlAttr* a = element->properties; a != nullptr; a = a->next) {
        attributes += (attributes.empty() ? "" : ",") + text(a->name) + "=" +
                      (a->children ? text(a->children->content) : "");
    }
    for (const xmlNode* c = element->children; c != nullptr; c = c->next) {
        const std::string value = c->type == XML_TEXT_NODE ? text(c->content) : "";
        if (c->type == XML_ELEMENT_NODE)
            children += (children.empty() ? "" : ",") + renderElement(c);
        if (value.find_first_not_of(" \t\r\n") != std::string::npos) content += value;
    }
    if (!attributes.empty()) out += "[" + attributes + "]";
    if (!content.empty()) out += ":" + content;
    if (!children.empty()) out += "(" + children + ")";
    return out;
}

// The root element of the file at `path` as name[attr=value,...](child,child,...), or
// name:text for an element holding only text ("[...]" and "(...)" left out when empty, blank
// text between elements skipped); "missing" or "unparsable". Read by libxml2 alone, so that a
// fault of the writer under test cannot hide behind the same fault of its reader.
inline std::string renderFile(const std::string& path) {
    if (access(path.c_str(), F_OK) != 0) return "missing";
    xmlDoc* doc = xmlReadFile(path.c_str(), nullptr, XML_PARSE_NONET);
    const xmlNode* root = doc != nullptr ? xmlDocGetRootElement(doc) : nullptr;
    const std::string out = root != nullptr ? renderElement(root) : "unparsable";
    xmlFreeDoc(doc);
    return out;
}

}  // namespace testing
}  // namespace tavik

#endif  // FERRYGATE_TESTS_SUPPORT_XML_RENDER_H
