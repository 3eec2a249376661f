#include "ferrygate/options.h"

#include <getopt.h>

#include <boost/format.hpp>
#include <cstdio>
#include <cstdlib>
#include <iostream>

#include "commons/exceptions.h"
#include "commons/secrets.h"
#include "utils/enviroment.h"

namespace tavik {

namespace {

bool sudoPasswordProvided = false;

// getopt_long values of the options that are not actions; actions use their identifiers.
enum OptionId {
    OPT_NO_CONTENT = 256,
    OPT_NO_COMPRESS,
    OPT_IP,
    OPT_HOST,
    OPT_PORT,
    OPT_LOGIN,
    OPT_AGENT_DIR,
    OPT_AGENT_NAME,
    OPT_DUMPS_DIR,
    OPT_NO_CHECK_SPACE,
    OPT_NO_ENCRYPTION,
    OPT_SUDO_PASSWORD,
    OPT_RESELLERS,
    OPT_CLIENTS,
    OPT_DOMAINS,
    OPT_SELECTED_OBJECTS_FILE,
    OPT_SESSION_PATH,
    OPT_VERBOSE,
    OPT_ONLY_MAIL,
    OPT_ONLY_HOSTING,
    OPT_CONTENT_TRANSPORT,
    OPT_PROGRESS,
    OPT_HOST_KEY,
};

const struct option kLongOptions[] = {
    {"send-scout", no_argument, nullptr, ACTION_SEND_SCOUT},
    {"deploy-agent", no_argument, nullptr, ACTION_DEPLOY_AGENT},
    {"get-dumping-status", no_argument, nullptr, ACTION_GET_DUMPING_STATUS},
    {"dump-selected", no_argument, nullptr, ACTION_DUMP_SELECTED},
    {"dump-all", no_argument, nullptr, ACTION_DUMP_ALL},
    {"get-content", no_argument, nullptr, ACTION_GET_CONTENT},
    {"remove-agent", no_argument, nullptr, ACTION_REMOVE_AGENT},
    {"remove-dumping-status", no_argument, nullptr, ACTION_REMOVE_DUMPING_STATUS},
    {"help", no_argument, nullptr, ACTION_HELP},
    {"no-content", no_argument, nullptr, OPT_NO_CONTENT},
    {"no-compress", no_argument, nullptr, OPT_NO_COMPRESS},
    {"ip", required_argument, nullptr, OPT_IP},
    {"host", required_argument, nullptr, OPT_HOST},
    {"port", required_argument, nullptr, OPT_PORT},
    {"login", required_argument, nullptr, OPT_LOGIN},
    {"agent-dir", required_argument, nullptr, OPT_AGENT_DIR},
    {"agent-name", required_argument, nullptr, OPT_AGENT_NAME},
    {"dumps-dir", required_argument, nullptr, OPT_DUMPS_DIR},
    {"no-check-space", no_argument, nullptr, OPT_NO_CHECK_SPACE},
    {"no-encryption", no_argument, nullptr, OPT_NO_ENCRYPTION},
    {"sudo-password", no_argument, nullptr, OPT_SUDO_PASSWORD},
    {"resellers", required_argument, nullptr, OPT_RESELLERS},
    {"clients", required_argument, nullptr, OPT_CLIENTS},
    {"domains", required_argument, nullptr, OPT_DOMAINS},
    {"selected-objects-file", required_argument, nullptr, OPT_SELECTED_OBJECTS_FILE},
    {"session-path", required_argument, nullptr, OPT_SESSION_PATH},
    {"verbose", no_argument, nullptr, OPT_VERBOSE},
    {"only-mail", no_argument, nullptr, OPT_ONLY_MAIL},
    {"only-hosting", no_argument, nullptr, OPT_ONLY_HOSTING},
    {"content-transport", required_argument, nullptr, OPT_CONTENT_TRANSPORT},
    {"version", no_argument, nullptr, ACTION_VERSION},
    {"progress", no_argument, nullptr, OPT_PROGRESS},
    {"host-key", required_argument, nullptr, OPT_HOST_KEY},
    {nullptr, 0, nullptr, 0},
};

// Trailing characters are ignored ("22x" is 22). 0 and anything outside a signed 16-bit
// number become -1, so 32768..65535 are refused although the message names [1, 65535], and a
// negative number that fits is kept: long-standing behaviour the controlling process expects.
int32_t parsePort(const char* text) {
    const long value = strtol(text, nullptr, 10);
    if (value == 0 || value < INT16_MIN || value > INT16_MAX) return -1;
    return static_cast<int32_t>(value);
}

void readSudoPassword(config* cfg) {
    cfg->sudo = true;
    const char* password = getenv("HMX_SUDO_PASSWORD");
    if (password == nullptr) return;
    cfg->sudoPasswordProvided = true;
    cfg->sudoPassword = password;
    sudoPasswordProvided = true;
    registerSecret(cfg->sudoPassword);
    // Like the login password, it must not reach any process this one starts.
    unsetenv("HMX_SUDO_PASSWORD");
}

[[noreturn]] void raiseMessage(const std::string& message) {
    TAVIK_RAISE(OptParsingError, message);
}

bool connects(int action) {
    return action != ACTION_REMOVE_DUMPING_STATUS && action != ACTION_HELP;
}

// Actions that never connect take no connection parameters at all.
void verifyNoConnectionOptions(const config& cfg) {
    if (!cfg.host.empty()) invalid_option("host");
    if (cfg.port != 0) invalid_option("port");
    if (!cfg.login.empty()) invalid_option("login");
    if (!cfg.password.empty()) invalid_option("password");
    if (!cfg.agentDir.empty()) invalid_option("agent directory");
    if (!cfg.agentName.empty()) invalid_option("agent name");
    if (cfg.sudo) invalid_option("sudo parameters");
    if (!cfg.hostKey.empty()) invalid_option("host key");
}

// As ssh-keygen -l prints it: "SHA256:" and the 43 characters of a digest in base64.
bool isFingerprint(const std::string& text) {
    const std::string prefix = "SHA256:";
    const char* base64 = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    return text.size() == prefix.size() + 43 && text.compare(0, prefix.size(), prefix) == 0 &&
           text.find_first_not_of(base64, prefix.size()) == std::string::npos;
}

void verifyConnectionOptions(const config& cfg) {
    if (cfg.host.empty()) req_action_argument_missed("host");
    if (cfg.port == -1) raiseMessage("port should be a number in [1, 65535] range");
    if (cfg.login.empty()) req_action_argument_missed("login");
    if (cfg.password.empty()) req_action_argument_missed("password");
    if (!cfg.hostKey.empty() && !isFingerprint(cfg.hostKey)) {
        raiseMessage("--host-key takes SHA256: and 43 base64 characters, as ssh-keygen -l shows");
    }
    if (cfg.sudo && !cfg.sudoPasswordProvided) {
        raiseMessage(
            "HMX_SUDO_PASSWORD environment variable is not provided with --sudo-password\n");
    }
    if (cfg.action == ACTION_SEND_SCOUT) {
        // The scout runs without an agent.
        if (!cfg.agentDir.empty()) invalid_option("agent directory");
        if (!cfg.agentName.empty()) invalid_option("agent name");
    } else {
        if (cfg.agentDir.empty()) req_action_argument_missed("agent directory");
        if (cfg.agentName.empty()) req_action_argument_missed("agent name");
    }
}

}  // namespace

bool isAction(int id) { return id >= ACTION_SEND_SCOUT && id <= ACTION_VERSION; }

bool is_sudo_password_provided() { return sudoPasswordProvided; }

bool parse_options(int argc, char** argv, config* cfg) {
    optind = 0;  // a full restart of getopt_long's scan, also for a second parse
    int c;
    while ((c = getopt_long(argc, argv, "h", kLongOptions, nullptr)) != -1) {
        if (c == 'h') c = ACTION_HELP;
        if (isAction(c)) {
            cfg->action = cfg->action == NO_ACTION ? c : MORE_THAN_ONE_ACTION;
            continue;
        }
        switch (c) {
            case OPT_NO_CONTENT:
                cfg->noContent = true;
                break;
            case OPT_NO_COMPRESS:
                cfg->compress = COMPRESS_NONE;
                break;
            case OPT_IP:
            case OPT_HOST:
                cfg->host = optarg;
                break;
            case OPT_PORT:
                cfg->port = parsePort(optarg);
                break;
            case OPT_LOGIN:
                cfg->login = optarg;
                break;
            case OPT_AGENT_DIR:
                cfg->agentDir = optarg;
                break;
            case OPT_AGENT_NAME:
                cfg->agentName = optarg;
                break;
            case OPT_DUMPS_DIR:
                cfg->dumpsDir = optarg;
                break;
            case OPT_NO_CHECK_SPACE:
                cfg->noCheckSpace = true;
                break;
            case OPT_NO_ENCRYPTION:
                cfg->noEncryption = true;
                break;
            case OPT_SUDO_PASSWORD:
                readSudoPassword(cfg);
                break;
            case OPT_RESELLERS:
                cfg->resellers = optarg;
                break;
            case OPT_CLIENTS:
                cfg->clients = optarg;
                break;
            case OPT_DOMAINS:
                cfg->domains = optarg;
                break;
            case OPT_SELECTED_OBJECTS_FILE:
                cfg->selectedObjectsFile = optarg;
                break;
            case OPT_SESSION_PATH:
                cfg->sessionPath = optarg;
                break;
            case OPT_VERBOSE:
                cfg->verbose = true;
                break;
            case OPT_ONLY_MAIL:
                cfg->filter = FILTER_ONLY_MAIL;
                break;
            case OPT_ONLY_HOSTING:
                cfg->filter = FILTER_ONLY_HOSTING;
                break;
            case OPT_CONTENT_TRANSPORT:
                cfg->contentTransport = optarg;
                break;
            case OPT_PROGRESS:
                cfg->progress = true;
                break;
            case OPT_HOST_KEY:
                cfg->hostKey = optarg;
                break;
            default:
                return false;  // getopt_long has printed its diagnostic
        }
    }
    cfg->password = get_env_noncrypted_password();
    registerSecret(cfg->password);
    return true;
}

void verify_options(config* cfg) {
    if (cfg->action == NO_ACTION) raiseMessage("No action given");
    if (cfg->action == MORE_THAN_ONE_ACTION) raiseMessage("More than one action is given");
    if (cfg->action != ACTION_GET_CONTENT) {
        if (cfg->noCheckSpace) extra_option("no-check-space", "get-content");
        if (cfg->noEncryption) extra_option("no-encryption", "get-content");
    }
    if (cfg->action != ACTION_DUMP_SELECTED && cfg->action != ACTION_DUMP_ALL) {
        if (cfg->noContent) extra_option("no-content", "dump-*");
    }
    if (connects(cfg->action)) {
        verifyConnectionOptions(*cfg);
    } else {
        verifyNoConnectionOptions(*cfg);
    }
}

void req_action_argument_missed(const char* name) {
    char message[1024];
    snprintf(message, sizeof message, "%s is required unless --help or -h requested\n", name);
    TAVIK_RAISE(OptParsingError, std::string(message));
}

void invalid_option(const char* name) {
    TAVIK_RAISE(OptParsingError,
                (boost::format("%1% is not allowed with --help or -h\n") % name).str());
}

void extra_option(const char* option, const char* action) {
    TAVIK_RAISE(
        OptParsingError,
        (boost::format("'--%1%' only may be specified when '--%2%' is requested") % option % action)
            .str());
}

void no_action_option(const char* option, const char* action) {
    TAVIK_RAISE(
        OptParsingError,
        (boost::format("'--%1%' is required when '--%2%' action is requested") % option % action)
            .str());
}

void usage() {
    std::cout
        << "Usage: [HMX_PASSWORD=<password> | HMX_SUDO_PASSWORD = <sudo_password>] ferrygate \n"
           "          --host=<hostname or IP address> (obsolete alias is --ip)\n"
           "          [--port=<port>] (defaults to 22)\n"
           "          --login=<username>\n"
           "          [--sudo-password]\n"
           "          --agent-dir=<dir> (relative path on the remote side)\n"
           "          ( --send-scout\n"
           "          | --deploy-agent --session-path <dir> --agent-name <agent>\n"
           "          | --get-dumping-status --session-path <dir>\n"
           "          | ( --dump-selected [--selected-objects-file=<file-path>]\n"
           "                [--resellers=-|<reseller1>[,<reseller2>...]] "
           "[--clients=-|<client1>[,<client2>...]] [--domains=-|<domain1>[,<domain2>...]]\n"
           "             | --dump-all ) --session-path <dir> --agent-name <agent>\n"
           "                [--no-content] [--no-compress]\n"
           "                [--only-mail]\n"
           "                [--only-hosting]\n"
           "          | --get-content --session-path <dir> --agent-name <agent>\n"
           "                [--no-check-space] [--no-encryption (not implemented)] "
           "[--dumps-dir=<dir-on-destination-host>]\n"
           "          | --remove-agent --session-path <dir> --agent-name <agent>\n"
           "          | --remove-dumping-status --session-path <dir>\n"
           "          | --help | -h)\n";
    std::cout.flush();
}

}  // namespace tavik
