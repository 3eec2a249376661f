// Conversion of internationalised domain names between their Unicode and ASCII forms.
#ifndef FERRYGATE_SSH_IDN_H
#define FERRYGATE_SSH_IDN_H

#include <exception>
#include <string>

namespace tavik {
namespace idn {

// A failed conversion; what() is the library's text for the code.
class IdnaError : public std::exception {
  public:
    explicit IdnaError(int code) : code_(code) {}
    const char* what() const noexcept override;
    int code() const { return code_; }

  private:
    int code_;
};

// The UTF-8 form of an ASCII-compatible ("xn--") domain name. Throws IdnaError.
std::string toUtf8(const std::string& name);
// The ASCII-compatible form of a UTF-8 domain name. Throws IdnaError.
std::string toAscii(const std::string& name);
// `address` with everything after its first '@' converted by toAscii; without '@' unchanged.
std::string emailToAscii(const std::string& address);

}  // namespace idn
}  // namespace tavik

#endif  // FERRYGATE_SSH_IDN_H
