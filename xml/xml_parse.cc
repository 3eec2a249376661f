#include "xml/xml_parse.h"

#include <libxml/globals.h>
#include <libxml/parser.h>
#include <libxml/tree.h>

#include <climits>
#include <cstdarg>
#include <cstdio>
#include <vector>

namespace tavik {

namespace {

// Never fetch anything a document names, neither over the network nor from our file system (no
// XML_PARSE_NOENT, XML_PARSE_DTDLOAD or XML_PARSE_DTDATTR), and keep libxml2's limits on what it
// expands while parsing (no XML_PARSE_HUGE).
const int kParseOptions = XML_PARSE_NONET;

struct ParserCtxtFree {
    void operator()(xmlParserCtxt* ctxt) const { xmlFreeParserCtxt(ctxt); }
};
using ParserCtxtPtr = std::unique_ptr<xmlParserCtxt, ParserCtxtFree>;

// The SAX event of "<!DOCTYPE name ...", which comes before its internal subset is read: the
// declaration is not handed on to the tree builder, and the parse ends not well-formed.
void refuseDoctype(void* context, const xmlChar*, const xmlChar*, const xmlChar*) {
    auto* ctxt = static_cast<xmlParserCtxt*>(context);
    xmlGenericError(xmlGenericErrorContext,
                    "line %d: a document from the source host may not carry a document type "
                    "declaration (DOCTYPE)\n",
                    ctxt->input != nullptr ? ctxt->input->line : 0);
    ctxt->wellFormed = 0;
    xmlStopParser(ctxt);
}

// A parser context for one document of `origin`; null when the library has no memory.
ParserCtxtPtr newParser(XmlOrigin origin) {
    ParserCtxtPtr ctxt(xmlNewParserCtxt());
    if (!ctxt) return ctxt;
    // Already for opening the file itself, which comes before the options of the read.
    xmlCtxtUseOptions(ctxt.get(), kParseOptions);
    if (origin == XmlOrigin::SourceHost) ctxt->sax->internalSubset = refuseDoctype;
    return ctxt;
}

}  // namespace

tXmlErrorCollector::tXmlErrorCollector() {
    previousContext_ = xmlGenericErrorContext;
    previousHandler_ = xmlGenericError;
    xmlSetGenericErrorFunc(this, &tXmlErrorCollector::collect);
}

tXmlErrorCollector::~tXmlErrorCollector() {
    // Outside a nested collection this hands back null, which is the library's default.
    xmlSetGenericErrorFunc(previousContext_, previousHandler_);
}

void tXmlErrorCollector::collect(void* context, const char* format, ...) {
    auto* self = static_cast<tXmlErrorCollector*>(context);
    if (self == nullptr) return;
    va_list args;
    va_start(args, format);
    va_list measuring;
    va_copy(measuring, args);
    const int n = vsnprintf(nullptr, 0, format, measuring);
    va_end(measuring);
    if (n > 0) {
        // Formatting with a limit of n keeps n - 1 characters: the last one is lost on purpose
        // (see the class comment).
        std::vector<char> text(static_cast<size_t>(n) + 1);
        vsnprintf(text.data(), static_cast<size_t>(n), format, args);
        text[static_cast<size_t>(n)] = '\0';
        self->text_ += text.data();
    }
    va_end(args);
}

void XmlDocFree::operator()(xmlDoc* doc) const { xmlFreeDoc(doc); }

XmlDocPtr readXmlFile(const char* filename, XmlOrigin origin) {
    const ParserCtxtPtr ctxt = newParser(origin);
    if (!ctxt) return XmlDocPtr();
    return XmlDocPtr(xmlCtxtReadFile(ctxt.get(), filename, nullptr, kParseOptions));
}

XmlDocPtr readXmlMemory(const std::string& content, XmlOrigin origin) {
    if (content.size() > static_cast<size_t>(INT_MAX)) return XmlDocPtr();
    const ParserCtxtPtr ctxt = newParser(origin);
    if (!ctxt) return XmlDocPtr();
    return XmlDocPtr(xmlCtxtReadMemory(ctxt.get(), content.data(), static_cast<int>(content.size()),
                                       nullptr, nullptr, kParseOptions));
}

}  // namespace tavik
