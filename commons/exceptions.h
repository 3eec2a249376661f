// The one way failures travel through ferrygate.
//
// Every failure is an Exc<&Kind>: a code (the kind's name), a Boost.Format message with numbered
// placeholders, the raising function's signature, file and line, and an optional cause. Raise
// with TAVIK_RAISE(Kind, args...) or, wrapping a caught failure, TAVIK_RAISE_WRAP(Kind, cause,
// args...). The arguments fill %1%, %2%, ... in order; a wrong count surfaces as a Boost.Format
// error when the message is formatted, so every kind is formatted once in the tests.
#ifndef FERRYGATE_COMMONS_EXCEPTIONS_H
#define FERRYGATE_COMMONS_EXCEPTIONS_H

#include <boost/format.hpp>
#include <memory>
#include <stdexcept>
#include <string>

class Cloneable {
  public:
    virtual ~Cloneable();
    // A new heap copy of the most derived object; the caller owns it.
    virtual Cloneable* clone() const = 0;
};

namespace tavik {

// Receives one exception's parts, outermost first; advanceToInnerException() separates causes.
class ExInfoVisitor {
  public:
    virtual ~ExInfoVisitor();
    virtual void setCode(const std::string& code) = 0;
    virtual void setMessage(const std::string& message) = 0;
    virtual void setContext(const std::string& context) = 0;
    virtual void setFile(const std::string& file) = 0;
    virtual void setLine(int line) = 0;
    virtual void advanceToInnerException() = 0;
};

class ExVisitable {
  public:
    virtual ~ExVisitable();
    virtual void accept(ExInfoVisitor& visitor) const = 0;
};

// std::runtime_error::what() of this object is the code; ExTraceable::what() is the message.
class ExTraceable : public Cloneable, public ExVisitable, public std::runtime_error {
  public:
    ExTraceable(const std::string& code, const std::string& format);
    ~ExTraceable() override;

    ExTraceable* clone() const override;
    // The message with every placeholder filled, formatted anew on each call.
    const char* what() const noexcept override;
    void accept(ExInfoVisitor& visitor) const override;

    std::string code() const { return std::runtime_error::what(); }
    // Throws boost::io::format_error when the arguments do not match the placeholders.
    std::string message() const { return format_.str(); }

    // Appends the next message argument (numbers print in decimal).
    template <class T>
    ExTraceable& operator%(const T& argument) {
        format_ % argument;
        return *this;
    }

  private:
    boost::format format_;
    mutable std::string formatted_;  // keeps what()'s text alive until the next call
};

// An ExTraceable that may own the exception that caused it.
class ExTaggedIncludable : public ExTraceable {
  public:
    ExTaggedIncludable(const std::string& code, const std::string& format);
    ExTaggedIncludable(const ExTaggedIncludable& other);
    ExTaggedIncludable& operator=(const ExTaggedIncludable& other);
    ~ExTaggedIncludable() override;

    ExTaggedIncludable* clone() const override;
    void accept(ExInfoVisitor& visitor) const override;

    // The cause, or null.
    const ExTraceable* inner() const { return inner_.get(); }
    // Stores a clone of `cause`.
    void setInner(const ExTraceable& cause);

  protected:
    void acceptInner(ExInfoVisitor& visitor) const;

  private:
    std::unique_ptr<ExTraceable> inner_;
};

// Outside the hierarchy on purpose: a stop requested by the user is not a failure.
class MigrationTerminatedException : public std::runtime_error {
  public:
    MigrationTerminatedException();
};

// The code and message format of each kind. Tags are declared, never defined: their addresses
// only give every kind a type of its own that can be caught by itself.
template <void (*Tag)()>
struct ExcKind;

// One row per kind, in columns; the layout is kept by hand.
// clang-format off
#define TAVIK_EXCEPTION_KINDS(X)                                                                 \
    X(OptParsingError, "OptParsingError", "Unable to parse command line: %1%")                   \
    X(UnknownAction, "UnknownAction",                                                            \
      "Unknown action passed to the function. Probably bug in the options parser")               \
    X(HostNotFound, "HostNotFound", "Unable to resolve hostname %1%: %2%")                       \
    X(ConnectionFault, "ConnectionFault", "Unable to connect to host %1%: %2%")                  \
    X(ConnectionRefused, "ConnectionRefused",                                                    \
      "No one listening on the remote address at host %1%")                                      \
    X(ConnectionTimedOut, "ConnectionTimedOut", "Timeout while attempting connection to host %1%") \
    X(HostUnreachable, "HostUnreachable", "No route to host %1%")                                \
    X(NetworkUnreachable, "NetworkUnreachable", "Specified network host %1% is unreachable")     \
    X(InvalidHandle, "InvalidHandle", "Invalid handle passed")                                   \
    X(UnableToStartSshSession, "UnableToStartSshSession", "Unable to start SSH session: %1%")    \
    X(SshAuthorizationFailed, "SshAuthorizationFailed", "No suitable username/password found")   \
    X(SshInvalidCredentials, "SshInvalidCredentials",                                            \
      "Unable to connect to host %1%: you have specified incorrect username or password")        \
    X(SshConnectionFault, "SshConnectionFault", "Lost connection with the remote host")          \
    X(HostKeyMismatch, "HostKeyMismatch",                                                        \
      "Host key verification failed for %1%: expected %2% (%3%), but the server offered %4%; "   \
      "no password was sent")                                                                    \
    X(HostKeyUnknown, "HostKeyUnknown",                                                          \
      "Host key verification failed for %1%: the host is not in %2%, and unknown hosts are "     \
      "refused; the server offered %3%")                                                         \
    X(KnownHostsUnusable, "KnownHostsUnusable", "Cannot use the known hosts file %1%: %2%")      \
    X(UnableToSendEof, "UnableToSendEof", "Unable to send EOF to SSH channel: %1%")              \
    X(StreamRead, "StreamRead", "Cannot read data from the stream")                              \
    X(StreamWrite, "StreamWrite", "Cannot write data to the stream")                             \
    X(SshUnknown, "SshUnknown", "Unknown SSH failure")                                           \
    X(SshCommandNotFound, "SshCommandNotFound", "Command not found on the remote host")          \
    X(SudoNotFound, "SudoNotFound",                                                              \
      "sudo command not found on the host %1%. You should install sudo to this host or supply "  \
      "root password for the migration.")                                                        \
    X(SudoNotAllowed, "SudoNotAllowed", "sudo is not allowed for user %1% on host %2%.")         \
    X(CantTakeFileOwnership, "CantTakeFileOwnership", "Cannot take ownership of %1%: %2%")       \
    X(AgentNotFound, "AgentNotFound",                                                            \
      "Agent %1% was not found or does not contain proper spec file")                            \
    X(ParseFailed, "Agent::ParseFailed", "Unable to parse spec file: %1%")                       \
    X(UnableToOpenScoutFile, "UnableToOpenScoutFile",                                            \
      "Unable to open %1% for transferring to the remote host")                                  \
    X(FailedToExecuteScout, "FailedToExecuteScout",                                              \
      "Failed to execute scout. \nThe return code is %1%\nThe output on STDERR is\n%2%")         \
    X(NoSharedAgentsDirectory, "NoSharedAgentsDirectory", "'shared' agents directory not found") \
    X(NoAgentDirectory, "NoAgentDirectory", "Directory for agent '%1%' does not exist")          \
    X(CantCreateAgentDirectory, "CantCreateAgentDirectory",                                      \
      "Can't create agent directory %1% on the remote host: %2%")                                \
    X(CantRequestAgentStatus, "CantRequestAgentStatus",                                          \
      "Cannot request remote agent status using command line %1%: %2%")                          \
    X(CantRetrieveDump, "CantRetrieveDump", "Error during dump retrieval")                       \
    X(CantRetrieveDumpFile, "CantRetrieveDumpFile",                                              \
      "Error during dump file retrieving. \nRemote agent failed with the following stderr "      \
      "messages: %1%")                                                                           \
    X(DumpStatusError, "DumpStatusError", "Error during getting dumping status")                 \
    X(FileWrite, "FileWrite", "Error during %1% write: %2%")                                     \
    X(CantRetrieveContentList, "CantRetrieveContentList",                                        \
      "Error during content list retrieval: %1%")                                                \
    X(CantStatFS, "CantStatFS", "Cannot stat filesystem containing %1%: %2%")                    \
    X(NotEnoughSpace, "NotEnoughSpace",                                                          \
      "Selected filesystem has only %1% free space, but %2% is needed for operation")            \
    X(WrongMd5Sum, "WrongMd5Sum",                                                                \
      "Problem during content retrieval: downloaded %1% has MD5 sum %2%, but it has to be %3%. " \
      "Restarting download.")                                                                    \
    X(CantCreateTempDir, "CantCreateTempDir",                                                    \
      "Can not create temporary dir with the template '%1%': %2%.")                              \
    X(CantCreateTempFile, "CantCreateTempFile",                                                  \
      "Can not create temporary file with the template '%1%': %2%.")                             \
    X(AssertionFailed, "AssertionFailed", "Assertion failed: %1%")                               \
    X(CantRenameFile, "CantRenameFile", "Cannot rename %1% to %2%: %3%")                         \
    X(tError_ParseFile, "tError_ParseFile",                                                      \
      "The XML file %1% was not parsed successfully with the following errors:\n%2%")            \
    X(tError_WrongInputFile, "tError_WrongInputFile",                                            \
      "The XML file does not exist or is not a regular file. Check the file '%1%'")              \
    X(tError_SaveFile, "tError_SaveFile", "Can not save the XML document to file '%1%'")         \
    X(tError_EmptyDoc, "tError_EmptyDoc", "The document is empty. Can not find root element <%1%>") \
    X(tError_WrongDoc, "tError_WrongDoc",                                                        \
      "The document has the wrong type, root node is <%2%>, but <%1%> was expected")             \
    X(tError_WrongContent, "tError_WrongContent", "%1%")                                         \
    X(tError_XmlInternal, "tError_XmlInternal", "%1%")                                           \
    X(InvalidDtdFile, "InvalidDtdFile", "The DTD file %1% is invalid")                           \
    X(InternalDtdValidationFailed, "InternalDtdValidationFailed",                                \
      "Failed validation of the document with its internal DTD. The errors are: %1%.")           \
    X(ExternalDtdValidationFailed, "ExternalDtdValidationFailed",                                \
      "Failed validation of the document with external DTD %1%. The errors are: %2%.")           \
    X(NoSuchAttribute, "NoSuchAttribute", "Node %1% does not have attribute %2%")                \
    X(NoParentNode, "NoParentNode", "No parent node on requested XML element")                   \
    X(tError_XPath_CantEvaluate, "tError_XPath_CantEvaluate",                                    \
      "The XML document is invalid for XPath exception.\nCan not evaluate result of expression " \
      "'%1%'")                                                                                   \
    X(tError_XPath_TypesMismatch, "tError_XPath_TypesMismatch",                                  \
      "The result of expression '%1%' is not a '%2%' type")                                      \
    X(tError_XslParse_CanNotParseFile, "tError_XslParse_CanNotParseFile",                        \
      "Can not parse XSLT file '%1%'")                                                           \
    X(tError_Xslt_CantApplyStylesheet, "tError_Xslt_CantApplyStylesheet",                        \
      "Can not apply stylesheet")                                                                \
    X(tError_Xslt_ApplyStylesheetTerminated, "tError_Xslt_ApplyStylesheetTerminated",            \
      "The translation of XML document was terminated by XSLT stylesheet. Check for the error "  \
      "reason and try again.")                                                                   \
    X(UnableToCreateSession, "UnableToCreateSession", "Unable to create session: %1%")
// clang-format on

#define TAVIK_DECLARE_KIND(tag, code_, format_)         \
    void tag();                                         \
    template <>                                         \
    struct ExcKind<&tag> {                              \
        static const char* code() { return code_; }     \
        static const char* format() { return format_; } \
    };
TAVIK_EXCEPTION_KINDS(TAVIK_DECLARE_KIND)
#undef TAVIK_DECLARE_KIND

// One kind of failure, with the place it was raised.
template <void (*Tag)()>
class Exc : public ExTaggedIncludable {
  public:
    Exc(const std::string& context, const std::string& file, int line)
        : ExTaggedIncludable(ExcKind<Tag>::code(), ExcKind<Tag>::format()),
          context_(context),
          file_(file),
          line_(line) {}

    Exc(const ExTraceable& inner, const std::string& context, const std::string& file, int line)
        : Exc(context, file, line) {
        setInner(inner);
    }

    Exc* clone() const override { return new Exc(*this); }

    void accept(ExInfoVisitor& visitor) const override {
        visitor.setContext(context_);
        visitor.setFile(file_);
        visitor.setLine(line_);
        visitor.setCode(code());
        visitor.setMessage(message());
        acceptInner(visitor);
    }

    const std::string& context() const { return context_; }
    const std::string& file() const { return file_; }
    int line() const { return line_; }

    template <class T>
    Exc& operator%(const T& argument) {
        ExTraceable::operator%(argument);
        return *this;
    }

  private:
    std::string context_;
    std::string file_;
    int line_;
};

namespace detail {
template <class E>
E& feed(E& e) {
    return e;
}
template <class E, class First, class... Rest>
E& feed(E& e, const First& first, const Rest&... rest) {
    e % first;
    return feed(e, rest...);
}
}  // namespace detail

// Builds a kind with its place and message arguments, ready to throw.
template <void (*Tag)(), class... Args>
Exc<Tag> makeExc(const char* context, const char* file, int line, const Args&... args) {
    Exc<Tag> e(context, file, line);
    detail::feed(e, args...);
    return e;
}

template <void (*Tag)(), class... Args>
Exc<Tag> makeWrappedExc(const ExTraceable& cause, const char* context, const char* file, int line,
                        const Args&... args) {
    Exc<Tag> e(cause, context, file, line);
    detail::feed(e, args...);
    return e;
}

}  // namespace tavik

// Builds and throws a tavik::Exc<&tavik::Kind> at the current function, file and line.
#define TAVIK_EXC(Kind, ...) \
    ::tavik::makeExc<&::tavik::Kind>(__PRETTY_FUNCTION__, __FILE__, __LINE__, ##__VA_ARGS__)
#define TAVIK_RAISE(Kind, ...) throw TAVIK_EXC(Kind, ##__VA_ARGS__)
// The same, carrying `cause` (an ExTraceable) as the inner exception.
#define TAVIK_RAISE_WRAP(Kind, cause, ...)                                                \
    throw ::tavik::makeWrappedExc<&::tavik::Kind>((cause), __PRETTY_FUNCTION__, __FILE__, \
                                                  __LINE__, ##__VA_ARGS__)

#endif  // FERRYGATE_COMMONS_EXCEPTIONS_H
