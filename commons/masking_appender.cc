#include "commons/masking_appender.h"

#include <log4cpp/Category.hh>
#include <log4cpp/LoggingEvent.hh>
#include <map>
#include <stdexcept>
#include <vector>

#include "commons/secrets.h"

namespace tavik {

MaskingAppender::MaskingAppender(log4cpp::Appender* wrapped)
    : log4cpp::Appender(wrapped->getName()), wrapped_(wrapped) {}

MaskingAppender::~MaskingAppender() = default;

void MaskingAppender::doAppend(const log4cpp::LoggingEvent& event) {
    log4cpp::LoggingEvent masked(event.categoryName, maskSecrets(event.message),
                                 maskSecrets(event.ndc), event.priority);
    masked.timeStamp = event.timeStamp;
    wrapped_->doAppend(masked);
}

bool MaskingAppender::reopen() { return wrapped_->reopen(); }
void MaskingAppender::close() { wrapped_->close(); }
bool MaskingAppender::requiresLayout() const { return wrapped_->requiresLayout(); }
void MaskingAppender::setLayout(log4cpp::Layout* layout) { wrapped_->setLayout(layout); }

void MaskingAppender::setThreshold(log4cpp::Priority::Value priority) {
    wrapped_->setThreshold(priority);
}

log4cpp::Priority::Value MaskingAppender::getThreshold() { return wrapped_->getThreshold(); }
void MaskingAppender::setFilter(log4cpp::Filter* filter) { wrapped_->setFilter(filter); }
log4cpp::Filter* MaskingAppender::getFilter() { return wrapped_->getFilter(); }

void maskAllAppenders() {
    std::unique_ptr<std::vector<log4cpp::Category*>> categories(
        log4cpp::Category::getCurrentCategories());
    std::map<log4cpp::Appender*, MaskingAppender*> wrappers;
    for (log4cpp::Category* category : *categories) {
        for (log4cpp::Appender* appender : category->getAllAppenders()) {
            if (dynamic_cast<MaskingAppender*>(appender) != nullptr) continue;
            if (category->ownsAppender(appender)) {
                throw std::logic_error("log appender " + appender->getName() +
                                       " is owned by category " + category->getName() +
                                       " and cannot be wrapped for masking");
            }
            MaskingAppender*& wrapper = wrappers[appender];
            // log4cpp's registry takes the wrapper over at once, under the wrapped one's name.
            if (wrapper == nullptr) wrapper = new MaskingAppender(appender);
            category->removeAppender(appender);
            category->addAppender(*wrapper);
        }
    }
}

}  // namespace tavik
