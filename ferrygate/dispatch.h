// From a verified command line to the one action of the run and the process exit code.
#ifndef FERRYGATE_FERRYGATE_DISPATCH_H
#define FERRYGATE_FERRYGATE_DISPATCH_H

#include "ferrygate/options.h"

namespace tavik {

class Action;
class Env;
class ExTraceable;

// Exit codes of a run.
enum ExitCode {
    EXIT_OK = 0,
    EXIT_BAD_OPTIONS = 1,
    EXIT_ACTION_FAILED = 2,
    EXIT_CONNECTION_REFUSED = 11,
    EXIT_CONNECTION_TIMED_OUT = 12,
    EXIT_NETWORK_UNREACHABLE = 13,
    EXIT_HOST_UNREACHABLE = 14,
    EXIT_CONNECTION_FAULT = 15,
    EXIT_HOST_NOT_FOUND = 16,
    EXIT_INVALID_CREDENTIALS = 17,
    EXIT_SSH_CONNECTION_FAULT = 18,
    // The server's host key is not the recorded or pinned one: possibly not the source host.
    EXIT_HOST_KEY_MISMATCH = 19,
    // Unknown hosts are refused (SSH_STRICT_HOST_KEYS) and the server's host was unknown.
    EXIT_HOST_KEY_UNKNOWN = 20,
};

// Runs the action of `cfg` with the execution log open and returns the exit code. A list given
// as "-" (the first of resellers, clients, domains) is first replaced by one line of standard
// input. Failures are written to the debug log, the execution log and, as their message alone,
// to standard error; a stop requested by the user prints "Migration has been terminated" and
// counts as success. Other exceptions pass on.
int do_actions(config& cfg);

// do_actions after its set-up: runs the action of `cfg` in `env` and maps its outcome to the exit
// code, with the execution log (theLog) open.
int run_action(const config& cfg, Env& env);

// A new action for cfg.action, owned by the caller, reaching the world through `env`. Throws
// UnknownAction for help and anything that is not an action.
Action* getActionByIdInternal(const config& cfg, Env& env);

// The exit code that a failure of this kind ends the run with.
int exitCodeOf(const ExTraceable& e);

}  // namespace tavik

#endif  // FERRYGATE_FERRYGATE_DISPATCH_H
