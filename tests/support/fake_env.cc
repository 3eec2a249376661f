#include "support/fake_env.h"

#include <unistd.h>

#include <sstream>

#include "ssh/shell_quote.h"
#include "support/xml_render.h"

namespace tavik {
namespace testing {

namespace {

class RecordingStatus : public XmlMigrationStatus {
  public:
    RecordingStatus(const std::string& file, const FileOwner& owner,
                    std::vector<std::string>& saves)
        : XmlMigrationStatus(file, owner), file_(file), saves_(saves) {}
    ~RecordingStatus() noexcept(false) override {}
    void saveFile() override {
        XmlMigrationStatus::saveFile();
        saves_.push_back(renderFile(file_));
    }

  private:
    std::string file_;
    std::vector<std::string>& saves_;
};

}  // namespace

FakeEnvFiles::FakeEnvFiles() : sessionFiles(dir.path() + "/session") {
    writeTextFile(dir.path() + "/agents/shared/Shared.pm", "1;\n");
    writeTextFile(dir.path() + "/agents/fake/control/spec", "EntryPoint: run.pl\n");
    writeTextFile(dir.path() + "/agents/fake/run.pl", "print 1;\n");
    writeTextFile(dir.path() + "/scout.pl", "print 'scout';\n");
}

FakeEnv::FakeEnv() : Env(sessionFiles) {
    cfg.host = "source.example";
    cfg.login = "mover";
    cfg.password = "login-secret";
    cfg.agentName = "fake";
    cfg.sessionPath = sessionFiles.getDir();
}

FileOwner FakeEnv::adminOwner() const { return FileOwner{getuid(), getgid()}; }

MigrationStatusPtr FakeEnv::createStatus() {
    return MigrationStatusPtr(
        new RecordingStatus(sessionFiles.getStatusFileName(), adminOwner(), statusSaves));
}

int FakeEnv::exec(const std::string& command, std::istream& in, std::ostream& out, std::ostream&,
                  bool, bool, Ssh::Counter& counter) {
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
    } else {
        return 0;
    }
    for (const auto& file : remoteFiles) {
        if (sh_quote(file.first) != quoted) continue;
        return reply(0, from < file.second.size() ? file.second.substr(from) : "");
    }
    return 1;
}

}  // namespace testing
}  // namespace tavik
