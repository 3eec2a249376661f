// The seven actions against an in-memory source host: what each sends, in which order it reports
// progress, and which failure each mistake of the source host becomes.
#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>
#include <map>
#include <memory>
#include <sstream>

#include "ferrygate/action.h"
#include "ferrygate/dispatch.h"
#include "ferrygate/env.h"
#include "ferrygate/session.h"
#include "ssh/shell_quote.h"
#include "support/process.h"
#include "support/sandbox_env.h"
#include "xml/agent_file_list.h"

namespace tavik {
namespace {

typedef std::vector<std::vector<std::string>> Commands;

// A name no shell may split, expand or run.
const std::string kDir = "my agents; $(echo pwned) `id` 'q'\n";
const std::string kFile = "/srv/a b;$(x).tar";
const std::string kSumOfData = "8d777f385d3dfec8815d20f7496026dc";

// The simple commands, each as its words, that the shell runs for `line`: every command it could
// run is a stub that prints its words, and "sh -c" is opened up one level.
Commands commandsOf(const std::string& line) {
    const char* stubs = R"(stub() { printf '%s\037' "$@"; printf '\036'; }
for c in sh cd sudo perl rm mkdir chown cat true xargs wc; do eval "$c() { stub $c \"\$@\"; }"; done
eval "$1")";
    std::istringstream out(test::runProcess({"/bin/sh", "-c", stubs, "sh", line}).out);
    Commands commands;
    for (std::string command; std::getline(out, command, '\036');) {
        std::vector<std::string> words;
        std::istringstream in(command);
        for (std::string word; std::getline(in, word, '\037');) words.push_back(word);
        if (words.size() == 3 && words[0] == "sh" && words[1] == "-c") {
            for (const auto& inner : commandsOf(words[2])) commands.push_back(inner);
        } else {
            commands.push_back(words);
        }
    }
    return commands;
}

// Every migration status document as it is saved, rendered (renderFile).
class RecordingStatus : public XmlMigrationStatus {
  public:
    RecordingStatus(const std::string& file, std::vector<std::string>& saves)
        : XmlMigrationStatus(file, {getuid(), getgid()}), file_(file), saves_(saves) {}
    ~RecordingStatus() noexcept(false) override {}
    void saveFile() override {
        XmlMigrationStatus::saveFile();
        saves_.push_back(testing::renderFile(file_));
    }

  private:
    std::string file_;
    std::vector<std::string>& saves_;
};

struct RunFiles {
    // A session, an agent "fake" (entry point run.pl, shared files beside it) and a scout.
    RunFiles() : sessionFiles(dir.path() + "/session") {
        testing::writeTextFile(dir.path() + "/agents/shared/Shared.pm", "1;\n");
        testing::writeTextFile(dir.path() + "/agents/fake/control/spec", "EntryPoint: run.pl\n");
        testing::writeTextFile(dir.path() + "/agents/fake/run.pl", "print 1;\n");
        testing::writeTextFile(dir.path() + "/scout.pl", "print 'scout';\n");
    }
    testing::ScratchDir dir;
    SessionFiles sessionFiles;
};

// One action run against a source host that is a table of answers and records every command
// line; this host's files live in a scratch directory.
class ActionRun : private RunFiles, public Env {
  public:
    struct Reply {
        int status;
        std::string out = "";
        // Runs before the reply, in the middle of the command (a lost connection, say).
        std::function<void()> during = {};
    };
    // A source host with a dump and one content file listed, which a test may change.
    explicit ActionRun(int action, bool sudo = false) : Env(sessionFiles) {
        cfg.host = "source.example";
        cfg.login = "mover";
        cfg.password = "login-secret";
        cfg.agentName = "fake";
        cfg.sessionPath = session().getDir();
        cfg.action = action;
        cfg.agentDir = kDir;
        cfg.sudo = sudo;
        cfg.sudoPasswordProvided = sudo;
        cfg.sudoPassword = sudo ? "sudo-secret" : "";
        remoteFiles = {{kDir + "/dump.xml", "<dump/>"}, {kFile, "data"}};
        list({{kFile, 4, kSumOfData}});
        answer("--get-status", {0, "<agentstatus/>"});
    }

    // The newest rule whose text occurs in a command line answers it. Without one, "cat",
    // "tail -c +N", "cat >", "xargs -0 cat" and "xargs -0 rm" read and write `remoteFiles`
    // (sudo takes the first line of input), and any other command succeeds silently.
    void answer(const std::string& match, Reply reply) {
        rules_.insert(rules_.begin(), {match, reply});
    }
    // The content list the agent answers with.
    void list(const std::vector<DumpFile>& files) {
        std::string xml = "<contentlist>";
        for (const DumpFile& f : files) {
            xml += "<file size='" + std::to_string(f.size) + "' md5sum='" + f.md5 + "'>" + f.name +
                   "</file>";
        }
        answer("--get-content-list", {0, xml + "</contentlist>"});
    }
    // Runs the action as the driver does; the failure's code, or "" on success.
    std::string operator()() {
        try {
            std::unique_ptr<Action> action(getActionByIdInternal(cfg, *this));
            action->setConfig(&cfg);
            action->execute();
            action->closeStatus();
        } catch (const ExTraceable& e) {
            exitCode = exitCodeOf(e);
            return e.code();
        }
        return "";
    }
    // The commands sent, word by word as the shell reads them.
    Commands sent() const {
        Commands all;
        for (const std::string& line : commands) {
            // An upload is never handed to the shell here: its redirection would write the file.
            const bool upload = line.compare(0, 6, "cat > ") == 0;
            for (auto words : commandsOf(upload ? "cat " + line.substr(6) : line)) {
                if (upload) words[0] = "cat>";
                all.push_back(words);
            }
        }
        return all;
    }
    // The command lines that name `what`.
    std::vector<std::string> naming(const std::string& what) const {
        std::vector<std::string> lines;
        for (const std::string& line : commands) {
            if (line.find(what) != std::string::npos) lines.push_back(line);
        }
        return lines;
    }
    config cfg;
    std::map<std::string, std::string> remoteFiles;  // by path; uploads by the quoted path
    std::vector<std::string> commands;
    std::vector<std::string> deleted;  // remote files, in order
    std::vector<std::string> statusSaves;
    int exitCode = 0;

    int exec(const std::string& command, std::istream& in, std::ostream& out, std::ostream&, bool,
             bool, Ssh::Counter& counter) override {
        commands.push_back(command);
        std::ostringstream input;
        if (in.rdbuf() != nullptr) input << in.rdbuf();
        const auto reply = [&](int status, const std::string& text) {
            counter(static_cast<int>(text.size()));
            out << text;
            return status;
        };
        for (const auto& rule : rules_) {
            if (command.find(rule.first) == std::string::npos) continue;
            if (rule.second.during) rule.second.during();
            return reply(rule.second.status, rule.second.out);
        }
        if (command.compare(0, 6, "cat > ") == 0) {
            remoteFiles[command.substr(6)] = input.str();
            return 0;
        }
        std::string data = input.str();
        if (command.find("sudo -S") != std::string::npos) data.erase(0, data.find('\n') + 1);
        std::vector<std::string> names;  // what "xargs -0" reads
        std::istringstream listed(data);
        for (std::string name; std::getline(listed, name, '\0');) names.push_back(name);
        if (command.find(sh_quote("xargs -0 rm -f --")) != std::string::npos) {
            for (const std::string& name : names) {
                remoteFiles.erase(name);
                deleted.push_back(name);
            }
            return 0;
        }
        if (command == "xargs -0 cat --") {
            int status = 0;
            for (const std::string& name : names) {
                const auto file = remoteFiles.find(name);
                status = file == remoteFiles.end() ? 123 : reply(status, file->second);
            }
            return status;
        }
        size_t from = 0;
        std::string quoted;
        if (command.compare(0, 9, "tail -c +") == 0) {
            from = std::stoul(command.substr(9)) - 1;
            quoted = command.substr(command.find(' ', 9) + 1);
        } else if (command.compare(0, 4, "cat ") == 0) {
            quoted = command.substr(4);
        } else if (command.compare(0, 9, "wc -c -- ") == 0) {
            for (const auto& file : remoteFiles) {
                if (sh_quote(file.first) == command.substr(9)) {
                    return reply(0, std::to_string(file.second.size()) + " " + file.first + "\n");
                }
            }
            return 1;
        } else {
            return 0;
        }
        for (const auto& file : remoteFiles) {
            if (sh_quote(file.first) != quoted) continue;
            return reply(0, from < file.second.size() ? file.second.substr(from) : "");
        }
        return 1;
    }
    void setAlarm(Alarm*) override {}
    std::string agentsDir() const override { return dir.path() + "/agents"; }
    std::string scoutFile() const override { return dir.path() + "/scout.pl"; }
    FileOwner adminOwner() const override { return FileOwner{getuid(), getgid()}; }
    uint64_t freeSpace(const std::string&) const override { return UINT64_MAX; }
    MigrationStatusPtr createStatus() override {
        return MigrationStatusPtr(new RecordingStatus(session().getStatusFileName(), statusSaves));
    }

  private:
    std::vector<std::pair<std::string, Reply>> rules_;
};

const Commands kSudoChecks = {{"sudo", "-V"}, {"sudo", "-k"}, {"sudo", "-S", "-p", " ", "true"}};

// The commands of `words` run as root: after the change into the agent directory, through sudo
// when `sudo`.
Commands root(bool sudo, std::vector<std::string> words) {
    Commands c = {{"cd", kDir}};
    if (sudo) {
        c.push_back({"sudo", "-k"});
        words.insert(words.begin(), {"sudo", "-S", "-p", " "});
    }
    c.push_back(words);
    return c;
}

Commands join(std::initializer_list<Commands> parts) {
    Commands all;
    for (const auto& p : parts) all.insert(all.end(), p.begin(), p.end());
    return all;
}

// Every line as the shell reads it, with and without sudo; the agent directory is a name that
// any lost quoting would split, expand or run. Deployment walks both trees onto the agent
// directory (directories made and given to the login, files uploaded, control/ kept home), then
// asks the agent for its status.
TEST(Actions, SendExactlyTheseCommandsWithAndWithoutSudo) {
    const std::string entry = kDir + "/run.pl";
    const std::string status = kDir + "/dumping-status.xml";
    const std::string ask =
        "cd " + sh_quote(kDir) + " && perl " + sh_quote(entry) + " --get-status";
    for (bool sudo : {false, true}) {
        const Commands checks = sudo ? kSudoChecks : Commands();
        const Commands take = sudo ? root(true, {"chown", "mover", status}) : Commands();
        const Commands takeDump =
            sudo ? root(true, {"chown", "mover", kDir + "/dump.xml"}) : Commands();
        const Commands makeDir =
            join({root(sudo, {"mkdir", "-p", kDir}), root(sudo, {"chown", "mover", kDir})});
        const struct {
            int action;
            Commands expected;
        } rows[] = {
            {ACTION_SEND_SCOUT, join({checks, root(sudo, {"perl"})})},
            {ACTION_DEPLOY_AGENT,
             join({checks,
                   makeDir,
                   {{"cat>", kDir + "/Shared.pm"}},
                   makeDir,
                   {{"cat>", kDir + "/run.pl"}},
                   sudo ? root(true, {"sh", "-c", ask})
                        : Commands{{"cd", kDir}, {"cd", kDir}, {"perl", entry, "--get-status"}}})},
            {ACTION_GET_DUMPING_STATUS, join({checks, take, {{"cat", status}}})},
            {ACTION_DUMP_ALL, join({checks,
                                    root(sudo, {"perl", entry, "--dump-all"}),
                                    takeDump,
                                    {{"cat", kDir + "/dump.xml"}},
                                    {{"wc", "-c", "--", kDir + "/dump.xml"}}})},
            {ACTION_GET_CONTENT, join({checks,
                                       root(sudo, {"perl", entry, "--get-content-list"}),
                                       {{"cat", kFile}},
                                       root(sudo, {"xargs", "-0", "rm", "-f", "--"})})},
            {ACTION_REMOVE_AGENT, join({checks, root(sudo, {"rm", "-rf", kDir})})},
            {ACTION_REMOVE_DUMPING_STATUS, {}},
        };
        for (const auto& row : rows) {
            ActionRun run(row.action, sudo);
            ASSERT_EQ("", run()) << row.action;
            EXPECT_EQ(row.expected, run.sent()) << "action " << row.action << " sudo " << sudo;
            if (row.action != ACTION_DEPLOY_AGENT) continue;
            EXPECT_EQ("1;\n", run.remoteFiles[sh_quote(kDir + "/Shared.pm")]);
            EXPECT_EQ("<agentstatus/>",
                      testing::readFile(run.session().getDeploymentStatusFileName()));
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
        run.remoteFiles["/a/a.tar"] = "data";
        run.remoteFiles["/b/b.tar"] = "abc";
        run.list(
            {{"/a/a.tar", 4, kSumOfData}, {"/b/b.tar", 3, "900150983cd24fb0d6963f7d28e17f72"}});
        ASSERT_EQ("", run()) << row.action;
        // The last save is the document's own as it closes.
        if (!run.statusSaves.empty()) {
            run.statusSaves.push_back(testing::renderFile(run.session().getStatusFileName()));
        }
        EXPECT_EQ(row.saves, run.statusSaves) << "action " << row.action;
    }
}

// Which failure each fault of the source host, or of this one, ends an action with; no source
// is ever deleted on the way.
TEST(Actions, FailWithTheirOwnKindAndExitCode) {
    const std::function<void()> lost = [] { TAVIK_RAISE(SshConnectionFault); };
    const std::string twoX =
        "<contentlist><file size='1' md5sum='x'>/a/x</file>"
        "<file size='1' md5sum='y'>/b/x</file></contentlist>";
    const struct {
        int action;
        bool sudo;
        const char* match;
        ActionRun::Reply reply;
        const char* code;
        int exitCode;
    } rows[] = {
        {ACTION_SEND_SCOUT, false, "perl", {3}, "FailedToExecuteScout", 2},
        {ACTION_SEND_SCOUT, true, "sudo -V", {127}, "SudoNotFound", 2},
        {ACTION_SEND_SCOUT, true, "true", {1}, "SudoNotAllowed", 2},
        {ACTION_SEND_SCOUT, true, "sudo -V", {0, "", lost}, "SshConnectionFault", 18},
        {ACTION_DEPLOY_AGENT, false, "mkdir", {1}, "CantCreateAgentDirectory", 2},
        {ACTION_DEPLOY_AGENT, false, "--get-status", {2}, "CantRequestAgentStatus", 2},
        {ACTION_GET_DUMPING_STATUS, false, "cat", {0, "", lost}, "DumpStatusError", 2},
        {ACTION_DUMP_ALL, false, "--dump-all", {1}, "CantRetrieveDumpFile", 2},
        {ACTION_DUMP_ALL, false, "dump.xml", {1}, "CantRetrieveDumpFile", 2},
        {ACTION_DUMP_ALL, true, "chown", {1}, "CantTakeFileOwnership", 2},
        // A download cut short without an exit status.
        {ACTION_DUMP_ALL, false, "wc -c", {0, "  99 dump.xml\n"}, "SshConnectionFault", 18},
        {ACTION_GET_CONTENT, false, "--get-content-list", {1}, "CantRetrieveContentList", 2},
        {ACTION_GET_CONTENT,
         false,
         "--get-content-list",
         {0, "<contentlist><file/>"},
         "CantRetrieveContentList",
         2},
        // Two sources of one name would land on one local file.
        {ACTION_GET_CONTENT, false, "--get-content-list", {0, twoX}, "CantRetrieveContentList", 2},
        {ACTION_GET_CONTENT, false, "a\\ b", {0, "", lost}, "SshConnectionFault", 18},
        {ACTION_GET_CONTENT, false, "cat /srv", {0, "dada"}, "WrongMd5Sum", 2},
        {ACTION_REMOVE_AGENT, true, "rm -rf", {0, "", lost}, "", 0},
    };
    for (const auto& row : rows) {
        ActionRun run(row.action, row.sudo);
        run.answer(row.match, row.reply);
        EXPECT_EQ(row.code, run()) << row.action << " " << row.match;
        EXPECT_EQ(row.exitCode, run.exitCode) << row.action << " " << row.match;
        EXPECT_TRUE(run.deleted.empty()) << "a source was deleted";
    }
}

// A source is deleted only once its copy matches the listed sum; a copy an earlier run left is
// finished or continued, never trusted blindly.
TEST(Actions, ContentIsVerifiedResumedAndOnlyThenDeleted) {
    const struct {
        const char* name;
        const char* here;  // the local copy before the run, "-" for none
        int64_t listedSize;
        const char* code;
        std::vector<std::string> fetches;
        const char* after;  // the local copy after the run
        bool deleted;
    } rows[] = {
        {"fresh", "-", 4, "", {"cat /a/x"}, "data", true},
        {"finished earlier", "data", 4, "", {}, "data", false},
        {"partial", "da", 4, "", {"tail -c +3 /a/x"}, "data", true},
        {"stale partial", "xa", 4, "", {"tail -c +3 /a/x", "cat /a/x"}, "data", true},
        {"longer than listed", "datax", 4, "", {"cat /a/x"}, "data", true},
        {"listed size wrong, sum right", "-", 9, "", {"cat /a/x"}, "data", true},
        {"changed on the source", "-", 4, "WrongMd5Sum", {"cat /a/x", "cat /a/x"}, "-", false},
    };
    for (const auto& row : rows) {
        ActionRun run(ACTION_GET_CONTENT);
        const std::string local = run.session().getCidFilesDir() + "/x";
        if (std::string(row.here) != "-") testing::writeTextFile(local, row.here);
        const bool changed = std::string(row.code) == "WrongMd5Sum";
        run.remoteFiles["/a/x"] = changed ? "dada" : "data";
        run.list({{"/a/x", row.listedSize, kSumOfData}});
        EXPECT_EQ(row.code, run()) << row.name;
        EXPECT_EQ(row.fetches, run.naming("/a/x")) << row.name;
        EXPECT_EQ(row.deleted, run.deleted == std::vector<std::string>{"/a/x"}) << row.name;
        const std::string after = testing::readFile(local);
        EXPECT_EQ(row.after, after.empty() ? "-" : after) << row.name;
        EXPECT_EQ(changed ? "dada" : "", testing::readFile(local + ".rejected")) << row.name;
        // A fetch that was thrown away counts once: nothing is left when the copy is whole.
        if (row.listedSize == 4 && !changed) {
            EXPECT_NE(std::string::npos, run.statusSaves.back().find("size-left=0](")) << row.name;
        }
    }
}

// Small files travel together in one command; a size the list got wrong cuts every later part
// wrong, and each such part is fetched again alone, so that all arrive whole.
TEST(Actions, FilesFetchedTogetherFallBackToOneByOne) {
    ActionRun run(ACTION_GET_CONTENT);
    run.remoteFiles = {{"/a/1", "data"}, {"/a/2", "abc"}, {"/a/3", "data"}};
    run.list({{"/a/1", 4, kSumOfData},
              {"/a/2", 2, "900150983cd24fb0d6963f7d28e17f72"},
              {"/a/3", 4, kSumOfData}});
    ASSERT_EQ("", run());
    EXPECT_EQ((std::vector<std::string>{"xargs -0 cat --", "cat /a/2", "cat /a/3"}),
              run.naming("cat"));
    const std::string dir = run.session().getCidFilesDir();
    EXPECT_EQ("data", testing::readFile(dir + "/1"));
    EXPECT_EQ("abc", testing::readFile(dir + "/2"));
    EXPECT_EQ("data", testing::readFile(dir + "/3"));
    EXPECT_EQ((std::vector<std::string>{"/a/1", "/a/2", "/a/3"}), run.deleted);
}

}  // namespace
}  // namespace tavik
