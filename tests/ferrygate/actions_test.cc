// The seven actions against an in-memory source host: what each sends, in which order it reports
// progress, and which failure each mistake of the source host becomes.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <iostream>
#include <memory>
#include <sstream>

#include "ferrygate/action.h"
#include "ferrygate/dispatch.h"
#include "ssh/shell_quote.h"
#include "support/fake_env.h"
#include "support/log_capture.h"
#include "support/process.h"
#include "support/xml_render.h"

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
for c in sh cd sudo perl rm mkdir chown cat true xargs; do eval "$c() { stub $c \"\$@\"; }"; done
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
            code = e.code();
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
            {ACTION_DUMP_ALL, join({checks,
                                    root(withSudo, {"perl", entry, "--dump-all"}),
                                    take(kDir + "/dump.xml"),
                                    {{"cat", kDir + "/dump.xml"}}})},
            {ACTION_GET_CONTENT, join({checks,
                                       root(withSudo, {"perl", entry, "--get-content-list"}),
                                       {{"cat", "/srv/a b;$(x).tar"}},
                                       root(withSudo, {"xargs", "-0", "rm", "-f", "--"})})},
            {ACTION_REMOVE_AGENT, join({checks, root(withSudo, {"rm", "-rf", kDir})})},
            {ACTION_REMOVE_DUMPING_STATUS, {}},
        };
        for (const auto& row : rows) {
            ActionRun run(row.action, withSudo);
            run.env->remoteFiles[kDir + "/dump.xml"] = "<dump/>";
            run.env->remoteFiles["/srv/a b;$(x).tar"] = "data";
            run.env->answer(
                "--get-content-list",
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

// What the controlling process sees, save by save, while each action runs.
TEST(Actions, ReportProgressInThisOrder) {
    const std::string host = "host:source.example";
    const std::string idle = "migration-status(idle)";
    const std::string agent = "migration-status(agent[action=deploy](" + host + "))";
    const std::string wait = "migration-status(agent[action=wait](" + host + "))";
    // "left,size-left]" of two files and seven bytes, or a whole inner element.
    auto transfer = [&](const std::string& speed, std::string files) {
        const size_t comma = files.find(',');
        if (comma != std::string::npos) {
            files = "files[total=2,left=" + files.substr(0, comma) +
                    ",size-total=7,size-left=" + files.substr(comma + 1);
        }
        return "migration-status(transfer" + speed + "(" + host + "," + files + "))";
    };
    const struct {
        int action;
        std::vector<std::string> saves;
    } rows[] = {
        {ACTION_SEND_SCOUT, {idle, agent, wait, idle}},
        {ACTION_DEPLOY_AGENT, {idle, agent, wait, idle}},
        {ACTION_GET_DUMPING_STATUS, {idle, wait, idle}},
        {ACTION_DUMP_ALL, {idle, wait, idle}},
        {ACTION_GET_CONTENT,
         {idle, transfer("", "dumpfile"), transfer("", "2,7]"),
          transfer("", "2,7](current-file[size=4,size-left=4]:a.tar)"),
          transfer("[speed=0]", "1,3](current-file[size=4,size-left=0]:a.tar)"),
          transfer("[speed=0]", "1,3](current-file[size=3,size-left=3]:b.tar)"),
          transfer("[speed=0]", "0,0](current-file[size=3,size-left=0]:b.tar)"), idle}},
        {ACTION_REMOVE_AGENT, {}},
        {ACTION_REMOVE_DUMPING_STATUS, {idle, idle}},
    };
    for (const auto& row : rows) {
        ActionRun run(row.action);
        run.env->remoteFiles[kDir + "/dump.xml"] = "<dump/>";
        run.env->remoteFiles["/a/a.tar"] = "data";
        run.env->remoteFiles["/b/b.tar"] = "abc";
        run.env->answer("--get-content-list",
                        {0,
                         "<contentlist>"
                         "<file size='4' md5sum='8d777f385d3dfec8815d20f7496026dc'>/a/a.tar</file>"
                         "<file size='3' md5sum='900150983cd24fb0d6963f7d28e17f72'>/b/b.tar</file>"
                         "</contentlist>",
                         "",
                         {}});
        ASSERT_EQ("", run()) << row.action;
        // The last save is the document's own as it closes.
        if (!run.env->statusSaves.empty()) {
            run.env->statusSaves.push_back(
                testing::renderFile(run.env->session().getStatusFileName()));
        }
        EXPECT_EQ(row.saves, run.env->statusSaves) << "action " << row.action;
    }
}

// Which failure each fault of the source host, or of this one, ends an action with.
TEST(Actions, FailWithTheirOwnKindAndExitCode) {
    const std::function<void()> lost = [] { TAVIK_RAISE(SshConnectionFault); };
    const std::string list =
        "<contentlist><file size='5' md5sum='8d777f385d3dfec8815d20f7496026dc'>/a/a.tar</file>"
        "</contentlist>";
    const struct {
        int action;
        bool sudo;
        const char* match;
        FakeEnv::Reply reply;
        const char* code;
        int exitCode;
    } rows[] = {
        {ACTION_SEND_SCOUT, false, "perl", {3, "", "no perl", {}}, "FailedToExecuteScout", 2},
        {ACTION_SEND_SCOUT, true, "sudo -V", {127, "", "", {}}, "SudoNotFound", 2},
        {ACTION_SEND_SCOUT, true, "true", {1, "", "", {}}, "SudoNotAllowed", 2},
        {ACTION_SEND_SCOUT, true, "sudo -V", {0, "", "", lost}, "SshConnectionFault", 18},
        {ACTION_DEPLOY_AGENT, false, "mkdir", {1, "", "", {}}, "CantCreateAgentDirectory", 2},
        {ACTION_DEPLOY_AGENT, false, "--get-status", {2, "", "", {}}, "CantRequestAgentStatus", 2},
        {ACTION_GET_DUMPING_STATUS, false, "cat", {0, "", "", lost}, "DumpStatusError", 2},
        {ACTION_DUMP_ALL, false, "--dump-all", {1, "", "", {}}, "CantRetrieveDumpFile", 2},
        {ACTION_DUMP_ALL, false, "dump.xml", {1, "", "gone", {}}, "CantRetrieveDumpFile", 2},
        {ACTION_DUMP_ALL, true, "chown", {1, "", "", {}}, "CantTakeFileOwnership", 2},
        {ACTION_GET_CONTENT,
         false,
         "--get-content-list",
         {1, "", "", {}},
         "CantRetrieveContentList",
         2},
        {ACTION_GET_CONTENT,
         false,
         "--get-content-list",
         {0, "<contentlist><file/>", "", {}},
         "CantRetrieveContentList",
         2},
        {ACTION_GET_CONTENT, false, "a.tar", {0, "", "", lost}, "SshConnectionFault", 18},
        {ACTION_GET_CONTENT, false, "cat /a/a.tar", {0, "short", "", {}}, "WrongMd5Sum", 2},
        {ACTION_REMOVE_AGENT, true, "rm -rf", {0, "", "", lost}, "", 0},
    };
    for (const auto& row : rows) {
        ActionRun run(row.action, row.sudo);
        run.env->remoteFiles[kDir + "/dump.xml"] = "<dump/>";
        run.env->remoteFiles["/a/a.tar"] = "data!";
        run.env->answer(row.match, row.reply);
        if (row.action == ACTION_GET_CONTENT)
            run.env->answer("--get-content-list", {0, list, "", {}});
        EXPECT_EQ(row.code, run()) << row.action << " " << row.match;
        EXPECT_EQ(row.exitCode, run.exitCode) << row.action << " " << row.match;
        EXPECT_TRUE(run.env->deleted.empty()) << "a source was deleted";
    }
    // Nothing is fetched when the space is short, nor without an agent to ask.
    ActionRun content(ACTION_GET_CONTENT);
    content.env->answer("--get-content-list", {0, list, "", {}});
    content.env->free = 4;
    EXPECT_EQ("NotEnoughSpace", content());
    ActionRun dump(ACTION_DUMP_ALL);
    dump.env->cfg.agentName = "missing";
    EXPECT_EQ("CantRetrieveDump", dump());
    EXPECT_TRUE(dump.env->commands().empty());
}

// A source is deleted only once its copy matches the listed sum; a copy an earlier run left is
// finished or continued, never trusted blindly.
TEST(Actions, ContentIsVerifiedResumedAndOnlyThenDeleted) {
    const std::string sumOfData = "8d777f385d3dfec8815d20f7496026dc";
    const struct {
        const char* name;
        const char* here;  // the local copy before the run, "-" for none
        int64_t listedSize;
        const char* code;
        std::vector<std::string> fetches;
        const char* after;  // the local copy after the run
        bool deleted;
    } rows[] = {
        {"fresh", "-", 4, "", {"cat /a/x.tar"}, "data", true},
        {"finished earlier", "data", 4, "", {}, "data", false},
        {"partial", "da", 4, "", {"tail -c +3 /a/x.tar"}, "data", true},
        {"stale partial", "xa", 4, "", {"tail -c +3 /a/x.tar", "cat /a/x.tar"}, "data", true},
        {"longer than listed", "datax", 4, "", {"cat /a/x.tar"}, "data", true},
        {"listed size wrong, sum right", "-", 9, "", {"cat /a/x.tar"}, "data", true},
        {"changed on the source",
         "-",
         4,
         "WrongMd5Sum",
         {"cat /a/x.tar", "cat /a/x.tar"},
         "-",
         false},
    };
    for (const auto& row : rows) {
        ActionRun run(ACTION_GET_CONTENT);
        const std::string local = run.env->session().getCidFilesDir() + "/x.tar";
        if (std::string(row.here) != "-") testing::writeTextFile(local, row.here);
        const bool changed = std::string(row.code) == "WrongMd5Sum";
        run.env->remoteFiles["/a/x.tar"] = changed ? "dada" : "data";
        run.env->answer("--get-content-list",
                        {0,
                         "<contentlist><file size='" + std::to_string(row.listedSize) +
                             "' md5sum='" + sumOfData + "'>/a/x.tar</file></contentlist>",
                         "",
                         {}});
        EXPECT_EQ(row.code, run()) << row.name;
        std::vector<std::string> fetches;
        for (const std::string& line : run.env->commands()) {
            if (line.find("x.tar") != std::string::npos) fetches.push_back(line);
        }
        const bool deleted = run.env->deleted == std::vector<std::string>{"/a/x.tar"};
        EXPECT_EQ(row.fetches, fetches) << row.name;
        EXPECT_EQ(row.deleted, deleted) << row.name;
        const std::string after = testing::readFile(local);
        EXPECT_EQ(row.after, after.empty() ? "-" : after) << row.name;
        if (changed) {
            EXPECT_EQ("dada", testing::readFile(local + ".rejected"));
        }
    }
}

// Small files travel together in one command; a size the list got wrong cuts every later part
// wrong, and each such part is fetched again alone, so that all arrive whole.
TEST(Actions, FilesFetchedTogetherFallBackToOneByOne) {
    ActionRun run(ACTION_GET_CONTENT);
    run.env->remoteFiles = {{"/a/1", "data"}, {"/a/2", "abc"}, {"/a/3", "data"}};
    run.env->answer("--get-content-list",
                    {0,
                     "<contentlist>"
                     "<file size='4' md5sum='8d777f385d3dfec8815d20f7496026dc'>/a/1</file>"
                     "<file size='2' md5sum='900150983cd24fb0d6963f7d28e17f72'>/a/2</file>"
                     "<file size='4' md5sum='8d777f385d3dfec8815d20f7496026dc'>/a/3</file>"
                     "</contentlist>",
                     "",
                     {}});
    ASSERT_EQ("", run());
    std::vector<std::string> fetches;
    for (const auto& line : run.env->commands()) {
        if (line.find("cat") == 0 || line.find("xargs -0 cat") == 0) fetches.push_back(line);
    }
    EXPECT_EQ((std::vector<std::string>{"xargs -0 cat --", "cat /a/2", "cat /a/3"}), fetches);
    const std::string dir = run.env->session().getCidFilesDir();
    EXPECT_EQ("data", testing::readFile(dir + "/1"));
    EXPECT_EQ("abc", testing::readFile(dir + "/2"));
    EXPECT_EQ("data", testing::readFile(dir + "/3"));
    EXPECT_EQ((std::vector<std::string>{"/a/1", "/a/2", "/a/3"}), run.env->deleted);
}

// Standard input carries sudo's password and, for rsync, the login's, each as a line of its own:
// the source host gets them, the log gets them masked, however short they are.
TEST(Actions, PasswordLinesOfTheInputAreMaskedWhereTheInputIsLogged) {
    ActionRun run(ACTION_DUMP_ALL, true);
    run.env->cfg.sudoPassword = "p";
    run.env->cfg.password = "1";
    run.env->cfg.contentTransport = "rsync";
    run.env->cfg.host = "h1";
    run.env->cfg.login = "pp";
    run.env->remoteFiles[kDir + "/dump.xml"] = "<dump/>";
    testing::LogCapture log("p.Action");
    ASSERT_EQ("", run());
    const auto dump = std::find_if(run.env->calls.begin(), run.env->calls.end(), [](auto& call) {
        return call.command.find("--dump-all") != std::string::npos;
    });
    ASSERT_NE(run.env->calls.end(), dump);
    EXPECT_EQ("p\nh1\npp\n1\n0\n", dump->input);
    EXPECT_NE(std::string::npos, log.text().find("remote stdin <- ***\nh1\npp\n***\n0\n"))
        << log.text();
}

// Lists that would lose a file or exhaust this host are refused before anything moves: two
// sources sharing one local copy, and an entity that would expand to a gigabyte.
TEST(Actions, HostileContentListsAreRefusedBeforeAnythingMoves) {
    std::string flat = "<!DOCTYPE contentlist [<!ENTITY e \"" + std::string(100 * 1024, 'x') +
                       "\">]><contentlist><file size='1' md5sum='x'>";
    for (int i = 0; i < 10000; ++i) flat += "&e;";
    for (const std::string& list :
         {std::string("<contentlist><file size='1' md5sum='x'>/a/site.tar</file>"
                      "<file size='1' md5sum='y'>/b/site.tar</file></contentlist>"),
          flat + "</file></contentlist>"}) {
        ActionRun run(ACTION_GET_CONTENT);
        run.env->answer("--get-content-list", {0, list, "", {}});
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ("CantRetrieveContentList", run());
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
        EXPECT_EQ(1u, run.env->commands().size());
        EXPECT_TRUE(run.env->deleted.empty());
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
            withSudo ? std::vector<std::string>{"sudo", "-S", "-p", " "}
                     : std::vector<std::string>{};
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
        const std::string ask =
            "cd " + sh_quote(kDir) + " && perl " + sh_quote(kDir + "/run.pl") + " --get-status";
        if (withSudo) {
            for (const auto& c : root({"sh", "-c", ask})) expected.push_back(c);
        } else {
            for (const auto& c :
                 Commands{{"cd", kDir}, {"cd", kDir}, {"perl", kDir + "/run.pl", "--get-status"}}) {
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
