// The seven actions against an in-memory source host: what each sends, in which order it reports
// progress, and which failure each mistake of the source host becomes.
#include <gtest/gtest.h>

#include <iostream>
#include <memory>
#include <sstream>

#include "ferrygate/action.h"
#include "ferrygate/dispatch.h"
#include "support/fake_env.h"
#include "ssh/shell_quote.h"
#include "support/process.h"

namespace tavik {
namespace {

using testing::FakeEnv;
typedef std::vector<std::vector<std::string>> Commands;

// A name no shell may split, expand or run.
const std::string kDir = "my agents; $(echo pwned) `id` 'q'\n";

// The simple commands, each as its words, that the shell runs for `line`: every command it could
// run is a stub that prints its words, and "sh -c" is opened up one level.
Commands commandsOf(const std::string& line) {
    const char* stubs = R"(stub() { printf '%s\037' "$@"; printf '\036'; }
for c in sh cd sudo perl rm mkdir chown cat true; do eval "$c() { stub $c \"\$@\"; }"; done
eval "$1")";
    const std::string out = test::runProcess({"/bin/sh", "-c", stubs, "sh", line}).out;
    Commands commands(1);
    std::string word;
    for (char c : out) {
        if (c == '\037') {
            commands.back().push_back(word);
            word.clear();
        } else if (c == '\036') {
            commands.emplace_back();
        } else {
            word += c;
        }
    }
    commands.pop_back();
    Commands opened;
    for (const auto& words : commands) {
        if (words.size() == 3 && words[0] == "sh" && words[1] == "-c") {
            for (const auto& inner : commandsOf(words[2])) opened.push_back(inner);
        } else {
            opened.push_back(words);
        }
    }
    return opened;
}

struct ActionRun {
    std::unique_ptr<FakeEnv> env{new FakeEnv};
    std::string stdoutText;

    explicit ActionRun(int action, bool sudo = false) {
        env->cfg.action = action;
        env->cfg.agentDir = kDir;
        env->cfg.sudo = sudo;
        env->cfg.sudoPasswordProvided = sudo;
        env->cfg.sudoPassword = sudo ? "sudo-secret" : "";
    }
    // Runs the action as the driver does; the failure's code, or "" on success.
    std::string operator()() {
        std::ostringstream captured;
        std::streambuf* saved = std::cout.rdbuf(captured.rdbuf());
        std::string code;
        try {
            std::unique_ptr<Action> action(getActionByIdInternal(env->cfg, *env));
            action->setConfig(&env->cfg);
            action->execute();
            action->closeStatus();
        } catch (const ExTraceable& e) {
            code = static_cast<const std::runtime_error&>(e).what();
            exitCode = exitCodeOf(e);
        }
        std::cout.rdbuf(saved);
        stdoutText = captured.str();
        return code;
    }
    Commands sent() const {
        Commands all;
        for (const std::string& line : env->commands()) {
            // An upload is never handed to the shell here: its redirection would write the file.
        const bool upload = line.compare(0, 6, "cat > ") == 0;
        for (auto words : commandsOf(upload ? "cat " + line.substr(6) : line)) {
            if (upload) words[0] = "cat>";
            all.push_back(words);
        }
        }
        return all;
    }
    int exitCode = 0;
};

const Commands kSudoChecks = {{"sudo", "-V"}, {"sudo", "-k"}, {"sudo", "-S", "-p", " ", "true"}};

// Every line as the shell reads it, with and without sudo; the agent directory is a name that
// any lost quoting would split, expand or run.
TEST(Actions, SendExactlyTheseCommandsWithAndWithoutSudo) {
    const std::vector<std::string> sudo = {"sudo", "-S", "-p", " "};
    auto root = [&](bool withSudo, std::vector<std::string> words) {
        Commands c = {{"cd", kDir}};
        if (withSudo) {
            c.push_back({"sudo", "-k"});
            words.insert(words.begin(), sudo.begin(), sudo.end());
        }
        c.push_back(words);
        return c;
    };
    auto join = [](std::initializer_list<Commands> parts) {
        Commands all;
        for (const auto& p : parts) all.insert(all.end(), p.begin(), p.end());
        return all;
    };
    const std::string entry = kDir + "/run.pl";
    const std::string status = kDir + "/dumping-status.xml";
    for (bool withSudo : {false, true}) {
        const Commands checks = withSudo ? kSudoChecks : Commands();
        auto take = [&](const std::string& path) {
            return withSudo ? root(true, {"chown", "mover", path}) : Commands();
        };
        const struct {
            int action;
            Commands expected;
        } rows[] = {
            {ACTION_SEND_SCOUT, join({checks, root(withSudo, {"perl"})})},
            {ACTION_GET_DUMPING_STATUS, join({checks, take(status), {{"cat", status}}})},
            {ACTION_DUMP_ALL,
             join({checks, root(withSudo, {"perl", entry, "--dump-all"}),
                   take(kDir + "/dump.xml"), {{"cat", kDir + "/dump.xml"}}})},
            {ACTION_GET_CONTENT,
             join({checks, root(withSudo, {"perl", entry, "--get-content-list"}),
                   {{"cat", "/srv/a b;$(x).tar"}}, root(withSudo, {"rm", "/srv/a b;$(x).tar"})})},
            {ACTION_REMOVE_AGENT, join({checks, root(withSudo, {"rm", "-rf", kDir})})},
            {ACTION_REMOVE_DUMPING_STATUS, {}},
        };
        for (const auto& row : rows) {
            ActionRun run(row.action, withSudo);
            run.env->remoteFiles[kDir + "/dump.xml"] = "<dump/>";
            run.env->remoteFiles["/srv/a b;$(x).tar"] = "data";
            run.env->answer("--get-content-list",
                            {0,
                             "<contentlist><file size='4' md5sum='8d777f385d3dfec8815d20f7496026dc'>"
                             "/srv/a b;$(x).tar</file></contentlist>",
                             "",
                             {}});
            ASSERT_EQ("", run()) << row.action;
            EXPECT_EQ(row.expected, run.sent()) << "action " << row.action << " sudo " << withSudo;
        }
    }
}

// Each tree is walked onto the agent directory: directories made and given to the login, files
// uploaded, the control directory kept home; then the agent is asked for its status.
TEST(Actions, DeploymentUploadsTheTreesAndAsksTheAgent) {
    for (bool withSudo : {false, true}) {
        ActionRun run(ACTION_DEPLOY_AGENT, withSudo);
        run.env->answer("--get-status", {0, "<agentstatus/>", "", {}});
        ASSERT_EQ("", run());
        const std::vector<std::string> sudo =
            withSudo ? std::vector<std::string>{"sudo", "-S", "-p", " "} : std::vector<std::string>{};
        auto root = [&](std::vector<std::string> words) {
            Commands c = {{"cd", kDir}};
            if (withSudo) c.push_back({"sudo", "-k"});
            words.insert(words.begin(), sudo.begin(), sudo.end());
            c.push_back(words);
            return c;
        };
        Commands expected = withSudo ? kSudoChecks : Commands();
        for (const char* file : {"/Shared.pm", "/run.pl"}) {
            for (const auto& c : root({"mkdir", "-p", kDir})) expected.push_back(c);
            for (const auto& c : root({"chown", "mover", kDir})) expected.push_back(c);
            expected.push_back({"cat>", kDir + file});
        }
        const std::string ask = "cd " + sh_quote(kDir) + " && perl " + sh_quote(kDir + "/run.pl") +
                                " --get-status";
        if (withSudo) {
            for (const auto& c : root({"sh", "-c", ask})) expected.push_back(c);
        } else {
            for (const auto& c : Commands{{"cd", kDir}, {"cd", kDir}, {"perl", kDir + "/run.pl",
                                                                          "--get-status"}}) {
                expected.push_back(c);
            }
        }
        EXPECT_EQ(expected, run.sent()) << "sudo " << withSudo;
        EXPECT_EQ("1;\n", run.env->remoteFiles[sh_quote(kDir + "/Shared.pm")]);
        EXPECT_EQ("<agentstatus/>",
                  testing::readFile(run.env->session().getDeploymentStatusFileName()));
    }
}

}  // namespace
}  // namespace tavik
