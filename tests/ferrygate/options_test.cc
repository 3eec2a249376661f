#include "ferrygate/options.h"

#include <gtest/gtest.h>

#include <boost/algorithm/string.hpp>
#include <cstdlib>
#include <string>
#include <vector>

#include "commons/exceptions.h"

namespace tavik {
namespace {

config parse(const std::string& line) {
    std::vector<std::string> words = {"ferrygate"};
    if (!line.empty()) boost::split(words, "ferrygate " + line, boost::is_any_of(" "));
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(&word[0]);
    argv.push_back(nullptr);
    config cfg;
    EXPECT_TRUE(parse_options(static_cast<int>(words.size()), argv.data(), &cfg)) << line;
    return cfg;
}

// The message verification raises, or "" when the options are accepted.
std::string verify(config cfg) {
    try {
        verify_options(&cfg);
        return "";
    } catch (const Exc<&OptParsingError>& e) {
        return e.what();
    }
}

const std::string kPrefix = "Unable to parse command line: ";
const std::string kMissed = " is required unless --help or -h requested\n";
const std::string kNotAllowed = " is not allowed with --help or -h\n";
const std::string kPortMessage = "port should be a number in [1, 65535] range";

// The options fuzz target checks what a verified command line guarantees; this checks the
// messages and which rule speaks first.
TEST(VerifyOptions, RulesAndMessagesInOrder) {
    const std::string extra = "' only may be specified when '--";
    const struct {
        std::string line;
        bool password;  // whether HMX_PASSWORD had given one
        std::string message;
    } cases[] = {
        {"", true, "No action given"},
        {"--send-scout --send-scout", true, "More than one action is given"},
        {"-h --remove-dumping-status --no-check-space", true, "More than one action is given"},
        {"--dump-all --no-check-space --no-content", true,
         "'--no-check-space" + extra + "get-content' is requested"},
        {"--get-content --no-content", true, "'--no-content" + extra + "dump-*' is requested"},
        {"--get-content --no-check-space --no-encryption --host=h --login=l --agent-dir=d "
         "--agent-name=n",
         true, ""},
        {"--remove-dumping-status", false, ""},
        {"--remove-dumping-status --host=h --port=0", false, "host" + kNotAllowed},
        {"--remove-dumping-status --port=-1 --login=l", false, "port" + kNotAllowed},
        {"--remove-dumping-status --agent-name=n", true, "password" + kNotAllowed},
        {"--remove-dumping-status --agent-name=n", false, "agent name" + kNotAllowed},
        {"--remove-dumping-status --sudo-password", false, "sudo parameters" + kNotAllowed},
        {"--send-scout --login=l --port=0", true, "host" + kMissed},
        {"--send-scout --host=h", true, "login" + kMissed},
        {"--send-scout --host=h --login=l", false, "password" + kMissed},
        {"--send-scout --host=h --login=l --sudo-password", true,
         "HMX_SUDO_PASSWORD environment variable is not provided with --sudo-password\n"},
        {"--send-scout --host=h --login=l --agent-dir=d --agent-name=n", true,
         "agent directory" + kNotAllowed},
        {"--remove-agent --host=h --login=l --agent-dir=d", true, "agent name" + kMissed},
        {"--get-dumping-status --host=h --login=l", true, "agent directory" + kMissed},
        {"--send-scout --host=h --login=l --host-key=SHA256:" + std::string(42, 'a') + "=", true,
         "--host-key takes SHA256: and 43 base64 characters, as ssh-keygen -l shows"},
        {"--remove-dumping-status --host-key=x", false, "host key" + kNotAllowed},
    };
    unsetenv("HMX_PASSWORD");
    unsetenv("HMX_SUDO_PASSWORD");
    for (const auto& c : cases) {
        config cfg = parse(c.line);
        if (c.password) cfg.password = "pw";
        EXPECT_EQ(c.message.empty() ? "" : kPrefix + c.message, verify(cfg)) << c.line;
    }
}

TEST(ParseOptions, PortIsASigned16BitNumberWithTrailingTextIgnoredAndHostHasAnAlias) {
    const std::vector<std::pair<std::string, int>> cases = {
        {"0", -1},        {"abc", -1},        {"65535", -1},  {"32768", -1},
        {"32767", 32767}, {"22abc", 22},      {"22", 22},     {"-2", -2},
        {"-1", -1},       {"-32768", -32768}, {"-32769", -1}, {"99999999999999999999", -1},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.second, parse("--send-scout --port " + c.first).port) << c.first;
        config cfg = parse("--send-scout --host=h --login=l --port=" + c.first);
        cfg.password = "pw";
        EXPECT_EQ(c.second == -1 ? kPrefix + kPortMessage : "", verify(cfg)) << c.first;
    }
    // The obsolete alias, and the last of several values.
    EXPECT_EQ("second", parse("--ip=first --host=second").host);
}

}  // namespace
}  // namespace tavik
