#include "ferrygate/ferrygate.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <iostream>
#include <string>
#include <vector>

#include "commons/debug_log.h"
#include "commons/exceptions.h"
#include "commons/secrets.h"
#include "commons/start_stop_logger.h"
#include "ferrygate/dispatch.h"
#include "ferrygate/options.h"
#include "ferrygate/session.h"
#include "ssh/shell_quote.h"
#include "utils/files.h"
#include "utils/read_configuration.h"

#ifndef FERRYGATE_VERSION
#error "FERRYGATE_VERSION is the project version, defined by cmake/install.cmake"
#endif

namespace tavik {

namespace {

void keepMessage(void* messages, const char* message) {
    static_cast<std::vector<std::string>*>(messages)->push_back(message);
}

// The command line as the start record shows it: every word as the shell would take it back,
// a word that is a password masked.
std::string recordedCommandLine(int argc, char* const* argv) {
    std::string line;
    for (int i = 0; i < argc; ++i) {
        const std::string word = argv[i];
        const size_t equals = word.find('=');
        if (i > 0) line += ' ';
        if (isSecret(word) || (equals != std::string::npos && isSecret(word.substr(equals + 1)))) {
            line += kMaskedSecret;
        } else {
            line += word.empty() ? "''" : sh_quote(word);
        }
    }
    return line;
}

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
    // An unreadable product configuration, or a bad line in it, leaves the compile-time
    // defaults in force; what the reader found goes to the debug log once there is one.
    std::vector<std::string> configurationMessages;
    autoprepend_to(keepMessage, &configurationMessages);
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
    StartStopLogger startStop("Ferrygate", recordedCommandLine(argc, argv));
    for (const std::string& message : configurationMessages) theDebugLog->log(message);
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
