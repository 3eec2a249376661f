#include "commons/daemon_handlers.h"

namespace tavik {

DaemonHandlers parentDaemonHandlers;
DaemonHandlers childDaemonHandlers;

void runDaemonHandlers(const DaemonHandlers& handlers) {
    for (const auto& handler : handlers) handler();
}

}  // namespace tavik
