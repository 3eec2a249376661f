#include "ferrygate/options.h"

#include <gtest/gtest.h>

#include <boost/algorithm/string.hpp>
#include <cstdlib>
#include <string>
#include <vector>

#include "commons/exceptions.h"
#include "ferrygate/dump_options.h"
#include "support/sandbox_env.h"

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

// The message verification raises for `line`, or "" when the options are accepted.
std::string verify(const std::string& line, bool password = true) {
    config cfg = parse(line);
    if (password) cfg.password = "pw";
    try {
        verify_options(&cfg);
        return "";
    } catch (const Exc<&OptParsingError>& e) {
        return e.what();
    }
}

// Which rule speaks first, and that every action gets what it needs and nothing it would ignore.
TEST(Options, VerificationRulesInOrder) {
    const std::string missed = " is required unless --help or -h requested\n";
    const std::string notAllowed = " is not allowed with --help or -h\n";
    const std::string extra = "' only may be specified when '--";
    const std::string scout = "--send-scout --host=h --login=l";
    const std::string port = "port should be a number in [1, 65535] range";
    const struct {
        std::string line;
        bool password;  // whether HMX_PASSWORD had given one
        std::string message;
    } cases[] = {
        {"", true, "No action given"},
        {"-h --remove-dumping-status --no-check-space", true, "More than one action is given"},
        {"--dump-all --no-check-space --no-content", true,
         "'--no-check-space" + extra + "get-content' is requested"},
        {"--get-content --no-content", true, "'--no-content" + extra + "dump-*' is requested"},
        {"--get-content --no-check-space --no-encryption --host=h --login=l --agent-dir=d "
         "--agent-name=n",
         true, ""},
        {"--remove-dumping-status", false, ""},
        {"--remove-dumping-status --host=h --port=0", false, "host" + notAllowed},
        {"--remove-dumping-status --agent-name=n", true, "password" + notAllowed},
        {"--send-scout --login=l --port=0", true, "host" + missed},
        {"--send-scout --host=h", true, "login" + missed},
        {scout, false, "password" + missed},
        {scout + " --sudo-password", true,
         "HMX_SUDO_PASSWORD environment variable is not provided with --sudo-password\n"},
        {scout + " --agent-dir=d --agent-name=n", true, "agent directory" + notAllowed},
        {"--remove-agent --host=h --login=l --agent-dir=d", true, "agent name" + missed},
        {"--get-dumping-status --host=h --login=l", true, "agent directory" + missed},
        // The port is a signed 16-bit number with trailing text ignored; 0 is refused too.
        {scout + " --port=32767", true, ""},
        {scout + " --port=22abc", true, ""},
        {scout + " --port=32768", true, port},
        {scout + " --port=0", true, port},
        {scout + " --host-key=SHA256:" + std::string(42, 'a') + "=", true,
         "--host-key takes SHA256: and 43 base64 characters, as ssh-keygen -l shows"},
    };
    unsetenv("HMX_PASSWORD");
    unsetenv("HMX_SUDO_PASSWORD");
    for (const auto& c : cases) {
        EXPECT_EQ(c.message.empty() ? "" : "Unable to parse command line: " + c.message,
                  verify(c.line, c.password))
            << c.line;
    }
    EXPECT_EQ(22, parse("--port=22abc").port);
    EXPECT_EQ("second", parse("--ip=first --host=second").host);  // the obsolete alias
}

// The agent's arguments for a dump, in order, then "|" and its input lines.
std::string dumpArguments(const config& cfg) {
    std::vector<std::string> args;
    std::string input, all;
    prepareDumpAgentArguments(cfg, args, input);
    for (const std::string& arg : args) all += arg + " ";
    return all + "| " + input;
}

// The selection file comes first, in the file format's own spellings; the command line adds to
// its lists and overrides its parameters; a dump of everything ignores every selection.
TEST(Options, DumpSelectionFromTheFileAndTheCommandLine) {
    testing::ScratchDir dir;
    config cfg;
    cfg.action = ACTION_DUMP_SELECTED;
    cfg.selectedObjectsFile = dir.path() + "/selected.xml";
    testing::writeTextFile(
        cfg.selectedObjectsFile,
        "<selection><parameters filter=\"only-phosting\" compression-level=\"do-not-compress\"/>"
        "<reseller><name>r1</name><client><name>c1</name><domain><name>d1</name></domain></client>"
        "</reseller><domain><name>d2</name></domain><domain><name></name></domain></selection>");
    cfg.domains = "x";
    cfg.resellers = "r2,r3";
    EXPECT_EQ(
        "--dump-domains=- --dump-clients=- --dump-resellers=- --only-hosting --no-compress "
        "--include-app-distrib | d1,d2,x\nc1\nr1,r2,r3",
        dumpArguments(cfg));
    cfg.filter = FILTER_ONLY_MAIL;
    EXPECT_NE(std::string::npos,
              dumpArguments(cfg).find("--dump-resellers=- --only-mail --no-compress"));
    cfg.action = ACTION_DUMP_ALL;
    EXPECT_EQ("--dump-all | ", dumpArguments(cfg));

    // A list not given has neither an argument nor a line.
    cfg = config();
    cfg.action = ACTION_DUMP_SELECTED;
    cfg.clients = "c";
    cfg.resellers = "r";
    EXPECT_EQ("--dump-clients=- --dump-resellers=- --include-app-distrib | c\nr",
              dumpArguments(cfg));
}

}  // namespace
}  // namespace tavik
