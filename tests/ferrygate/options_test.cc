#include "ferrygate/options.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "commons/exceptions.h"
#include "commons/secrets.h"

namespace tavik {
namespace {

config parse(std::vector<std::string> args, bool* accepted = nullptr) {
    args.insert(args.begin(), "ferrygate");
    std::vector<char*> argv;
    for (std::string& word : args) argv.push_back(&word[0]);
    argv.push_back(nullptr);
    config cfg;
    const bool ok = parse_options(static_cast<int>(args.size()), argv.data(), &cfg);
    if (accepted != nullptr) *accepted = ok;
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
const std::vector<std::string> kConnection = {"--host=h", "--login=l"};
const std::vector<std::string> kAgent = {"--agent-dir=d", "--agent-name=n"};

std::vector<std::string> join(std::vector<std::string> a, const std::vector<std::string>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

struct VerifyCase {
    std::vector<std::string> args;
    bool password;  // whether HMX_PASSWORD had given one
    std::string message;
};

TEST(VerifyOptions, RulesAndMessagesInOrder) {
    const std::string missed = " is required unless --help or -h requested\n";
    const std::string notAllowed = " is not allowed with --help or -h\n";
    const std::vector<VerifyCase> cases = {
        {{}, true, "No action given"},
        {{"--send-scout", "--send-scout"}, true, "More than one action is given"},
        {{"--help", "--send-scout"}, true, "More than one action is given"},
        {{"-h", "--remove-dumping-status", "--no-check-space"},
         true,
         "More than one action is given"},
        {join({"--dump-all", "--no-check-space", "--no-content"}, kConnection), true,
         "'--no-check-space' only may be specified when '--get-content' is requested"},
        {join({"--deploy-agent", "--no-encryption"}, kConnection), true,
         "'--no-encryption' only may be specified when '--get-content' is requested"},
        {join({"--get-content", "--no-content"}, kConnection), true,
         "'--no-content' only may be specified when '--dump-*' is requested"},
        {join(join({"--get-content", "--no-check-space", "--no-encryption"}, kConnection), kAgent),
         true, ""},
        {join(join({"--dump-selected", "--no-content"}, kConnection), kAgent), true, ""},
        {{"--remove-dumping-status"}, false, ""},
        {{"--remove-dumping-status", "--host=h", "--port=0"}, false, "host" + notAllowed},
        {{"--remove-dumping-status", "--port=-1", "--login=l"}, false, "port" + notAllowed},
        {{"--remove-dumping-status", "--login=l"}, false, "login" + notAllowed},
        {{"--remove-dumping-status", "--agent-name=n"}, true, "password" + notAllowed},
        {{"--remove-dumping-status", "--agent-dir=d"}, false, "agent directory" + notAllowed},
        {{"--remove-dumping-status", "--agent-name=n"}, false, "agent name" + notAllowed},
        {{"--remove-dumping-status", "--sudo-password"}, false, "sudo parameters" + notAllowed},
        {{"--send-scout", "--login=l", "--port=0"}, true, "host" + missed},
        {{"--send-scout", "--host=h", "--port=0"},
         true,
         "port should be a number in [1, 65535] range"},
        {{"--send-scout", "--host=h"}, true, "login" + missed},
        {join({"--send-scout"}, kConnection), false, "password" + missed},
        {join({"--send-scout", "--sudo-password"}, kConnection), true,
         "HMX_SUDO_PASSWORD environment variable is not provided with --sudo-password\n"},
        {join({"--send-scout"}, kConnection), true, ""},
        {join({"--send-scout", "--agent-dir=d", "--agent-name=n"}, kConnection), true,
         "agent directory" + notAllowed},
        {join({"--send-scout", "--agent-name=n"}, kConnection), true, "agent name" + notAllowed},
        {join({"--get-dumping-status"}, kConnection), true, "agent directory" + missed},
        {join({"--remove-agent", "--agent-dir=d"}, kConnection), true, "agent name" + missed},
    };
    unsetenv("HMX_PASSWORD");
    unsetenv("HMX_SUDO_PASSWORD");
    for (const VerifyCase& c : cases) {
        config cfg = parse(c.args);
        if (c.password) cfg.password = "pw";
        const std::string expected = c.message.empty() ? "" : kPrefix + c.message;
        std::string line;
        for (const std::string& a : c.args) line += a + " ";
        EXPECT_EQ(expected, verify(cfg)) << line;
    }
}

TEST(VerifyOptions, EveryConnectingActionNeedsTheAgent) {
    for (const char* action : {"--deploy-agent", "--get-dumping-status", "--dump-selected",
                               "--dump-all", "--get-content", "--remove-agent"}) {
        config cfg = parse(join({action}, kConnection));
        cfg.password = "pw";
        EXPECT_EQ(kPrefix + "agent directory is required unless --help or -h requested\n",
                  verify(cfg))
            << action;
        cfg = parse(join(join({action}, kConnection), kAgent));
        cfg.password = "pw";
        EXPECT_EQ("", verify(cfg)) << action;
    }
}

TEST(VerifyOptions, RaisingHelpersRecordThemselves) {
    try {
        req_action_argument_missed("login");
        FAIL() << "no exception";
    } catch (const Exc<&OptParsingError>& e) {
        EXPECT_NE(std::string::npos, e.context().find("req_action_argument_missed"));
        EXPECT_NE(std::string::npos, e.file().find("options.cc"));
    }
    try {
        no_action_option("agent-name", "deploy-agent");
        FAIL() << "no exception";
    } catch (const Exc<&OptParsingError>& e) {
        EXPECT_EQ(kPrefix + "'--agent-name' is required when '--deploy-agent' action is requested",
                  e.message());
    }
}

TEST(ParseOptions, PortIsASigned16BitNumberWithTrailingTextIgnored) {
    const std::vector<std::pair<std::string, int>> cases = {
        {"0", -1},        {"abc", -1},        {"65535", -1},  {"32768", -1},
        {"32767", 32767}, {"22abc", 22},      {"22", 22},     {"-2", -2},
        {"-1", -1},       {"-32768", -32768}, {"-32769", -1}, {"99999999999999999999", -1},
    };
    for (const auto& c : cases) {
        config cfg = parse({"--send-scout", "--port", c.first});
        EXPECT_EQ(c.second, cfg.port) << c.first;
        cfg = parse(join({"--send-scout", "--port=" + c.first}, kConnection));
        cfg.password = "pw";
        const bool rejected = c.second == -1;
        EXPECT_EQ(rejected ? kPrefix + "port should be a number in [1, 65535] range" : "",
                  verify(cfg))
            << c.first;
    }
}

TEST(ParseOptions, EveryFieldFromItsOption) {
    bool accepted = false;
    config cfg = parse({"--ip=first",
                        "--host=second",
                        "extra-word",
                        "--port=2222",
                        "--login=u",
                        "--agent-dir=ad",
                        "--agent-name=an",
                        "--dumps-dir=dd",
                        "--session-path=sp",
                        "--selected-objects-file=sel",
                        "--resellers=r1",
                        "--resellers=r2",
                        "--clients=c",
                        "--domains=d",
                        "--no-content",
                        "--no-compress",
                        "--no-check-space",
                        "--no-encryption",
                        "--verbose",
                        "--only-hosting",
                        "--content-transport=ct",
                        "--dump-all"},
                       &accepted);
    EXPECT_TRUE(accepted);
    EXPECT_EQ(ACTION_DUMP_ALL, cfg.action);
    EXPECT_EQ("second", cfg.host);
    EXPECT_EQ(2222, cfg.port);
    EXPECT_EQ("u", cfg.login);
    EXPECT_EQ("ad", cfg.agentDir);
    EXPECT_EQ("an", cfg.agentName);
    EXPECT_EQ("dd", cfg.dumpsDir);
    EXPECT_EQ("sp", cfg.sessionPath);
    EXPECT_EQ("sel", cfg.selectedObjectsFile);
    EXPECT_EQ("r2", cfg.resellers);
    EXPECT_EQ("c", cfg.clients);
    EXPECT_EQ("d", cfg.domains);
    EXPECT_TRUE(cfg.noContent && cfg.noCheckSpace && cfg.noEncryption && cfg.verbose);
    EXPECT_EQ(COMPRESS_NONE, cfg.compress);
    EXPECT_EQ(FILTER_ONLY_HOSTING, cfg.filter);
    EXPECT_EQ("ct", cfg.contentTransport);
    EXPECT_FALSE(cfg.sudo);
    EXPECT_EQ(FILTER_ONLY_MAIL, parse({"--only-hosting", "--only-mail"}).filter);
    EXPECT_EQ(ACTION_HELP, parse({"-h"}).action);
    EXPECT_EQ(ACTION_REMOVE_DUMPING_STATUS, parse({"--remove-dumping-status"}).action);
}

TEST(ParseOptions, RejectedOptionsReturnFalse) {
    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {"--no-such-option"}, {"--host"}, {"-x"}, {"--help=yes"}}) {
        bool accepted = true;
        ::testing::internal::CaptureStderr();
        parse(args, &accepted);
        EXPECT_FALSE(::testing::internal::GetCapturedStderr().empty()) << args[0];
        EXPECT_FALSE(accepted) << args[0];
    }
}

TEST(ParseOptions, PasswordsFromTheEnvironmentAreRemovedAndMasked) {
    setenv("HMX_PASSWORD", "login-secret", 1);
    setenv("HMX_SUDO_PASSWORD", "sudo-secret", 1);
    config cfg = parse({"--send-scout", "--sudo-password"});
    EXPECT_EQ("login-secret", cfg.password);
    EXPECT_EQ(nullptr, getenv("HMX_PASSWORD"));
    EXPECT_TRUE(cfg.sudo && cfg.sudoPasswordProvided);
    EXPECT_EQ("sudo-secret", cfg.sudoPassword);
    EXPECT_TRUE(is_sudo_password_provided());
    EXPECT_EQ("a *** b ***", maskSecrets("a login-secret b sudo-secret"));
    // The login password was read once; a second parse sees the same one.
    EXPECT_EQ("login-secret", parse({"--send-scout"}).password);
}

TEST(ParseOptions, PasswordMakesRemoveDumpingStatusFail) {
    setenv("HMX_PASSWORD", "pw", 1);
    EXPECT_EQ(kPrefix + "password is not allowed with --help or -h\n",
              verify(parse({"--remove-dumping-status"})));
}

TEST(ParseOptions, EmptySudoPasswordCountsAsProvided) {
    setenv("HMX_SUDO_PASSWORD", "", 1);
    config cfg = parse({"--sudo-password"});
    EXPECT_TRUE(cfg.sudoPasswordProvided);
    EXPECT_TRUE(is_sudo_password_provided());
    unsetenv("HMX_SUDO_PASSWORD");
    EXPECT_FALSE(parse({"--sudo-password"}).sudoPasswordProvided);
}

}  // namespace
}  // namespace tavik
