#include "ferrygate/dispatch.h"

#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "commons/debug_log.h"
#include "commons/exceptions.h"
#include "commons/xml_log.h"
#include "ferrygate/actions.h"
#include "ferrygate/dump_options.h"
#include "ferrygate/env.h"
#include "ferrygate/session.h"

namespace tavik {

namespace {

template <void (*Tag)()>
bool isKind(const ExTraceable& e) {
    return dynamic_cast<const Exc<Tag>*>(&e) != nullptr;
}

// Each network and SSH failure has its own code, so that the controlling process can tell the
// user what went wrong without parsing text.
const struct {
    bool (*matches)(const ExTraceable&);
    int code;
} kExitCodes[] = {
    {isKind<&ConnectionRefused>, EXIT_CONNECTION_REFUSED},
    {isKind<&ConnectionTimedOut>, EXIT_CONNECTION_TIMED_OUT},
    {isKind<&NetworkUnreachable>, EXIT_NETWORK_UNREACHABLE},
    {isKind<&HostUnreachable>, EXIT_HOST_UNREACHABLE},
    {isKind<&ConnectionFault>, EXIT_CONNECTION_FAULT},
    {isKind<&HostNotFound>, EXIT_HOST_NOT_FOUND},
    {isKind<&SshInvalidCredentials>, EXIT_INVALID_CREDENTIALS},
    {isKind<&SshConnectionFault>, EXIT_SSH_CONNECTION_FAULT},
    {isKind<&HostKeyMismatch>, EXIT_HOST_KEY_MISMATCH},
    {isKind<&HostKeyUnknown>, EXIT_HOST_KEY_UNKNOWN},
};

// The first list given as "-" takes one line of standard input. Only one: the controlling
// process sends one line, and a second "-" goes to the agent as it stands.
void readListFromStdin(config& cfg) {
    for (std::string* list : {&cfg.resellers, &cfg.clients, &cfg.domains}) {
        if (*list == "-") {
            std::string line;
            std::getline(std::cin, line);
            *list = line;
            return;
        }
    }
}

RetrieveDumpAction* makeDumpAction(const config& cfg, Env& env) {
    std::vector<std::string> args;
    std::string input;
    prepareDumpAgentArguments(cfg, args, input);
    return new RetrieveDumpAction(env, args, input);
}

}  // namespace

int exitCodeOf(const ExTraceable& e) {
    for (const auto& entry : kExitCodes) {
        if (entry.matches(e)) return entry.code;
    }
    return EXIT_ACTION_FAILED;
}

Action* getActionByIdInternal(const config& cfg, Env& env) {
    switch (cfg.action) {
        case ACTION_SEND_SCOUT:
            return new SendScoutAction(env);
        case ACTION_DEPLOY_AGENT:
            return new SendAgentAction(env);
        case ACTION_GET_DUMPING_STATUS:
            return new GetDumpingStatusAction(env);
        case ACTION_DUMP_SELECTED:
        case ACTION_DUMP_ALL:
            return makeDumpAction(cfg, env);
        case ACTION_GET_CONTENT:
            return new RetrieveContentAction(env);
        case ACTION_REMOVE_AGENT:
            return new RemoveAgentAction(env);
        case ACTION_REMOVE_DUMPING_STATUS:
            return new RemoveDumpingStatusAction(env);
        default:
            TAVIK_RAISE(UnknownAction);
    }
}

int do_actions(config& cfg) {
    LogLifetimeController executionLog(theSession->getResultFileName());
    readListFromStdin(cfg);
    LiveEnv env(cfg, *theSession);
    return run_action(cfg, env);
}

int run_action(const config& cfg, Env& env) {
    std::unique_ptr<Action> action;
    try {
        action.reset(getActionByIdInternal(cfg, env));
        action->setConfig(&cfg);
        action->setResult(theLog);
        action->execute();
        action->closeStatus();
        theLog->setSuccess(true);
        return EXIT_OK;
    } catch (const ExTraceable& e) {
        theDebugLog->log(e);
        theLog->log(e);
        std::cerr << e.what() << std::flush;
        return exitCodeOf(e);
    } catch (const MigrationTerminatedException& e) {
        // A stop the user asked for is an orderly end, not a failure.
        theLog->setSuccess(true);
        theDebugLog->log(std::string(e.what()));
        std::cout << e.what() << std::flush;
        return EXIT_OK;
    }
}

}  // namespace tavik
