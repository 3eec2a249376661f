// The small documents read back from agents and from the product's command gate. Each reader
// takes the XML text itself (not a file name), refuses a document type declaration as a parse
// error (XmlOrigin::SourceHost), requires its root element, and answers its getters by XPath
// relative to that root; an expression that selects nothing reads as "".
#ifndef FERRYGATE_XML_DATA_DOCUMENTS_H
#define FERRYGATE_XML_DATA_DOCUMENTS_H

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "xml/xml_wrap.h"

namespace tavik {

// The answer of one command-gate call.
class CliGateResponse {
  public:
    virtual ~CliGateResponse();
    virtual bool isOk() const = 0;
    virtual int64_t getReturn() const = 0;
    virtual std::string getStdout() const = 0;
    virtual std::string getStderr() const = 0;
    virtual std::string getError() const = 0;
};

// Root "cli": "ok" (present or not), "return", "stdout", "stderr", and the error text in
// "failure".
class XmlCliGateResponse : public tXmlRkuDocument, public CliGateResponse {
  public:
    explicit XmlCliGateResponse(const std::string& content);
    ~XmlCliGateResponse() noexcept override;

    bool isOk() const override;
    // boost::bad_lexical_cast when "return" is not a decimal number.
    int64_t getReturn() const override;
    std::string getStdout() const override;
    std::string getStderr() const override;
    std::string getError() const override;
};

std::unique_ptr<CliGateResponse> getCliGateResponse(const std::string& content);

class DatabaseCredentials {
  public:
    virtual ~DatabaseCredentials();
    virtual std::string getUsername() const = 0;
    virtual std::string getPassword() const = 0;
    virtual bool notConfigured() const = 0;
};

// Root "credentials": "username", "password", "not-configured" (present or not).
class XmlDatabaseCredentials : public tXmlRkuDocument, public DatabaseCredentials {
  public:
    explicit XmlDatabaseCredentials(const std::string& content);
    ~XmlDatabaseCredentials() noexcept override;

    std::string getUsername() const override;
    std::string getPassword() const override;
    bool notConfigured() const override;
};

std::unique_ptr<DatabaseCredentials> getDatabaseCredentials(const std::string& content);

class AdminLocation {
  public:
    virtual ~AdminLocation();
    virtual std::string getCountry() const = 0;
    virtual std::string getState() const = 0;
    virtual std::string getZip() const = 0;
};

// Root "admin": "country", "state", "zip".
class XmlAdminLocation : public tXmlRkuDocument, public AdminLocation {
  public:
    explicit XmlAdminLocation(const std::string& content);
    ~XmlAdminLocation() noexcept override;

    std::string getCountry() const override;
    std::string getState() const override;
    std::string getZip() const override;
};

std::unique_ptr<AdminLocation> getAdminLocation(const std::string& content);

// What a deployed agent reported about itself; read from the session's copy of the agent's
// answer, a document of the source host. Root "agentstatus".
class XmlAgentDeploymentStatusDocument : public tXmlRkuDocument {
  public:
    explicit XmlAgentDeploymentStatusDocument(const std::string& fileName);

    // The text of the first "statusfile" child: the agent's status file on the source host.
    // tError_WrongContent when there is none.
    std::string getAgentDeploymentStatusFileName() const;
};

// One address of the source host.
struct TavikIp {
    bool defDomain;    // the address carries the default domain
    std::string type;  // as the agent wrote it
};

// Root "ipinfo": one "ip" element per address, keyed by its "name" attribute; a repeated name
// keeps its first entry. tError_XPath_TypesMismatch when "type" is not a node set.
std::map<std::string, TavikIp> getTavikIpInfo(const std::string& content);

}  // namespace tavik

#endif  // FERRYGATE_XML_DATA_DOCUMENTS_H
