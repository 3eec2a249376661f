#include "xml/xml_wrap.h"

#include <fcntl.h>
#include <libxml/chvalid.h>
#include <libxml/tree.h>
#include <libxml/xmlIO.h>
#include <libxml/xmlsave.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ostream>

#include "commons/commons.h"
#include "commons/exceptions.h"
#include "commons/replace_file.h"
#include "commons/unique_fd.h"
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

tXmlDocument::tXmlDocument(const char* filename, XmlOrigin origin) {
    readFromFile(filename, origin);
}

tXmlDocument::tXmlDocument(const boost::filesystem::path& filename, XmlOrigin origin) {
    readFromFile(filename.c_str(), origin);
}

tXmlDocument::tXmlDocument(const std::string& content, XmlOrigin origin) {
    if (content.empty()) TAVIK_XML_RAISE(logger, AssertionFailed, "content.size()");
    tXmlErrorCollector errors;
    XmlDocPtr parsed = readXmlMemory(content, origin);
    if (!parsed) TAVIK_XML_RAISE(logger, tError_ParseFile, "-", errors.text());
    doc_ = std::move(parsed);
}

tXmlDocument::tXmlDocument(Adopt, xmlDoc* owned) : doc_(owned, xmlFreeDoc) {}

tXmlDocument::~tXmlDocument() noexcept(false) = default;

void tXmlDocument::readFromFile(const char* filename, XmlOrigin origin) {
    if (filename == nullptr) TAVIK_XML_RAISE(logger, AssertionFailed, "filename != NULL");
    if (*filename == '\0') TAVIK_XML_RAISE(logger, AssertionFailed, "*filename != 0");
    if (std::strcmp(filename, "-") != 0 && !check_input_file(filename))
        TAVIK_XML_RAISE(logger, tError_WrongInputFile, filename);
    tXmlErrorCollector errors;
    XmlDocPtr parsed = readXmlFile(filename, origin);
    if (!parsed) TAVIK_XML_RAISE(logger, tError_ParseFile, filename, errors.text());
    doc_ = std::move(parsed);
}

void tXmlDocument::saveToFile(const char* filename) {
    if (filename == nullptr) TAVIK_XML_RAISE(logger, AssertionFailed, "filename != NULL");
    if (*filename == '\0') TAVIK_XML_RAISE(logger, AssertionFailed, "*filename != 0");
    tXmlErrorCollector errors;
    const bool saved = std::strcmp(filename, "-") == 0 ? xmlSaveFile(filename, getDoc()) >= 0
                                                       : writeFile(filename);
    if (!saved) {
        logger.error(errors.text());
        TAVIK_XML_RAISE(logger, tError_SaveFile, filename);
    }
}

// Truncating a file to zero on ext4 makes its close write the data out (auto_da_alloc), as a
// rename over another file does: costly at thousands of saves a second. So the file is opened
// without O_TRUNC and cut to the new length after writing, which is the same in the end.
bool tXmlDocument::writeFile(const char* filename) const {
    UniqueFd file(open(filename, O_WRONLY | O_CREAT | O_CLOEXEC, 0666));
    if (!file.valid()) return false;
    const xmlChar* encoding = getDoc()->encoding;
    xmlCharEncodingHandler* encoder = nullptr;
    if (encoding != nullptr) {
        encoder = xmlFindCharEncodingHandler(reinterpret_cast<const char*>(encoding));
        if (encoder == nullptr) return false;
    }
    // The buffer leaves the descriptor open; xmlSaveFormatFileTo releases the buffer.
    const int written = xmlSaveFormatFileTo(xmlOutputBufferCreateFd(file.get(), encoder), getDoc(),
                                            reinterpret_cast<const char*>(encoding), 0);
    // A pipe or terminal cannot be cut (EINVAL), and needs not be.
    return written >= 0 && (ftruncate(file.get(), written) == 0 || errno == EINVAL) &&
           file.close() == 0;
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
    tXmlErrorCollector errors;
    xmlNodeDumpOutput(buffer, getDoc(), reinterpret_cast<xmlNode*>(getDoc()), 0, 0, "UTF-8");
    // A write that failed on the way marks the buffer; the flush reports it as well.
    if (xmlOutputBufferFlush(buffer) < 0 || buffer->error != 0) {
        logger.error(errors.text());
        TAVIK_XML_RAISE(logger, tError_SaveFile, "in-memory buffer");
    }
    return 1;
}

void tXmlDocument::saveToFileAtomically(const std::string& filename) {
    saveToFileAtomically(filename, adminAccount());
}

void tXmlDocument::saveToFileAtomically(const std::string& filename, const FileOwner& owner,
                                        bool durable) {
    replaceFile(
        filename, owner, [this](const std::string& temporary) { saveToFile(temporary); }, durable);
}

tXmlRkuDocument::tXmlRkuDocument() : root_(nullptr) {}

tXmlRkuDocument::tXmlRkuDocument(const char* filename, XmlOrigin origin)
    : tXmlDocument(filename, origin), root_(nullptr) {}

tXmlRkuDocument::tXmlRkuDocument(const boost::filesystem::path& filename, XmlOrigin origin)
    : tXmlDocument(filename, origin), root_(nullptr) {}

tXmlRkuDocument::tXmlRkuDocument(const std::string& content, XmlOrigin origin)
    : tXmlDocument(content, origin), root_(nullptr) {}

void tXmlRkuDocument::readFromFile(const char* filename, XmlOrigin origin) {
    tXmlDocument::readFromFile(filename, origin);
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
    TAVIK_XML_RAISE(
        logger, tError_WrongContent,
        "Can not find '" + name + "' element in '" + toString(root_->name) + "' element.");
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

namespace {

// The characters of `value` (up to a NUL, as the library reads it) that XML 1.0 can hold, in
// valid UTF-8. The saver writes anything else in a way that no reader accepts or that loses the
// element, and one bad value must not spoil a whole status file.
// The length of the well-formed UTF-8 sequence at `p` (of `left` bytes) and its code point in
// `c`; 0 when ill-formed. Stricter than the library's own reader, which takes a continuation
// byte for the start of a character.
size_t utf8Sequence(const unsigned char* p, size_t left, unsigned& c) {
    static const unsigned kMin[] = {0, 0, 0x80, 0x800, 0x10000};
    const size_t length = p[0] < 0x80   ? 1
                          : p[0] < 0xc2 ? 0
                          : p[0] < 0xe0 ? 2
                          : p[0] < 0xf0 ? 3
                          : p[0] < 0xf5 ? 4
                                        : 0;
    if (length == 0 || length > left) return 0;
    c = length == 1 ? p[0] : p[0] & (0x7f >> length);
    for (size_t i = 1; i < length; ++i) {
        if ((p[i] & 0xc0) != 0x80) return 0;
        c = (c << 6) | (p[i] & 0x3f);
    }
    return c >= kMin[length] && c <= 0x10ffff && (c < 0xd800 || c > 0xdfff) ? length : 0;
}

std::string xmlCharactersOnly(const std::string& value) {
    const std::string text = value.substr(0, value.find('\0'));
    std::string kept;
    const auto* p = reinterpret_cast<const unsigned char*>(text.data());
    for (size_t left = text.size(); left > 0;) {
        unsigned c = 0;
        size_t length = utf8Sequence(p, left, c);
        if (length == 0) {
            length = 1;
        } else if (xmlIsCharQ(c)) {
            kept.append(reinterpret_cast<const char*>(p), length);
        }
        p += length;
        left -= length;
    }
    return kept;
}

}  // namespace

xmlNode* tXmlRkuDocument::newTextChild(xmlNode* parent, const std::string& name,
                                       const std::string& content) {
    if (parent == nullptr) return nullptr;
    xmlNode* child =
        xmlNewTextChild(parent, nullptr, toXml(name), toXml(xmlCharactersOnly(content)));
    if (child == nullptr)
        TAVIK_XML_RAISE(logger, tError_XmlInternal, "#0002: Can not create new node");
    return child;
}

void tXmlRkuDocument::addAttribute(xmlNode* node, const std::string& name,
                                   const std::string& value) {
    if (node == nullptr) TAVIK_XML_RAISE(logger, AssertionFailed, "node != NULL");
    const std::string text = xmlCharactersOnly(value);
    if (xmlSetProp(node, toXml(name), toXml(text)) == nullptr)
        TAVIK_XML_RAISE(logger, tError_XmlInternal, "Can not set attribute " + name);
}

void tXmlRkuDocument::removeNode(xmlNode* node) {
    xmlUnlinkNode(node);
    xmlFreeNode(node);
}

bool tXmlRkuDocument::stringEq(const xmlChar* xmlString, const std::string& s) {
    return xmlString != nullptr && s == reinterpret_cast<const char*>(xmlString);
}

}  // namespace tavik
