// The run: command line, session directory, verification and the chosen action.
#ifndef FERRYGATE_FERRYGATE_FERRYGATE_H
#define FERRYGATE_FERRYGATE_FERRYGATE_H

namespace tavik {

// Everything between main's last-resort handlers and the process exit code: 0 for help, 1 for
// a rejected command line. The session directory exists once the early checks have passed,
// even when verification then fails.
int real_main(int argc, char** argv);

}  // namespace tavik

#endif  // FERRYGATE_FERRYGATE_FERRYGATE_H
