// The owner of one raw resource: a descriptor, a library handle or a buffer.
//
// A Handle takes the value in its constructor, refuses an invalid one with InvalidHandle (then
// owning nothing), and releases it exactly once in its destructor. It cannot be copied, so no
// resource ever has two owners.
#ifndef FERRYGATE_COMMONS_HANDLE_H
#define FERRYGATE_COMMONS_HANDLE_H

#include "commons/exceptions.h"

namespace tavik {

// Any value but the null pointer is a valid handle.
template <class T>
struct DefaultValidationPolicy;

template <class T>
struct DefaultValidationPolicy<T*> {
    static bool isValid(T* value) { return value != nullptr; }
};

// A descriptor is valid unless it is -1, the failure result of open, socket and their kin.
struct FdValidationPolicy {
    static bool isValid(int fd) { return fd != -1; }
};

// Releases a buffer allocated with new[].
template <class T>
void DefaultDestructionFunc(T value);

template <>
inline void DefaultDestructionFunc<char*>(char* buffer) {
    delete[] buffer;
}

// DestructionFunc is the release function itself (any return value is ignored: a destructor
// has nobody to report to), ValidationPolicy a type with `static bool isValid(T)`.
template <class T, auto DestructionFunc, class ValidationPolicy = DefaultValidationPolicy<T>>
class Handle {
  public:
    explicit Handle(T value) : value_(value) {
        if (!ValidationPolicy::isValid(value)) {
            TAVIK_RAISE(InvalidHandle);
        }
    }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    ~Handle() { DestructionFunc(value_); }

    T get() const { return value_; }

  private:
    T value_;
};

}  // namespace tavik

#endif  // FERRYGATE_COMMONS_HANDLE_H
