#include "commons/unique_fd.h"

#include <sys/stat.h>

namespace tavik {

UmaskScope::UmaskScope(mode_t mask) : previous_(umask(mask)) {}

UmaskScope::~UmaskScope() { umask(previous_); }

}  // namespace tavik
