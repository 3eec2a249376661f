// The command line parser and verifier on arbitrary argument vectors. Input: lines; the first
// chooses the environment ("env:sudo" sets HMX_SUDO_PASSWORD, "env:sudo-empty" sets it empty,
// else unset), every further line is one argument.
#include <getopt.h>

#include <boost/algorithm/string.hpp>
#include <cstdlib>
#include <string>
#include <vector>

#include "commons/exceptions.h"
#include "commons/secrets.h"
#include "ferrygate/options.h"
#include "tests/fuzz/fuzz_support.h"

namespace {

const char kSudoPassword[] = "Fz-sudo-9f3e1a";
// The login password reader keeps its first value for the process: every run gets this one.
const char kLoginPassword[] = "Fz-login-27c4b0";

void checkParsed(const tavik::config& cfg, bool sudoInEnvironment) {
    FUZZ_CHECK(cfg.action == tavik::NO_ACTION || cfg.action == tavik::MORE_THAN_ONE_ACTION ||
               tavik::isAction(cfg.action));
    // Either not given, refused, or a value that fits the 16 bits the connection reads.
    FUZZ_CHECK(cfg.port == 0 || cfg.port == -1 || (cfg.port >= -32768 && cfg.port <= 32767));
    FUZZ_CHECK(cfg.password == kLoginPassword);
    FUZZ_CHECK(getenv("HMX_PASSWORD") == nullptr);
    FUZZ_CHECK(cfg.sudoPasswordProvided == (cfg.sudo && sudoInEnvironment));
    if (cfg.sudo) FUZZ_CHECK(getenv("HMX_SUDO_PASSWORD") == nullptr);
    if (cfg.sudoPasswordProvided) FUZZ_CHECK(tavik::is_sudo_password_provided());
}

// What the actions may take for granted once the verifier has let a command line through.
void checkVerified(const tavik::config& cfg) {
    FUZZ_CHECK(tavik::isAction(cfg.action));
    if (cfg.action != tavik::ACTION_GET_CONTENT) FUZZ_CHECK(!cfg.noCheckSpace && !cfg.noEncryption);
    if (cfg.action != tavik::ACTION_DUMP_SELECTED && cfg.action != tavik::ACTION_DUMP_ALL) {
        FUZZ_CHECK(!cfg.noContent);
    }
    if (cfg.action == tavik::ACTION_REMOVE_DUMPING_STATUS || cfg.action == tavik::ACTION_HELP) {
        FUZZ_CHECK(cfg.host.empty() && cfg.port == 0 && cfg.login.empty() && !cfg.sudo);
        return;
    }
    FUZZ_CHECK(!cfg.host.empty() && !cfg.login.empty() && !cfg.password.empty());
    FUZZ_CHECK(cfg.port != -1);
    FUZZ_CHECK(!cfg.sudo || cfg.sudoPasswordProvided);
    if (cfg.action == tavik::ACTION_SEND_SCOUT) {
        FUZZ_CHECK(cfg.agentDir.empty() && cfg.agentName.empty());
    } else {
        FUZZ_CHECK(!cfg.agentDir.empty() && !cfg.agentName.empty());
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    opterr = 0;  // getopt_long's diagnostics would only slow the fuzzer down
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<std::string> lines;
    boost::split(lines, std::string(reinterpret_cast<const char*>(data), size),
                 boost::is_any_of("\n"));
    setenv("HMX_PASSWORD", kLoginPassword, 1);
    const bool sudoInEnvironment = lines[0] == "env:sudo" || lines[0] == "env:sudo-empty";
    unsetenv("HMX_SUDO_PASSWORD");
    if (sudoInEnvironment)
        setenv("HMX_SUDO_PASSWORD", lines[0] == "env:sudo" ? kSudoPassword : "", 1);

    std::vector<std::string> words(1, "ferrygate");
    words.insert(words.end(), lines.begin() + 1, lines.end());
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(&word[0]);
    argv.push_back(nullptr);

    tavik::config cfg;
    if (tavik::parse_options(static_cast<int>(words.size()), argv.data(), &cfg)) {
        checkParsed(cfg, sudoInEnvironment);
        try {
            tavik::verify_options(&cfg);
            checkVerified(cfg);
        } catch (const tavik::Exc<&tavik::OptParsingError>& e) {
            const std::string message = e.what();
            FUZZ_CHECK(message.rfind("Unable to parse command line: ", 0) == 0);
            // The refusal goes to the debug log: it must never carry a password.
            FUZZ_CHECK(message.find(kSudoPassword) == std::string::npos);
            FUZZ_CHECK(message.find(kLoginPassword) == std::string::npos);
        }
    }
    // Registered secrets are process-wide; without this they would pile up run after run.
    tavik::clearSecrets();
    return 0;
}
