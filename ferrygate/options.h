// The command line: parsed into one config record, then checked against the chosen action.
#ifndef FERRYGATE_FERRYGATE_OPTIONS_H
#define FERRYGATE_FERRYGATE_OPTIONS_H

#include <cstdint>
#include <string>

namespace tavik {

// The one action of a run. A config holds NO_ACTION until an action option is seen, and
// MORE_THAN_ONE_ACTION once a second one is, even the same one again.
enum ActionId {
    MORE_THAN_ONE_ACTION = -2,
    NO_ACTION = -1,
    ACTION_SEND_SCOUT = 0,
    ACTION_DEPLOY_AGENT = 1,
    ACTION_GET_DUMPING_STATUS = 2,
    ACTION_DUMP_SELECTED = 3,
    ACTION_DUMP_ALL = 4,
    ACTION_GET_CONTENT = 5,
    ACTION_REMOVE_AGENT = 6,
    ACTION_REMOVE_DUMPING_STATUS = 7,
    ACTION_HELP = 8,
    ACTION_VERSION = 9,
};

enum opt_backup_compress {
    COMPRESS_NOT_SPECIFIED = 0,
    COMPRESS_STANDARD = 1,
    COMPRESS_NONE = 2,
};

enum opt_backup_filter {
    FILTER_EVERYTHING = 0,
    FILTER_ONLY_MAIL = 1,
    FILTER_ONLY_HOSTING = 2,
};

struct config {
    int32_t action = NO_ACTION;
    std::string resellers;
    std::string clients;
    std::string domains;
    bool noContent = false;
    opt_backup_compress compress = COMPRESS_NOT_SPECIFIED;
    std::string host;
    // 0: not given (the connection uses 22); -1: rejected by the parser.
    int32_t port = 0;
    std::string login;
    std::string password;
    std::string agentDir;
    std::string agentName;
    std::string dumpsDir;
    std::string sessionPath;
    std::string selectedObjectsFile;
    bool noCheckSpace = false;
    bool noEncryption = false;
    bool sudo = false;
    bool sudoPasswordProvided = false;
    std::string sudoPassword;
    bool verbose = false;
    opt_backup_filter filter = FILTER_EVERYTHING;
    std::string contentTransport;
    // A progress line on standard error during long transfers, when that is a terminal.
    bool progress = false;
    // --host-key: the fingerprint ("SHA256:" and 43 base64 characters) of the only host key to
    // accept; empty: the known hosts file decides.
    std::string hostKey;
};

// Fills `cfg` from the arguments, HMX_PASSWORD (always, then removed from the environment) and
// HMX_SUDO_PASSWORD (with --sudo-password). False on an option getopt_long rejects, after its
// own diagnostic. Both passwords are registered for masking in logs.
bool parse_options(int argc, char** argv, config* cfg);

// Throws OptParsingError for the first rule the combination of options breaks.
void verify_options(config* cfg);

// Writes the usage text to standard output.
void usage();

// True for the identifier of an action option, help and version included.
bool isAction(int id);

// True once --sudo-password was parsed while HMX_SUDO_PASSWORD existed (even empty).
bool is_sudo_password_provided();

// Each throws OptParsingError with its own message.
[[noreturn]] void req_action_argument_missed(const char* name);
[[noreturn]] void invalid_option(const char* name);
[[noreturn]] void extra_option(const char* option, const char* action);
[[noreturn]] void no_action_option(const char* option, const char* action);

}  // namespace tavik

#endif  // FERRYGATE_FERRYGATE_OPTIONS_H
