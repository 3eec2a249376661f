#include "xml/xml_validation.h"

#include <libxml/tree.h>
#include <libxml/valid.h>
#include <libxml/xmlschemas.h>

#include "xml/xml_internal.h"
#include "xml/xml_parse.h"

namespace tavik {

using xml_detail::NoNetworkLoads;
using xml_detail::toXml;

namespace {

log4cpp::Category& xmlLogger = log4cpp::Category::getInstance("p.Xml");

struct ValidCtxtFree {
    void operator()(xmlValidCtxt* c) const { xmlFreeValidCtxt(c); }
};
struct SchemaParserCtxtFree {
    void operator()(xmlSchemaParserCtxt* c) const { xmlSchemaFreeParserCtxt(c); }
};
struct SchemaFree {
    void operator()(xmlSchema* s) const { xmlSchemaFree(s); }
};
struct SchemaValidCtxtFree {
    void operator()(xmlSchemaValidCtxt* c) const { xmlSchemaFreeValidCtxt(c); }
};

// A validation context whose errors and warnings go into `errors`.
std::unique_ptr<xmlValidCtxt, ValidCtxtFree> newValidCtxt(log4cpp::Category& logger,
                                                          tXmlErrorCollector& errors) {
    std::unique_ptr<xmlValidCtxt, ValidCtxtFree> ctxt(xmlNewValidCtxt());
    if (!ctxt)
        TAVIK_XML_RAISE(logger, tError_XmlInternal, "Can not allocate memory for xmlValidCtxtPtr");
    ctxt->userData = &errors;
    ctxt->error = &tXmlErrorCollector::collect;
    ctxt->warning = &tXmlErrorCollector::collect;
    return ctxt;
}

}  // namespace

log4cpp::Category& tDtdValidator::logger = log4cpp::Category::getInstance("p.Xml");

tExternalDtdDoc::tExternalDtdDoc() = default;

tExternalDtdDoc::tExternalDtdDoc(const std::string& fileName) { readFromFile(fileName); }

void tExternalDtdDoc::readFromFile(const std::string& fileName) {
    NoNetworkLoads noNetwork;
    tXmlErrorCollector errors;
    std::shared_ptr<xmlDtd> dtd(xmlParseDTD(nullptr, toXml(fileName)), xmlFreeDtd);
    if (!dtd) {
        xmlLogger.error(errors.text());
        TAVIK_XML_RAISE(xmlLogger, InvalidDtdFile, fileName);
    }
    fileName_ = fileName;
    dtd_ = std::move(dtd);
}

void tDtdValidator::validateXml(const tXmlDocument& doc) const {
    tXmlErrorCollector errors;
    auto ctxt = newValidCtxt(logger, errors);
    xmlDtd* internal = xmlGetIntSubset(doc.getDoc());
    if (internal == nullptr)
        TAVIK_XML_RAISE(logger, InternalDtdValidationFailed, "the document has no DTD");
    if (xmlValidateDtd(ctxt.get(), doc.getDoc(), internal) != 1)
        TAVIK_XML_RAISE(logger, InternalDtdValidationFailed, errors.text());
}

void tDtdValidator::validateXml(const tXmlDocument& doc, const std::string& dtdFileName) const {
    const tExternalDtdDoc dtd(dtdFileName);
    tXmlErrorCollector errors;
    auto ctxt = newValidCtxt(logger, errors);
    if (xmlValidateDtd(ctxt.get(), doc.getDoc(), dtd.getDtd()) != 1)
        TAVIK_XML_RAISE(logger, ExternalDtdValidationFailed, dtdFileName, errors.text());
}

void validateSchema(const tXmlDocument& doc, const std::string& schemaFileName) {
    NoNetworkLoads noNetwork;
    std::unique_ptr<xmlSchema, SchemaFree> schema;
    {
        tXmlErrorCollector errors;
        std::unique_ptr<xmlSchemaParserCtxt, SchemaParserCtxtFree> parser(
            xmlSchemaNewParserCtxt(schemaFileName.c_str()));
        if (!parser)
            TAVIK_XML_RAISE(xmlLogger, tError_XmlInternal,
                            "Can not allocate memory for xmlSchemaNewParserCtxt");
        xmlSchemaSetParserErrors(parser.get(), &tXmlErrorCollector::collect,
                                 &tXmlErrorCollector::collect, &errors);
        schema.reset(xmlSchemaParse(parser.get()));
        if (!schema) {
            // An unreadable or invalid schema is reported as an allocation failure; what the
            // library said is kept in the debug log.
            xmlLogger.error(errors.text());
            TAVIK_XML_RAISE(xmlLogger, tError_XmlInternal,
                            "Can not allocate memory for xmlSchemaParse");
        }
    }
    std::unique_ptr<xmlSchemaValidCtxt, SchemaValidCtxtFree> validator(
        xmlSchemaNewValidCtxt(schema.get()));
    if (!validator)
        TAVIK_XML_RAISE(xmlLogger, tError_XmlInternal,
                        "Can not allocate memory for xmlSchemaNewValidCtxt");
    tXmlErrorCollector errors;
    xmlSchemaSetValidErrors(validator.get(), &tXmlErrorCollector::collect,
                            &tXmlErrorCollector::collect, &errors);
    if (xmlSchemaValidateDoc(validator.get(), doc.getDoc()) != 0)
        TAVIK_XML_RAISE(xmlLogger, InternalDtdValidationFailed, errors.text());
}

}  // namespace tavik
