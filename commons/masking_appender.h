// The last net for registered secrets (commons/secrets.h) in every log4cpp appender: each
// appender that the configuration attached is replaced, on every category, by a wrapper that
// masks long secrets, as whole words, in each event before passing it on (maskSecrets). Code that
// writes a record of its own input (standard input, the command line) masks it there.
#ifndef FERRYGATE_COMMONS_MASKING_APPENDER_H
#define FERRYGATE_COMMONS_MASKING_APPENDER_H

#include <log4cpp/Appender.hh>
#include <memory>

namespace tavik {

// Forwards every operation to the wrapped appender; doAppend first masks the message and the
// nested diagnostic context. It takes the wrapped appender's name, so look-ups by name (such as
// detaching "A2") find the wrapper, and it takes the wrapped appender's place in log4cpp's
// registry, which deletes the wrapper at shutdown; the wrapper in turn owns the wrapped one.
class MaskingAppender : public log4cpp::Appender {
  public:
    // Takes ownership of `wrapped`, which must not be null and must not be owned by a category.
    explicit MaskingAppender(log4cpp::Appender* wrapped);
    ~MaskingAppender() override;

    void doAppend(const log4cpp::LoggingEvent& event) override;
    bool reopen() override;
    void close() override;
    bool requiresLayout() const override;
    void setLayout(log4cpp::Layout* layout) override;
    void setThreshold(log4cpp::Priority::Value priority) override;
    log4cpp::Priority::Value getThreshold() override;
    void setFilter(log4cpp::Filter* filter) override;
    log4cpp::Filter* getFilter() override;

    const log4cpp::Appender& wrapped() const { return *wrapped_; }

  private:
    std::unique_ptr<log4cpp::Appender> wrapped_;
};

// Replaces every appender attached to any existing category by one MaskingAppender (shared by
// all the categories that shared the appender). Appenders already wrapped are left alone, so a
// second call changes nothing. Throws std::logic_error for an appender that a category owns:
// it could not be taken out without being deleted, and left in place it would log unmasked.
void maskAllAppenders();

}  // namespace tavik

#endif  // FERRYGATE_COMMONS_MASKING_APPENDER_H
