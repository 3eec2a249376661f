#include "xml/data_documents.h"

#include <libxml/xpath.h>

#include <boost/lexical_cast.hpp>

#include "xml/xml_xpath.h"

namespace tavik {

namespace {

std::string valueOf(const tXmlRkuDocument& doc, const std::string& expression) {
    return XmlNode(doc.getDoc(), doc.getRootNode())[expression].str();
}

bool isPresent(const tXmlRkuDocument& doc, const std::string& expression) {
    return XmlNode(doc.getDoc(), doc.getRootNode()).test(expression);
}

}  // namespace

CliGateResponse::~CliGateResponse() = default;

XmlCliGateResponse::XmlCliGateResponse(const std::string& content) : tXmlRkuDocument(content) {
    initFileDoc("cli");
}

XmlCliGateResponse::~XmlCliGateResponse() noexcept {}

bool XmlCliGateResponse::isOk() const { return isPresent(*this, "ok"); }

int64_t XmlCliGateResponse::getReturn() const {
    return boost::lexical_cast<int64_t>(valueOf(*this, "return"));
}

std::string XmlCliGateResponse::getStdout() const { return valueOf(*this, "stdout"); }

std::string XmlCliGateResponse::getStderr() const { return valueOf(*this, "stderr"); }

// The gate names its error element "failure"; the getter's name is the interface's.
std::string XmlCliGateResponse::getError() const { return valueOf(*this, "failure"); }

std::unique_ptr<CliGateResponse> getCliGateResponse(const std::string& content) {
    return std::make_unique<XmlCliGateResponse>(content);
}

DatabaseCredentials::~DatabaseCredentials() = default;

XmlDatabaseCredentials::XmlDatabaseCredentials(const std::string& content)
    : tXmlRkuDocument(content) {
    initFileDoc("credentials");
}

XmlDatabaseCredentials::~XmlDatabaseCredentials() noexcept {}

std::string XmlDatabaseCredentials::getUsername() const { return valueOf(*this, "username"); }

std::string XmlDatabaseCredentials::getPassword() const { return valueOf(*this, "password"); }

bool XmlDatabaseCredentials::notConfigured() const { return isPresent(*this, "not-configured"); }

std::unique_ptr<DatabaseCredentials> getDatabaseCredentials(const std::string& content) {
    return std::make_unique<XmlDatabaseCredentials>(content);
}

AdminLocation::~AdminLocation() = default;

XmlAdminLocation::XmlAdminLocation(const std::string& content) : tXmlRkuDocument(content) {
    initFileDoc("admin");
}

XmlAdminLocation::~XmlAdminLocation() noexcept {}

std::string XmlAdminLocation::getCountry() const { return valueOf(*this, "country"); }

std::string XmlAdminLocation::getState() const { return valueOf(*this, "state"); }

std::string XmlAdminLocation::getZip() const { return valueOf(*this, "zip"); }

std::unique_ptr<AdminLocation> getAdminLocation(const std::string& content) {
    return std::make_unique<XmlAdminLocation>(content);
}

XmlAgentDeploymentStatusDocument::XmlAgentDeploymentStatusDocument(const std::string& fileName)
    : tXmlRkuDocument(fileName.c_str(), XmlOrigin::SourceHost) {
    initFileDoc("agentstatus");
}

std::string XmlAgentDeploymentStatusDocument::getAgentDeploymentStatusFileName() const {
    return getNodeText(getRootNodeChild("statusfile"));
}

std::map<std::string, TavikIp> getTavikIpInfo(const std::string& content) {
    tXmlRkuDocument doc(content);
    doc.initFileDoc("ipinfo");
    std::map<std::string, TavikIp> addresses;
    const tXPathExpr ips(doc, "ip", doc.getRootNode());
    xmlNodeSet* nodes = ips.getNodeSet();
    const int count = nodes != nullptr ? xmlXPathNodeSetGetLength(nodes) : 0;
    for (int i = 0; i < count; ++i) {
        const XmlNode ip(doc.getDoc(), xmlXPathNodeSetItem(nodes, i));
        TavikIp entry{ip.test("def_domain"), doc.getNodeText(ip["type"].getXmlNode())};
        addresses.emplace(ip["@name"].str(), std::move(entry));
    }
    return addresses;
}

}  // namespace tavik
