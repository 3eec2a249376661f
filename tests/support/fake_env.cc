#include "support/fake_env.h"

#include <stdio.h>
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
    cfg.agentDir = "agent dir";
    cfg.agentName = "fake";
    cfg.sessionPath = sessionFiles.getDir();
}

FileOwner FakeEnv::adminOwner() const { return FileOwner{getuid(), getgid()}; }

MigrationStatusPtr FakeEnv::createStatus() {
    return MigrationStatusPtr(
        new RecordingStatus(sessionFiles.getStatusFileName(), adminOwner(), statusSaves));
}

std::vector<std::string> FakeEnv::commands() const {
    std::vector<std::string> lines;
    for (const Call& call : calls) lines.push_back(call.command);
    return lines;
}

int FakeEnv::exec(const std::string& command, std::istream& in, std::ostream& out,
                  std::ostream& err, bool, bool, Ssh::Counter& counter) {
    std::ostringstream input;
    if (in.rdbuf() != nullptr) input << in.rdbuf();
    calls.push_back({command, input.str()});
    for (const auto& rule : rules_) {
        if (command.find(rule.first) == std::string::npos) continue;
        if (rule.second.during) rule.second.during();
        counter(static_cast<int>(rule.second.out.size()));
        out << rule.second.out;
        err << rule.second.err;
        return rule.second.status;
    }
    auto listed = [&] {
        std::vector<std::string> names;
        std::string name;
        for (char c : input.str()) {
            if (c != '\0') {
                name += c;
                continue;
            }
            names.push_back(name);
            name.clear();
        }
        return names;
    };
    if (command.find(sh_quote("xargs -0 rm -f --")) != std::string::npos) {
        for (const std::string& name : listed()) {
            // The password line of sudo comes first.
            const std::string path = name.substr(name.rfind('\n') + 1);
            remoteFiles.erase(path);
            deleted.push_back(path);
        }
        return 0;
    }
    if (command == "xargs -0 cat --") {
        int status = 0;
        for (const std::string& name : listed()) {
            const auto file = remoteFiles.find(name);
            if (file == remoteFiles.end()) {
                err << "cat: " << name << ": No such file or directory\n";
                status = 123;
                continue;
            }
            counter(static_cast<int>(file->second.size()));
            out << file->second;
        }
        return status;
    }
    for (auto& file : remoteFiles) {
        const std::string quoted = " " + sh_quote(file.first);
        size_t from = 0;
        const bool tail =
            command.compare(0, 9, "tail -c +") == 0 && command.size() > quoted.size() &&
            command.compare(command.size() - quoted.size(), quoted.size(), quoted) == 0;
        if (tail) from = std::stoul(command.substr(9)) - 1;
        if (tail || command == "cat" + quoted) {
            const std::string part = from < file.second.size() ? file.second.substr(from) : "";
            counter(static_cast<int>(part.size()));
            out << part;
            return 0;
        }
        if (command == "cat > " + sh_quote(file.first)) {
            file.second = input.str();
            return 0;
        }
    }
    if (command.compare(0, 6, "cat > ") == 0) {
        remoteFiles[command.substr(6)] = input.str();
        return 0;
    }
    if (command.compare(0, 4, "cat ") == 0) {
        err << "cat: No such file or directory";
        return 1;
    }
    return 0;
}

}  // namespace testing
}  // namespace tavik
