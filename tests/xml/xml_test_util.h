// Helpers shared by the XML tests. Written files are read back with libxml2 directly, so that a
// fault in our writer cannot hide behind the same fault in our reader.
#ifndef FERRYGATE_TESTS_XML_XML_TEST_UTIL_H
#define FERRYGATE_TESTS_XML_XML_TEST_UTIL_H

#include <libxml/parser.h>
#include <libxml/tree.h>
#include <pwd.h>

#include <boost/filesystem.hpp>
#include <fstream>
#include <set>
#include <sstream>
#include <string>

#include "commons/exceptions.h"
#include "support/sandbox_env.h"

namespace tavik {
namespace testing {

// The message of the tagged kind `Tag` that `body` throws, or what happened instead.
template <void (*Tag)(), class Body>
std::string messageOf(Body body) {
    try {
        body();
    } catch (const Exc<Tag>& e) {
        return e.message();
    } catch (const std::exception& e) {
        return std::string("wrong kind: ") + e.what();
    }
    return "nothing thrown";
}

// The account that files for the controlling process are given to; inside the sandbox only.
inline bool haveHmxadm() {
    return inSandbox() && (getpwnam("hmxadm") != nullptr || addSystemAccount("hmxadm"));
}

inline std::string readFile(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

inline std::set<std::string> listDir(const std::string& dir) {
    std::set<std::string> names;
    for (const auto& entry : boost::filesystem::directory_iterator(dir))
        names.insert(entry.path().filename().string());
    return names;
}

inline std::string str(const xmlChar* s) { return reinterpret_cast<const char*>(s); }

// An element as name[attr=value,...]{own text}(children), all in document order.
inline std::string outline(const xmlNode* node) {
    std::string out = str(node->name), text, children;
    for (const xmlAttr* a = node->properties; a != nullptr; a = a->next) {
        xmlChar* value = xmlNodeListGetString(node->doc, a->children, 1);
        out += (a == node->properties ? "[" : ",") + str(a->name) + "=" + (value ? str(value) : "");
        xmlFree(value);
    }
    if (node->properties != nullptr) out += "]";
    for (const xmlNode* c = node->children; c != nullptr; c = c->next) {
        if (c->type == XML_TEXT_NODE) text += str(c->content);
        if (c->type == XML_ELEMENT_NODE) children += (children.empty() ? "" : " ") + outline(c);
    }
    return out + (text.empty() ? "" : "{" + text + "}") +
           (children.empty() ? "" : "(" + children + ")");
}

// The outline of the file's root element, "missing" or "unparsable".
inline std::string outlineOfFile(const std::string& path) {
    if (!boost::filesystem::exists(path)) return "missing";
    xmlDoc* doc = xmlReadFile(path.c_str(), nullptr, XML_PARSE_NONET);
    const xmlNode* root = doc != nullptr ? xmlDocGetRootElement(doc) : nullptr;
    const std::string out = root != nullptr ? outline(root) : "unparsable";
    xmlFreeDoc(doc);
    return out;
}

}  // namespace testing
}  // namespace tavik

#endif  // FERRYGATE_TESTS_XML_XML_TEST_UTIL_H
