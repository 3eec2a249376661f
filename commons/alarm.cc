#include "commons/alarm.h"

namespace tavik {

Alarm::~Alarm() = default;

}  // namespace tavik
