#include "xml/xml_xslt.h"

#include <libxml/tree.h>
#include <libxslt/security.h>
#include <libxslt/transform.h>
#include <libxslt/xsltInternals.h>
#include <libxslt/xsltutils.h>

#include <cstring>
#include <fstream>

#include "xml/xml_internal.h"
#include "xml/xml_parse.h"

namespace tavik {

using xml_detail::toXml;

namespace {

log4cpp::Category& xmlLogger = log4cpp::Category::getInstance("p.Xml");

struct TransformContextFree {
    void operator()(xsltTransformContext* c) const { xsltFreeTransformContext(c); }
};
struct SecurityPrefsFree {
    void operator()(xsltSecurityPrefs* p) const { xsltFreeSecurityPrefs(p); }
};

// libxslt reports stylesheet errors through a generic handler of its own, apart from
// libxml2's; this routes it into `errors` for its lifetime.
class XsltErrorsTo {
  public:
    explicit XsltErrorsTo(tXmlErrorCollector& errors)
        : previousContext_(xsltGenericErrorContext), previousHandler_(xsltGenericError) {
        xsltSetGenericErrorFunc(&errors, &tXmlErrorCollector::collect);
    }
    ~XsltErrorsTo() { xsltSetGenericErrorFunc(previousContext_, previousHandler_); }
    XsltErrorsTo(const XsltErrorsTo&) = delete;
    XsltErrorsTo& operator=(const XsltErrorsTo&) = delete;

  private:
    void* previousContext_;
    xmlGenericErrorFunc previousHandler_;
};

// Transformations may read and write local files as their stylesheet says, never the network.
std::unique_ptr<xsltSecurityPrefs, SecurityPrefsFree> noNetworkPrefs() {
    std::unique_ptr<xsltSecurityPrefs, SecurityPrefsFree> prefs(xsltNewSecurityPrefs());
    if (!prefs ||
        xsltSetSecurityPrefs(prefs.get(), XSLT_SECPREF_READ_NETWORK, xsltSecurityForbid) != 0 ||
        xsltSetSecurityPrefs(prefs.get(), XSLT_SECPREF_WRITE_NETWORK, xsltSecurityForbid) != 0)
        TAVIK_XML_RAISE(xmlLogger, tError_XmlInternal,
                        "Can not allocate memory for xsltSecurityPrefs");
    return prefs;
}

}  // namespace

log4cpp::Category& tXsltStylesheet::logger = log4cpp::Category::getInstance("p.Xml");

tXsltStylesheet::tXsltStylesheet() = default;

tXsltStylesheet::tXsltStylesheet(const char* filename) { readFromFile(filename); }

int tXsltStylesheet::readFromFile(const char* filename) {
    if (filename == nullptr) TAVIK_XML_RAISE(logger, AssertionFailed, "filename != NULL");
    tXmlErrorCollector errors;
    XsltErrorsTo xsltErrors(errors);
    std::shared_ptr<xsltStylesheet> style(xsltParseStylesheetFile(toXml(filename)),
                                          xsltFreeStylesheet);
    if (!style) {
        logger.error(errors.text());
        TAVIK_XML_RAISE(logger, tError_XslParse_CanNotParseFile, filename);
    }
    style_ = std::move(style);
    return 1;
}

tXmlDocFromXslt::tXmlDocFromXslt(xmlDoc* result, const tXsltStylesheet& style)
    : tXmlDocument(Adopt(), result), style_(style) {}

void tXmlDocFromXslt::saveToFile(const char* filename) {
    if (filename == nullptr) TAVIK_XML_RAISE(logger, AssertionFailed, "filename != NULL");
    if (*filename == '\0') TAVIK_XML_RAISE(logger, AssertionFailed, "*filename != 0");
    if (xsltSaveResultToFilename(filename, getDoc(), style_.get(), 0) < 0)
        TAVIK_XML_RAISE(logger, tError_SaveFile, filename);
    // An empty result makes the library write nothing at all; the file must still say so.
    if (getDoc()->children == nullptr && std::strcmp(filename, "-") != 0 &&
        !std::ofstream(filename, std::ios::binary | std::ios::trunc))
        TAVIK_XML_RAISE(logger, tError_SaveFile, filename);
}

tXmlDocFromXslt apply_stylesheet(tXsltStylesheet& style, tXmlDocument& doc) {
    // libxslt does not check for a missing stylesheet itself.
    if (style.get() == nullptr) TAVIK_XML_RAISE(xmlLogger, AssertionFailed, "style != NULL");
    const auto prefs = noNetworkPrefs();
    const std::unique_ptr<xsltTransformContext, TransformContextFree> ctxt(
        xsltNewTransformContext(style.get(), doc.getDoc()));
    if (!ctxt) TAVIK_XML_RAISE(xmlLogger, AssertionFailed, "ctxt != NULL");
    if (xsltSetCtxtSecurityPrefs(prefs.get(), ctxt.get()) != 0)
        TAVIK_XML_RAISE(xmlLogger, tError_XmlInternal, "Can not set xsltSecurityPrefs");

    tXmlErrorCollector errors;
    xsltSetTransformErrorFunc(ctxt.get(), &errors, &tXmlErrorCollector::collect);
    XmlDocPtr result(
        xsltApplyStylesheetUser(style.get(), doc.getDoc(), nullptr, nullptr, nullptr, ctxt.get()));
    if (!errors.text().empty()) xmlLogger.info(errors.text());

    // An error state wins over a stop: only a clean stop is the stylesheet's own verdict.
    if (ctxt->state == XSLT_STATE_ERROR)
        TAVIK_XML_RAISE(xmlLogger, tError_XmlInternal,
                        "Some error while applying stylesheet. Check the error reason and try "
                        "again.");
    if (ctxt->state == XSLT_STATE_STOPPED)
        TAVIK_XML_RAISE(xmlLogger, tError_Xslt_ApplyStylesheetTerminated);
    if (!result) TAVIK_XML_RAISE(xmlLogger, tError_Xslt_CantApplyStylesheet);
    return tXmlDocFromXslt(result.release(), style);
}

}  // namespace tavik
