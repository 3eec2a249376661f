// Owned XML documents: reading with collected parser messages, building, checking the root
// element, and saving to files, streams and buffers, including the atomic replacement of files
// that other processes poll.
#ifndef FERRYGATE_XML_XML_WRAP_H
#define FERRYGATE_XML_XML_WRAP_H

#include <boost/filesystem/path.hpp>
#include <iosfwd>
#include <memory>
#include <string>

#include "xml/xml_parse.h"

struct _xmlDoc;
typedef struct _xmlDoc xmlDoc;
struct _xmlNode;
typedef struct _xmlNode xmlNode;
struct _xmlOutputBuffer;
typedef struct _xmlOutputBuffer xmlOutputBuffer;
typedef unsigned char xmlChar;

namespace log4cpp {
class Category;
}

namespace tavik {

struct FileOwner;

// Releases a string that libxml2 allocated (null is fine).
void rkuFreeXmlChar(xmlChar* s);

// Output callbacks that bind a libxml2 output buffer to a std::ostream given as the context.
struct StreamXmlIoHandler {
    // Writes the bytes; their count, or -1 when the stream is then failed or bad.
    static int write(void* stream, const char* bytes, int length);
    // The stream stays open: it belongs to the caller.
    static int close(void* stream);
};

// A libxml2 tree behind a shared handle: copies share one tree, which is freed when the last
// holder goes. All failures are tagged exceptions (commons/exceptions.h).
class tXmlDocument {
  public:
    // An empty document of version "1.0".
    tXmlDocument();
    // Reads the file (see readFromFile).
    explicit tXmlDocument(const char* filename, XmlOrigin origin = XmlOrigin::Local);
    explicit tXmlDocument(const boost::filesystem::path& filename,
                          XmlOrigin origin = XmlOrigin::Local);
    // Parses `content` itself, NOT a file name: parse errors name the source "-". Text in memory
    // is what the agents print, so it is taken for the source host's unless said otherwise.
    explicit tXmlDocument(const std::string& content, XmlOrigin origin = XmlOrigin::SourceHost);
    // Documents that save themselves on destruction may fail there (see migration_status.h);
    // releasing the tree never throws.
    virtual ~tXmlDocument() noexcept(false);

    // Replaces this holder's tree with the parsed file; "-" is standard input. External
    // entities and DTDs are never loaded; see XmlOrigin for what a document may declare.
    void readFromFile(const char* filename, XmlOrigin origin = XmlOrigin::Local);

    // Writes the document over the file's content; "-" is standard output.
    virtual void saveToFile(const char* filename);
    virtual void saveToFile(const std::string& filename);
    // saveToFile("-") through the virtual call, so that a derived writer is used; returns 0.
    virtual int saveToStdout();
    // Writes the document in UTF-8 to `out`; returns 1.
    int saveToStream(std::ostream& out);
    // Writes the document into `buffer`, which stays open and the caller's; returns 1.
    int saveToBuffer(xmlOutputBuffer* buffer);
    // Replaces `filename` at once for any reader (replaceFile): a new file beside it, written
    // through the virtual saveToFile, given to `owner` (by default the account hmxadm), put in
    // the target's place in one step. On any failure the new file is removed and the target
    // stays untouched. Nothing is synced to disk: readers and a crash of the process see a
    // whole file, a power failure may not.
    void saveToFileAtomically(const std::string& filename);
    void saveToFileAtomically(const std::string& filename, const FileOwner& owner,
                              bool durable = false);

    // The tree, still owned by this document.
    xmlDoc* getDoc() const { return doc_.get(); }

  protected:
    struct Adopt {};
    // Takes ownership of `owned`, which must not be null.
    tXmlDocument(Adopt, xmlDoc* owned);

    static log4cpp::Category& logger;

  private:
    // Writes the tree over the file's previous content; false on any failure.
    bool writeFile(const char* filename) const;

    std::shared_ptr<xmlDoc> doc_;
};

// A document with a known root element and the node helpers of the status and data documents.
class tXmlRkuDocument : public tXmlDocument {
  public:
    // Empty; initNewDoc gives it a root.
    tXmlRkuDocument();
    // Read; initFileDoc checks the root.
    explicit tXmlRkuDocument(const char* filename, XmlOrigin origin = XmlOrigin::Local);
    explicit tXmlRkuDocument(const boost::filesystem::path& filename,
                             XmlOrigin origin = XmlOrigin::Local);
    // Parses `content` itself, NOT a file name.
    explicit tXmlRkuDocument(const std::string& content, XmlOrigin origin = XmlOrigin::SourceHost);

    // As tXmlDocument::readFromFile; the root must then be found again with initFileDoc.
    void readFromFile(const char* filename, XmlOrigin origin = XmlOrigin::Local);

    // Creates the root element `rootName`.
    void initNewDoc(const std::string& rootName);
    // Takes the root of the read tree, which must be named `expectedRootName` exactly.
    void initFileDoc(const std::string& expectedRootName);

    // Null until initNewDoc or initFileDoc.
    xmlNode* getRootNode() const { return root_; }
    // The root's first child element named `name`; tError_WrongContent when there is none.
    xmlNode* getRootNodeChild(const std::string& name) const;
    // NoSuchAttribute when `node` has no attribute `name`.
    std::string getAttribute(xmlNode* node, const std::string& name) const;
    // The text content of the node's children, entity references substituted; "" when empty.
    std::string getNodeText(xmlNode* node) const;

    // A new element `name` appended to `parent` (not null).
    xmlNode* newChild(xmlNode* parent, const std::string& name);
    // A new element holding `content` as text, special characters escaped, appended to
    // `parent`. With a null `parent` nothing is created and null is returned.
    xmlNode* newTextChild(xmlNode* parent, const std::string& name, const std::string& content);
    // Sets the attribute, replacing an existing value.
    void addAttribute(xmlNode* node, const std::string& name, const std::string& value);
    // Unlinks `node` from the tree and frees it with everything below it.
    void removeNode(xmlNode* node);

    static bool stringEq(const xmlChar* xmlString, const std::string& s);

  protected:
    xmlNode* root_;
};

}  // namespace tavik

#endif  // FERRYGATE_XML_XML_WRAP_H
