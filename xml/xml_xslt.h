// XSLT over libxslt: stylesheets, their application to documents, and results saved with the
// stylesheet's own output settings.
#ifndef FERRYGATE_XML_XML_XSLT_H
#define FERRYGATE_XML_XML_XSLT_H

#include <memory>
#include <string>

#include "xml/xml_wrap.h"

struct _xsltStylesheet;
typedef struct _xsltStylesheet xsltStylesheet;

namespace tavik {

// A parsed stylesheet. Copies share it; it is released when the last holder goes, so results
// made from it may outlive this object.
class tXsltStylesheet {
  public:
    tXsltStylesheet();
    // readFromFile(filename).
    explicit tXsltStylesheet(const char* filename);

    // tError_XslParse_CanNotParseFile when the file cannot be parsed as a stylesheet; returns 1.
    int readFromFile(const char* filename);

    // Null until a stylesheet was read.
    xsltStylesheet* get() const { return style_.get(); }

  private:
    std::shared_ptr<xsltStylesheet> style_;

    static log4cpp::Category& logger;
};

// The result of one transformation; saving it honours the stylesheet's output method, encoding
// and indentation, also through saveToStdout and saveToFileAtomically.
class tXmlDocFromXslt : public tXmlDocument {
  public:
    // Takes ownership of `result`, which must not be null.
    tXmlDocFromXslt(xmlDoc* result, const tXsltStylesheet& style);

    using tXmlDocument::saveToFile;
    void saveToFile(const char* filename) override;

  private:
    tXsltStylesheet style_;
};

// Transforms `doc` without parameters. A terminating xsl:message gives
// tError_Xslt_ApplyStylesheetTerminated; any other failure of the transformation
// tError_XmlInternal; no result at all tError_Xslt_CantApplyStylesheet. Messages that the
// stylesheet emits go to the debug log. The stylesheet may not reach the network.
tXmlDocFromXslt apply_stylesheet(tXsltStylesheet& style, tXmlDocument& doc);

}  // namespace tavik

#endif  // FERRYGATE_XML_XML_XSLT_H
