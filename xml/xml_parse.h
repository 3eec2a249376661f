// Reading XML safely, with libxml2's messages collected into the text of our exceptions.
#ifndef FERRYGATE_XML_XML_PARSE_H
#define FERRYGATE_XML_XML_PARSE_H

#include <memory>
#include <string>

struct _xmlDoc;
typedef struct _xmlDoc xmlDoc;

namespace tavik {

// Collects every message that libxml2 emits through its generic error function while this
// object lives, and also serves as the context of validation and transformation error hooks
// (see collect). Collectors nest, the innermost receiving; the handler is process-wide state,
// and the program parses from one thread.
//
// Each message loses its last character before it is appended (for libxml2 usually the line
// break, but also the trailing blank of a "parser " fragment). The reports that the controlling
// process shows have always looked so; keep it.
class tXmlErrorCollector {
  public:
    // Installs the collector as libxml2's generic error handler.
    tXmlErrorCollector();
    // Reinstalls the handler found at construction: outside a nested collection, the library's
    // default.
    ~tXmlErrorCollector();
    tXmlErrorCollector(const tXmlErrorCollector&) = delete;
    tXmlErrorCollector& operator=(const tXmlErrorCollector&) = delete;

    const std::string& text() const { return text_; }

    // Formats one message into the collector given as `context` (a tXmlErrorCollector*).
    // Usable as any libxml2 or libxslt error callback.
    static void collect(void* context, const char* format, ...);

  private:
    std::string text_;
    void* previousContext_;
    void (*previousHandler_)(void*, const char*, ...);
};

struct XmlDocFree {
    void operator()(xmlDoc* doc) const;
};
// Sole owner of a parsed tree.
using XmlDocPtr = std::unique_ptr<xmlDoc, XmlDocFree>;

// Where a document comes from decides what it may declare.
enum class XmlOrigin {
    // Written on this host (the product's data, the controlling process's selection file): a
    // document type declaration is kept, for validation against it.
    Local,
    // Sent by the source host: a document type declaration, the only place where entities can
    // be declared, makes the document not well-formed, and the parse stops right there. A
    // declared entity expands later, when the tree's text is read, where libxml2 sets no limit:
    // one entity of 100 KB referenced 10,000 times becomes a gigabyte.
    SourceHost,
};

// Parses `filename` ("-" is standard input) without ever loading external entities or DTDs,
// from the file system or the network. Null when the text is not well-formed (for the source
// host, also when it carries a document type declaration); the messages are in the installed
// collector.
XmlDocPtr readXmlFile(const char* filename, XmlOrigin origin);
// The same for a text in memory.
XmlDocPtr readXmlMemory(const std::string& content, XmlOrigin origin);

}  // namespace tavik

#endif  // FERRYGATE_XML_XML_PARSE_H
