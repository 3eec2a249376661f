#include "commons/exceptions.h"

Cloneable::~Cloneable() = default;

namespace tavik {

ExInfoVisitor::~ExInfoVisitor() = default;
ExVisitable::~ExVisitable() = default;

ExTraceable::ExTraceable(const std::string& code, const std::string& format)
    : std::runtime_error(code), format_(format) {}

ExTraceable::~ExTraceable() = default;

ExTraceable* ExTraceable::clone() const { return new ExTraceable(*this); }

const char* ExTraceable::what() const noexcept {
    try {
        formatted_ = message();
    } catch (const std::exception& e) {
        // A raise site with the wrong number of arguments must still leave a readable trace.
        formatted_ = code() + ": unformattable message (" + e.what() + ")";
    }
    return formatted_.c_str();
}

void ExTraceable::accept(ExInfoVisitor& visitor) const {
    visitor.setCode(code());
    visitor.setMessage(message());
}

ExTaggedIncludable::ExTaggedIncludable(const std::string& code, const std::string& format)
    : ExTraceable(code, format) {}

ExTaggedIncludable::ExTaggedIncludable(const ExTaggedIncludable& other)
    : ExTraceable(other), inner_(other.inner_ ? other.inner_->clone() : nullptr) {}

ExTaggedIncludable& ExTaggedIncludable::operator=(const ExTaggedIncludable& other) {
    if (this != &other) {
        ExTraceable::operator=(other);
        inner_.reset(other.inner_ ? other.inner_->clone() : nullptr);
    }
    return *this;
}

ExTaggedIncludable::~ExTaggedIncludable() = default;

ExTaggedIncludable* ExTaggedIncludable::clone() const { return new ExTaggedIncludable(*this); }

void ExTaggedIncludable::accept(ExInfoVisitor& visitor) const {
    visitor.setCode(code());
    visitor.setMessage(message());
    acceptInner(visitor);
}

void ExTaggedIncludable::setInner(const ExTraceable& cause) { inner_.reset(cause.clone()); }

void ExTaggedIncludable::acceptInner(ExInfoVisitor& visitor) const {
    if (inner_) {
        visitor.advanceToInnerException();
        inner_->accept(visitor);
    }
}

MigrationTerminatedException::MigrationTerminatedException()
    : std::runtime_error("Migration has been terminated") {}

}  // namespace tavik
