// What to do after the process forks to detach itself: code that keeps per-process state
// registers a handler here, and whoever forks runs the lists.
#ifndef FERRYGATE_COMMONS_DAEMON_HANDLERS_H
#define FERRYGATE_COMMONS_DAEMON_HANDLERS_H

#include <functional>
#include <list>

namespace tavik {

// A list keeps its iterators valid, so a registrant can erase its own entry when it goes.
typedef std::list<std::function<void()>> DaemonHandlers;

// Run by the process that forked, after the fork.
extern DaemonHandlers parentDaemonHandlers;
// Run by the new process, after the fork.
extern DaemonHandlers childDaemonHandlers;

// Calls every handler of `handlers` in registration order.
void runDaemonHandlers(const DaemonHandlers& handlers);

}  // namespace tavik

#endif  // FERRYGATE_COMMONS_DAEMON_HANDLERS_H
