#include "ferrygate/ferrygate.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <iostream>
#include <string>

#include "commons/debug_log.h"
#include "commons/exceptions.h"
#include "commons/start_stop_logger.h"
#include "ferrygate/dispatch.h"
#include "ferrygate/options.h"
#include "ferrygate/session.h"
#include "utils/files.h"
#include "utils/read_configuration.h"

#ifndef FERRYGATE_VERSION
#error "FERRYGATE_VERSION is the project version, defined by cmake/install.cmake"
#endif

namespace tavik {

namespace {

// Without its logging configuration the program cannot open a session at all; say so in one
// line, with the cure, instead of the account and log4cpp errors that would follow. A missing
// hmxadm alone is no reason to stop (files then go to root), but it is named here too.
bool productTreeInstalled() {
    const std::string logConfig = files::getRkuLogConfigFileName();
    if (access(logConfig.c_str(), R_OK) == 0) return true;
    std::cerr << "ferrygate: the product tree is not installed (no " << logConfig
              << (getpwnam("hmxadm") == nullptr ? ", no account hmxadm" : "")
              << "): install it with 'cmake --install build' or the ferrygate .deb package\n";
    return false;
}

}  // namespace

void xmlErrorFunc(const ExTraceable& e) { theDebugLog->log(e); }

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
    if (cfg.action == ACTION_VERSION) {
        std::cout << "ferrygate " FERRYGATE_VERSION "\n";
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
    if (!productTreeInstalled()) return 1;

    SessionLifetimeController session(cfg.sessionPath);
    DebugLogLifetimeController debugLog(false, cfg.verbose, theSession->getLogFileName());
    StartStopLogger startStop("Ferrygate", argc, argv);
    try {
        verify_options(&cfg);
    } catch (const Exc<&OptParsingError>& e) {
        // The message belongs in the session's debug log, never on the terminal.
        theDebugLog->log(e);
        startStop.setExitCode(1);
        return 1;
    }
    const int code = do_actions(cfg);
    startStop.setExitCode(code);
    return code;
}

}  // namespace tavik
