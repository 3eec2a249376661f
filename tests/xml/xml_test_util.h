// Helpers shared by the XML tests: they read what was written with libxml2 directly, so that a
// fault in the writer cannot hide behind the same fault in our reader.
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

// Runs `body`, which must throw the tagged kind `Tag`, and returns the message; otherwise a
// text that says what happened instead.
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

// The account that status files are given to. Inside the sandbox only; a second call in the
// same process finds it already there.
inline bool haveHmxadm() {
    return inSandbox() && (getpwnam("hmxadm") != nullptr || addSystemAccount("hmxadm"));
}

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

inline std::set<std::string> listDir(const std::string& dir) {
    std::set<std::string> names;
    for (const auto& entry : boost::filesystem::directory_iterator(dir))
        names.insert(entry.path().filename().string());
    return names;
}

// One element as name[attr=value,...]{own text}(children...), attributes and children in
// document order.
inline std::string outline(const xmlNode* node) {
    std::string out = reinterpret_cast<const char*>(node->name);
    if (node->properties != nullptr) {
        out += "[";
        for (const xmlAttr* a = node->properties; a != nullptr; a = a->next) {
            xmlChar* value = xmlNodeListGetString(node->doc, a->children, 1);
            out += std::string(a == node->properties ? "" : ",") +
                   reinterpret_cast<const char*>(a->name) + "=" +
                   (value ? reinterpret_cast<const char*>(value) : "");
            xmlFree(value);
        }
        out += "]";
    }
    std::string text, children;
    for (const xmlNode* c = node->children; c != nullptr; c = c->next) {
        if (c->type == XML_TEXT_NODE) text += reinterpret_cast<const char*>(c->content);
        if (c->type == XML_ELEMENT_NODE) children += (children.empty() ? "" : " ") + outline(c);
    }
    if (!text.empty()) out += "{" + text + "}";
    if (!children.empty()) out += "(" + children + ")";
    return out;
}

// The outline of the file's root element, "missing" or "unparsable".
inline std::string outlineOfFile(const std::string& path) {
    if (!boost::filesystem::exists(path)) return "missing";
    xmlDoc* doc = xmlReadFile(path.c_str(), nullptr, XML_PARSE_NONET);
    if (doc == nullptr || xmlDocGetRootElement(doc) == nullptr) {
        xmlFreeDoc(doc);
        return "unparsable";
    }
    std::string out = outline(xmlDocGetRootElement(doc));
    xmlFreeDoc(doc);
    return out;
}

}  // namespace testing
}  // namespace tavik

#endif  // FERRYGATE_TESTS_XML_XML_TEST_UTIL_H
