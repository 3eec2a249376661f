// Files, accounts, raised exceptions and XML trees for tests. Those that change /etc refuse to run
// outside scripts/sandbox.sh, whose private copy of /etc vanishes with the test.
#ifndef FERRYGATE_TESTS_SUPPORT_SANDBOX_ENV_H
#define FERRYGATE_TESTS_SUPPORT_SANDBOX_ENV_H

#include <gtest/gtest.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <pwd.h>
#include <stdlib.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <fstream>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>

#include "commons/checksum.h"
#include "commons/exceptions.h"

namespace tavik {
namespace testing {

// True inside scripts/sandbox.sh; use as ASSERT_TRUE(inSandbox()) before touching /etc.
inline bool inSandbox() {
    const char* flag = getenv("FERRYGATE_SANDBOXED");
    return flag != nullptr && std::string(flag) == "1";
}

// Creates or replaces `path` (and its missing parents) with `text`.
inline void writeTextFile(const std::string& path, const std::string& text) {
    boost::filesystem::create_directories(boost::filesystem::path(path).parent_path());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!(out << text).flush()) throw std::runtime_error("cannot write " + path);
}

// The whole file, or "" when it cannot be read.
inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// The names in a directory.
inline std::set<std::string> listDir(const std::string& dir) {
    std::set<std::string> names;
    for (const auto& entry : boost::filesystem::directory_iterator(dir))
        names.insert(entry.path().filename().string());
    return names;
}

// MD5 of a file as 32 lower-case hexadecimal digits.
inline std::string md5OfFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return countMd5Sum(in);
}

// Adds a system account without a home directory (useradd -M -r) unless it exists, inside the
// sandbox only; false when there is no such account afterwards.
inline bool addSystemAccount(const std::string& name) {
    if (!inSandbox()) return false;
    if (getpwnam(name.c_str()) != nullptr) return true;
    return system(("useradd -M -r " + name + " >/dev/null 2>&1").c_str()) == 0;
}

// A fresh directory below /tmp, removed with everything in it by the destructor.
class ScratchDir {
  public:
    ScratchDir() {
        char name[] = "/tmp/ferrygate-test.XXXXXX";
        if (mkdtemp(name) == nullptr) throw std::runtime_error("mkdtemp failed");
        path_ = name;
    }
    ~ScratchDir() {
        boost::system::error_code ignored;
        boost::filesystem::remove_all(path_, ignored);
    }
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;
    const std::string& path() const { return path_; }

  private:
    std::string path_;
};

// The message of the exception of kind `Tag` that `body` raises. A test failure when it raises
// nothing; an exception of another kind passes through and fails the test.
template <void (*Tag)(), class Body>
std::string messageOf(Body body) {
    try {
        body();
        ADD_FAILURE() << "nothing raised";
    } catch (const Exc<Tag>& e) {
        return e.message();
    }
    return "";
}

// Compact text of an element tree, for comparing whole trees in one assertion.
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

#endif  // FERRYGATE_TESTS_SUPPORT_SANDBOX_ENV_H
