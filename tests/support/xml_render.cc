#include "support/xml_render.h"

#include <libxml/parser.h>
#include <libxml/tree.h>
#include <unistd.h>

namespace tavik {
namespace testing {

namespace {
std::string text(const xmlChar* s) { return s == nullptr ? "" : reinterpret_cast<const char*>(s); }

bool blank(const std::string& s) { return s.find_first_not_of(" \t\r\n") == std::string::npos; }

std::string renderElement(const xmlNode* element) {
    std::string out = text(element->name);
    std::string attributes;
    for (const xmlAttr* a = element->properties; a != nullptr; a = a->next) {
        if (!attributes.empty()) attributes += ",";
        attributes += text(a->name) + "=" + (a->children ? text(a->children->content) : "");
    }
    if (!attributes.empty()) out += "[" + attributes + "]";

    std::string children;
    std::string content;
    for (const xmlNode* c = element->children; c != nullptr; c = c->next) {
        if (c->type == XML_ELEMENT_NODE) {
            if (!children.empty()) children += ",";
            children += renderElement(c);
        } else if (c->type == XML_TEXT_NODE && !blank(text(c->content))) {
            content += text(c->content);
        }
    }
    if (!content.empty()) out += ":" + content;
    if (!children.empty()) out += "(" + children + ")";
    return out;
}

}  // namespace

std::string renderFile(const std::string& path) {
    if (access(path.c_str(), F_OK) != 0) return "missing";
    xmlDoc* doc = xmlReadFile(path.c_str(), nullptr, XML_PARSE_NONET);
    const xmlNode* root = doc != nullptr ? xmlDocGetRootElement(doc) : nullptr;
    const std::string out = root != nullptr ? renderElement(root) : "unparsable";
    xmlFreeDoc(doc);
    return out;
}

}  // namespace testing
}  // namespace tavik
