// The run: command line, session directory, verification and the chosen action.
#ifndef FERRYGATE_FERRYGATE_FERRYGATE_H
#define FERRYGATE_FERRYGATE_FERRYGATE_H

namespace tavik {

class ExTraceable;

// Everything between main's last-resort handlers and the process exit code: 0 for help, 1 for
// a rejected command line. The session directory exists once the early checks have passed,
// even when verification then fails.
int real_main(int argc, char** argv);

// The error callback of XML node walks (foreach_xmlnode): writes `e` to the debug log and
// returns, so that the walk goes on with the next node. theDebugLog must be set.
void xmlErrorFunc(const ExTraceable& e);

}  // namespace tavik

#endif  // FERRYGATE_FERRYGATE_FERRYGATE_H
