#include "xml/xml_parse.h"

#include <libxml/parser.h>
#include <libxml/tree.h>

#include <climits>
#include <cstdarg>
#include <cstdio>
#include <vector>

namespace tavik {

namespace {

// Hostile documents arrive from the source host: never fetch anything they name, neither over
// the network nor from our file system (no XML_PARSE_NOENT, XML_PARSE_DTDLOAD or
// XML_PARSE_DTDATTR), and keep libxml2's limits on entity expansion (no XML_PARSE_HUGE).
const int kParseOptions = XML_PARSE_NONET;

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

XmlDocPtr readXmlFile(const char* filename) {
    return XmlDocPtr(xmlReadFile(filename, nullptr, kParseOptions));
}

XmlDocPtr readXmlMemory(const std::string& content) {
    if (content.size() > static_cast<size_t>(INT_MAX)) return XmlDocPtr();
    return XmlDocPtr(xmlReadMemory(content.data(), static_cast<int>(content.size()), nullptr,
                                   nullptr, kParseOptions));
}

}  // namespace tavik
