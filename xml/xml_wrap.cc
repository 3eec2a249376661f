#include "xml/xml_wrap.h"

#include <libxml/tree.h>
#include <libxml/xmlIO.h>
#include <libxml/xmlsave.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ostream>

#include "commons/commons.h"
#include "commons/exceptions.h"
#include "utils/tavik_ugid.h"
#include "xml/xml_internal.h"
#include "xml/xml_parse.h"

namespace tavik {

using xml_detail::toString;
using xml_detail::toXml;
using xml_detail::XmlCharPtr;

namespace {

struct OutputBufferClose {
    void operator()(xmlOutputBuffer* buffer) const { xmlOutputBufferClose(buffer); }
};

}  // namespace

log4cpp::Category& tXmlDocument::logger = log4cpp::Category::getInstance("p.Xml");

void rkuFreeXmlChar(xmlChar* s) {
    if (s != nullptr) xmlFree(s);
}

int StreamXmlIoHandler::write(void* stream, const char* bytes, int length) {
    auto& out = *static_cast<std::ostream*>(stream);
    out.write(bytes, length);
    return out.fail() ? -1 : length;
}

int StreamXmlIoHandler::close(void*) { return 0; }

tXmlDocument::tXmlDocument() : doc_(xmlNewDoc(BAD_CAST "1.0"), xmlFreeDoc) {
    if (!doc_)
        TAVIK_XML_RAISE(logger, tError_XmlInternal, "#0001: Can not create new XML document.");
}

tXmlDocument::tXmlDocument(const char* filename) { readFromFile(filename); }

tXmlDocument::tXmlDocument(const boost::filesystem::path& filename) {
    readFromFile(filename.c_str());
}

tXmlDocument::tXmlDocument(const std::string& content) {
    if (content.empty()) TAVIK_XML_RAISE(logger, AssertionFailed, "content.size()");
    tXmlErrorCollector errors;
    XmlDocPtr parsed = readXmlMemory(content);
    if (!parsed) TAVIK_XML_RAISE(logger, tError_ParseFile, "-", errors.text());
    doc_ = std::move(parsed);
}

tXmlDocument::tXmlDocument(Adopt, xmlDoc* owned) : doc_(owned, xmlFreeDoc) {}

tXmlDocument::~tXmlDocument() noexcept(false) = default;

void tXmlDocument::readFromFile(const char* filename) {
    if (filename == nullptr) TAVIK_XML_RAISE(logger, AssertionFailed, "filename != NULL");
    if (*filename == '\0') TAVIK_XML_RAISE(logger, AssertionFailed, "*filename != 0");
    if (std::strcmp(filename, "-") != 0 && !check_input_file(filename))
        TAVIK_XML_RAISE(logger, tError_WrongInputFile, filename);
    tXmlErrorCollector errors;
    XmlDocPtr parsed = readXmlFile(filename);
    if (!parsed) TAVIK_XML_RAISE(logger, tError_ParseFile, filename, errors.text());
    doc_ = std::move(parsed);
}

void tXmlDocument::saveToFile(const char* filename) {
    if (filename == nullptr) TAVIK_XML_RAISE(logger, AssertionFailed, "filename != NULL");
    if (*filename == '\0') TAVIK_XML_RAISE(logger, AssertionFailed, "*filename != 0");
    if (xmlSaveFile(filename, getDoc()) < 0) TAVIK_XML_RAISE(logger, tError_SaveFile, filename);
}

void tXmlDocument::saveToFile(const std::string& filename) { saveToFile(filename.c_str()); }

int tXmlDocument::saveToStdout() {
    saveToFile("-");
    return 0;
}

int tXmlDocument::saveToStream(std::ostream& out) {
    std::unique_ptr<xmlOutputBuffer, OutputBufferClose> buffer(
        xmlOutputBufferCreateIO(StreamXmlIoHandler::write, StreamXmlIoHandler::close, &out,
                                xmlFindCharEncodingHandler("UTF-8")));
    if (!buffer) TAVIK_XML_RAISE(logger, tError_SaveFile, "output stream");
    return saveToBuffer(buffer.get());
}

int tXmlDocument::saveToBuffer(xmlOutputBuffer* buffer) {
    if (buffer == nullptr) TAVIK_XML_RAISE(logger, AssertionFailed, "buffer != 0");
    xmlNodeDumpOutput(buffer, getDoc(), reinterpret_cast<xmlNode*>(getDoc()), 0, 0, "UTF-8");
    // A write that failed on the way marks the buffer; the flush reports it as well.
    if (xmlOutputBufferFlush(buffer) < 0 || buffer->error != 0)
        TAVIK_XML_RAISE(logger, tError_SaveFile, "in-memory buffer");
    return 1;
}

void tXmlDocument::saveToFileAtomically(const std::string& filename) {
    const boost::filesystem::path target(filename);
    std::string directory = target.parent_path().string();
    // A bare name lives in the current directory, not in the default temporary one: the rename
    // must not cross file systems.
    if (directory.empty()) directory = ".";
    const std::string temporary = RKU_getTempFileName(directory, target.filename().string());

    saveToFile(temporary);

    const uid_t owner = tavik_ugid("hmxadm", 0);
    const gid_t group = tavik_ugid("hmxadm", 1);
    if (chown(temporary.c_str(), owner, group) != 0)
        TAVIK_XML_RAISE(logger, CantTakeFileOwnership, temporary, std::strerror(errno));
    if (rename(temporary.c_str(), filename.c_str()) != 0)
        TAVIK_XML_RAISE(logger, CantRenameFile, temporary, filename, std::strerror(errno));
}

tXmlRkuDocument::tXmlRkuDocument() : root_(nullptr) {}

tXmlRkuDocument::tXmlRkuDocument(const char* filename)
    : tXmlDocument(filename), root_(nullptr) {}

tXmlRkuDocument::tXmlRkuDocument(const boost::filesystem::path& filename)
    : tXmlDocument(filename), root_(nullptr) {}

tXmlRkuDocument::tXmlRkuDocument(const std::string& content)
    : tXmlDocument(content), root_(nullptr) {}

void tXmlRkuDocument::readFromFile(const char* filename) {
    tXmlDocument::readFromFile(filename);
    root_ = nullptr;
}

void tXmlRkuDocument::initNewDoc(const std::string& rootName) {
    xmlNode* root = xmlNewDocNode(getDoc(), nullptr, toXml(rootName), nullptr);
    if (root == nullptr)
        TAVIK_XML_RAISE(logger, tError_XmlInternal, "#0002: Can not create new node");
    // A root installed over an earlier one hands that one back to us to free.
    xmlFreeNode(xmlDocSetRootElement(getDoc(), root));
    root_ = root;
}

void tXmlRkuDocument::initFileDoc(const std::string& expectedRootName) {
    xmlNode* root = xmlDocGetRootElement(getDoc());
    if (root == nullptr) TAVIK_XML_RAISE(logger, tError_EmptyDoc, expectedRootName);
    if (!stringEq(root->name, expectedRootName))
        TAVIK_XML_RAISE(logger, tError_WrongDoc, expectedRootName, toString(root->name));
    root_ = root;
}

xmlNode* tXmlRkuDocument::getRootNodeChild(const std::string& name) const {
    if (root_ == nullptr) TAVIK_XML_RAISE(logger, AssertionFailed, "root != NULL");
    for (xmlNode* child = root_->children; child != nullptr; child = child->next)
        if (child->type == XML_ELEMENT_NODE && stringEq(child->name, name)) return child;
    TAVIK_XML_RAISE(logger, tError_WrongContent,
                    "Can not find '" + name + "' element in '" + toString(root_->name) +
                        "' element.");
}

std::string tXmlRkuDocument::getAttribute(xmlNode* node, const std::string& name) const {
    if (node == nullptr) TAVIK_XML_RAISE(logger, AssertionFailed, "node != NULL");
    XmlCharPtr value(xmlGetProp(node, toXml(name)));
    if (!value) TAVIK_XML_RAISE(logger, NoSuchAttribute, toString(node->name), name);
    return toString(value.get());
}

std::string tXmlRkuDocument::getNodeText(xmlNode* node) const {
    if (node == nullptr) TAVIK_XML_RAISE(logger, AssertionFailed, "node != NULL");
    XmlCharPtr text(xmlNodeListGetString(getDoc(), node->children, 1));
    return toString(text.get());
}

xmlNode* tXmlRkuDocument::newChild(xmlNode* parent, const std::string& name) {
    if (parent == nullptr) TAVIK_XML_RAISE(logger, AssertionFailed, "parent != NULL");
    xmlNode* child = xmlNewChild(parent, nullptr, toXml(name), nullptr);
    if (child == nullptr)
        TAVIK_XML_RAISE(logger, tError_XmlInternal, "#0002: Can not create new node");
    return child;
}

xmlNode* tXmlRkuDocument::newTextChild(xmlNode* parent, const std::string& name,
                                       const std::string& content) {
    if (parent == nullptr) return nullptr;
    xmlNode* child = xmlNewTextChild(parent, nullptr, toXml(name), toXml(content));
    if (child == nullptr)
        TAVIK_XML_RAISE(logger, tError_XmlInternal, "#0002: Can not create new node");
    return child;
}

void tXmlRkuDocument::addAttribute(xmlNode* node, const std::string& name,
                                   const std::string& value) {
    if (node == nullptr) TAVIK_XML_RAISE(logger, AssertionFailed, "node != NULL");
    if (xmlSetProp(node, toXml(name), toXml(value)) == nullptr)
        TAVIK_XML_RAISE(logger, tError_XmlInternal, "Can not set attribute " + name);
}

bool tXmlRkuDocument::stringEq(const xmlChar* xmlString, const std::string& s) {
    return xmlString != nullptr && s == reinterpret_cast<const char*>(xmlString);
}

}  // namespace tavik
