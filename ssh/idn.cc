#include "ssh/idn.h"

#include <idna.h>

#include <cstdlib>
#include <new>

#include "commons/handle.h"

namespace tavik {
namespace idn {

namespace {

void freeOutput(char* text) { std::free(text); }

typedef Handle<char*, freeOutput> LibraryText;

// Runs one conversion that allocates its output with malloc.
template <class Convert>
std::string convert(const std::string& name, Convert function) {
    char* output = nullptr;
    const int rc = function(name.c_str(), &output, 0);
    if (output != nullptr) {
        LibraryText owned(output);
        if (rc != IDNA_SUCCESS) throw IdnaError(rc);
        return owned.get();
    }
    if (rc != IDNA_SUCCESS) throw IdnaError(rc);
    throw std::bad_alloc();
}

}  // namespace

const char* IdnaError::what() const noexcept { return idna_strerror(static_cast<Idna_rc>(code_)); }

std::string toUtf8(const std::string& name) { return convert(name, idna_to_unicode_8z8z); }

std::string toAscii(const std::string& name) { return convert(name, idna_to_ascii_8z); }

std::string emailToAscii(const std::string& address) {
    const std::string::size_type at = address.find('@');
    if (at == std::string::npos) {
        return address;
    }
    return address.substr(0, at + 1) + toAscii(address.substr(at + 1));
}

}  // namespace idn
}  // namespace tavik
