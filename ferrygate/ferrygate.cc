#include "ferrygate/ferrygate.h"

#include <cstdlib>
#include <ctime>
#include <iostream>

#include "commons/debug_log.h"
#include "commons/exceptions.h"
#include "commons/start_stop_logger.h"
#include "ferrygate/options.h"
#include "ferrygate/session.h"
#include "utils/read_configuration.h"

namespace tavik {

namespace {
// Until the actions are built in, a verified command line ends here, and says so.
const int kActionNotAvailable = 2;
}  // namespace

int real_main(int argc, char** argv) {
    // An unreadable product configuration leaves the compile-time defaults in force.
    autoprepend();
    srand(static_cast<unsigned>(time(nullptr)));

    config cfg;
    if (!parse_options(argc, argv, &cfg)) return 1;
    if (cfg.action == ACTION_HELP) {
        usage();
        return 0;
    }
    if (cfg.action == NO_ACTION) {
        std::cerr << "Action required. See --help\n";
        return 1;
    }
    if (cfg.sessionPath.empty()) {
        std::cerr << "--session-path is required.\n";
        return 1;
    }

    SessionLifetimeController session(cfg.sessionPath);
    DebugLogLifetimeController debugLog(false, cfg.verbose);
    StartStopLogger startStop("Ferrygate", argc, argv);
    try {
        verify_options(&cfg);
    } catch (const Exc<&OptParsingError>& e) {
        // The message belongs in the session's debug log, never on the terminal.
        theDebugLog->log(e);
        startStop.setExitCode(1);
        return 1;
    }
    std::cerr << "ferrygate: the requested action is not available in this build\n";
    startStop.setExitCode(kActionNotAvailable);
    return kActionNotAvailable;
}

}  // namespace tavik
