// Helpers shared by the sources of the XML layer only; no header of the layer includes this.
#ifndef FERRYGATE_XML_XML_INTERNAL_H
#define FERRYGATE_XML_XML_INTERNAL_H

#include <libxml/parser.h>
#include <libxml/xmlstring.h>

#include <log4cpp/Category.hh>
#include <memory>
#include <string>

#include "commons/exceptions.h"

namespace tavik {
namespace xml_detail {

// Lower layers log a failure before it travels up.
template <class E>
[[noreturn]] void logAndThrow(log4cpp::Category& logger, const E& e) {
    logger.error("%s", e.what());
    throw e;
}

// A library string, freed with the library's release.
struct XmlCharFree {
    void operator()(xmlChar* s) const { xmlFree(s); }
};
using XmlCharPtr = std::unique_ptr<xmlChar, XmlCharFree>;

// The text of a library string, or "" for null.
inline std::string toString(const xmlChar* s) {
    return s ? std::string(reinterpret_cast<const char*>(s)) : std::string();
}
inline const xmlChar* toXml(const std::string& s) {
    return reinterpret_cast<const xmlChar*>(s.c_str());
}

// Installs libxml2's loader for external resources with the network forbidden, for the lifetime
// of this object. Used where a named DTD or schema has to be read from the file system.
class NoNetworkLoads {
  public:
    NoNetworkLoads() : previous_(xmlGetExternalEntityLoader()) {
        xmlSetExternalEntityLoader(xmlNoNetExternalEntityLoader);
    }
    ~NoNetworkLoads() { xmlSetExternalEntityLoader(previous_); }
    NoNetworkLoads(const NoNetworkLoads&) = delete;
    NoNetworkLoads& operator=(const NoNetworkLoads&) = delete;

  private:
    xmlExternalEntityLoader previous_;
};

}  // namespace xml_detail
}  // namespace tavik

// Logs the failure on `logger` at ERROR, then throws it; the place is the caller's.
#define TAVIK_XML_RAISE(logger, Kind, ...) \
    ::tavik::xml_detail::logAndThrow((logger), TAVIK_EXC(Kind, ##__VA_ARGS__))

#endif  // FERRYGATE_XML_XML_INTERNAL_H
