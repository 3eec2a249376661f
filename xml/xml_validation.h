// Validation of documents against DTDs and XML Schemas, with the library's messages collected
// into the failure's text.
#ifndef FERRYGATE_XML_XML_VALIDATION_H
#define FERRYGATE_XML_XML_VALIDATION_H

#include <memory>
#include <string>

#include "xml/xml_wrap.h"

struct _xmlDtd;
typedef struct _xmlDtd xmlDtd;

namespace tavik {

// A DTD read from a file; copies share the parsed DTD.
class tExternalDtdDoc {
  public:
    tExternalDtdDoc();
    // readFromFile(fileName).
    explicit tExternalDtdDoc(const std::string& fileName);

    // Parses the DTD file (the network is never used); InvalidDtdFile when it cannot be parsed.
    void readFromFile(const std::string& fileName);

    const std::string& getFileName() const { return fileName_; }
    // Null until a DTD was read.
    xmlDtd* getDtd() const { return dtd_.get(); }

  private:
    std::string fileName_;
    std::shared_ptr<xmlDtd> dtd_;
};

class tDtdValidator {
  public:
    // Validates against the document's internal subset only: an external subset that the
    // document names is never fetched. InternalDtdValidationFailed when the document is invalid
    // or has no internal subset.
    void validateXml(const tXmlDocument& doc) const;
    // Validates against the named DTD file: InvalidDtdFile when that cannot be parsed,
    // ExternalDtdValidationFailed when the document is invalid.
    void validateXml(const tXmlDocument& doc, const std::string& dtdFileName) const;

  private:
    static log4cpp::Category& logger;
};

// Validates against an XML Schema file. A schema that cannot be read or parsed fails with
// tError_XmlInternal; an invalid document with InternalDtdValidationFailed, the very tag and
// text of a failed internal DTD validation, which the controlling process relies on.
void validateSchema(const tXmlDocument& doc, const std::string& schemaFileName);

}  // namespace tavik

#endif  // FERRYGATE_XML_XML_VALIDATION_H
