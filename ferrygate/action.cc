#include "ferrygate/action.h"

#include <algorithm>
#include <log4cpp/Category.hh>
#include <sstream>

#include "commons/exceptions.h"
#include "commons/secrets.h"
#include "ferrygate/agent_spec.h"
#include "ferrygate/progress_line.h"
#include "ferrygate/session.h"
#include "ssh/shell_quote.h"
#include "utils/files.h"

namespace tavik {

log4cpp::Category& Action::logger = log4cpp::Category::getInstance("p.Action");

namespace {

const char kSudoPrefix[] = "sudo -k; sudo -S -p ' ' ";
const std::chrono::milliseconds kSaveInterval(200);

// The agent directory stays one word inside the inner line as well: blanks, quotes or a ";" in
// it must neither split the change of directory nor run as commands of their own.
std::string inAgentDir(const std::string& agentDir, const std::string& cmd) {
    return shellWords({"sh", "-c", "cd " + sh_quote(agentDir) + "; " + cmd});
}

}  // namespace

std::string shellWords(std::initializer_list<std::string> words) {
    std::string line;
    for (const std::string& word : words) {
        if (!line.empty()) line += " ";
        line += sh_quote(word);
    }
    return line;
}

Action::Action(bool keepStatus, Env& env)
    : env_(env), config(nullptr), result(nullptr), sudoChecked(false) {
    if (keepStatus) {
        status = env_.createStatus();
        status->setIdle();
        status->saveFile();
    }
}

Action::~Action() noexcept {
    if (refreshing_) env_.setAlarm(nullptr);
    try {
        status.reset();
    } catch (const ExTraceable& e) {
        logger.errorStream() << "Cannot save the final migration status: " << e.what();
    } catch (const std::exception& e) {
        logger.errorStream() << "Cannot save the final migration status: " << e.what();
    }
}

void Action::setConfig(const tavik::config* cfg) { config = cfg; }

void Action::setResult(Result* sink) { result = sink; }

void Action::closeStatus() { status.reset(); }

std::string Action::agentCommand(const Agent& agent, const std::vector<std::string>& args) const {
    std::string command = sh_quote(agent.getEffectiveInterpreter()) + " " +
                          sh_quote(cfg().agentDir + "/" + agent.getEntryPoint());
    for (const std::string& arg : args) command += " " + sh_quote(arg);
    return command;
}

int Action::execUser(const std::string& cmd, std::istream& in, std::ostream& out, std::ostream& err,
                     bool quietOutput, bool quietInput) {
    const std::string line = inAgentDir(cfg().agentDir, cmd);
    if (quietInput) return env_.exec(line, in, out, err, quietOutput, true, Ssh::nullCounter);
    // The input is logged here rather than by the transport, which cannot tell its lines apart:
    // the sudo password (execRoot) and the login password for rsync (the dump's input) travel
    // as lines of their own. Input that is logged is short; uploads are quiet.
    std::ostringstream text;
    text << in.rdbuf();
    if (!text.str().empty()) {
        logger.info("remote stdin <- " +
                    maskSecretLines(text.str(), {cfg().sudoPassword, cfg().password}));
    }
    std::istringstream input(text.str());
    return env_.exec(line, input, out, err, quietOutput, true, Ssh::nullCounter);
}

int Action::execUser(const std::string& cmd, std::ostream& out, std::ostream& err,
                     bool quietOutput) {
    const std::string line = inAgentDir(cfg().agentDir, cmd);
    return env_.exec(line, out, err, quietOutput);
}

int Action::execRoot(const std::string& cmd, std::istream& in, std::ostream& out, std::ostream& err,
                     bool quietOutput, bool quietInput) {
    if (!cfg().sudo) return execUser(cmd, in, out, err, quietOutput, quietInput);
    checkSudoPresence();
    const std::string command = kSudoPrefix + cmd;
    if (cfg().sudoPassword.empty()) {
        return execUser(command, in, out, err, quietOutput, quietInput);
    }
    // sudo takes the first line for itself; the command reads the rest as it was given.
    std::stringstream input;
    input << cfg().sudoPassword << "\n";
    if (!(input << in.rdbuf())) input.clear();
    return execUser(command, input, out, err, quietOutput, quietInput);
}

int Action::execRoot(const std::string& cmd, std::ostream& out, std::ostream& err,
                     bool quietOutput) {
    std::istringstream empty;
    return execRoot(cmd, empty, out, err, quietOutput, false);
}

void Action::checkSudoPresence() {
    if (sudoChecked) return;
    std::ostringstream out;
    std::ostringstream err;
    int rc = -1;
    try {
        rc = env_.exec("sudo -V", out, err, true);
    } catch (const Exc<&SshConnectionFault>&) {
        throw;
    } catch (const ExTraceable& e) {
        TAVIK_RAISE_WRAP(SudoNotFound, e, cfg().host);
    }
    if (rc != 0) TAVIK_RAISE(SudoNotFound, cfg().host);

    std::istringstream password(cfg().sudoPassword);
    try {
        rc = env_.exec(std::string(kSudoPrefix) + "true", password, out, err, true, true,
                       Ssh::nullCounter);
    } catch (const Exc<&SshConnectionFault>&) {
        throw;
    } catch (const ExTraceable& e) {
        TAVIK_RAISE_WRAP(SudoNotAllowed, e, cfg().login, cfg().host);
    }
    if (rc != 0) TAVIK_RAISE(SudoNotAllowed, cfg().login, cfg().host);
    sudoChecked = true;
}

void Action::takeFile(const std::string& path) {
    if (!cfg().sudo) return;
    checkSudoPresence();
    std::ostringstream out;
    std::ostringstream err;
    if (execRoot(shellWords({"chown", cfg().login, path}), out, err, false) != 0) {
        TAVIK_RAISE(CantTakeFileOwnership, path, err.str());
    }
}

void Action::doAlarm() {
    // The copy is itself a command; the transport does not run the alarm inside its own.
    if (!refreshing_) return;
    try {
        const std::string remote = cfg().agentDir + "/" + files::getRemoteDumpingStatusFileName();
        env_.replaceFile(env_.session().getDumpingStatusFileName(),
                         [&](std::ostream& out) { env_.get(out, remote, Ssh::nullCounter); });
    } catch (const MigrationTerminatedException&) {
        throw;
    } catch (const std::exception& e) {
        // Refreshing is a courtesy to the controlling process: after the first failure it stops
        // for the rest of the action rather than disturb the dump it accompanies.
        logger.warnStream() << "Dumping status no longer refreshed: " << e.what();
        stopStatusRefresh();
    }
}

void Action::startStatusRefresh() {
    refreshing_ = true;
    env_.setAlarm(this);
}

void Action::stopStatusRefresh() {
    refreshing_ = false;
    env_.setAlarm(nullptr);
}

FileRetrievalProgressUpdater::FileRetrievalProgressUpdater(MigrationStatus* status,
                                                           int64_t sizeLeft)
    : status(status),
      startTime(time(nullptr)),
      transferred(0),
      sizeLeft(sizeLeft),
      currentFileLeft(0),
      lastSave(std::chrono::steady_clock::now()),
      total(sizeLeft) {}

void FileRetrievalProgressUpdater::operator()(int bytes) {
    sizeLeft -= bytes;
    currentFileLeft -= bytes;
    transferred += bytes;
    const int64_t elapsed = static_cast<int64_t>(time(nullptr) - startTime);
    const int64_t speed = elapsed > 0 ? transferred / elapsed : 0;
    status->setTransferSpeed(std::to_string(speed));
    status->setTransferSizeLeft(std::to_string(sizeLeft));
    status->setTransferCurrentFileSizeLeft(std::to_string(currentFileLeft));
    if (line != nullptr) {
        line->update(fileIndex, fileCount,
                     static_cast<uint64_t>(std::max<int64_t>(0, total - sizeLeft)),
                     static_cast<uint64_t>(total));
    }
    // Each save replaces a file: after every block, that was most of the cost of a download. The
    // action saves at the start and end of every file; between them a reader polling a few
    // times a second sees no difference.
    const auto now = std::chrono::steady_clock::now();
    if (now - lastSave >= kSaveInterval) {
        lastSave = now;
        status->saveFile();
    }
}

void FileRetrievalProgressUpdater::skip(int64_t bytes) {
    sizeLeft -= bytes;
    currentFileLeft -= bytes;
    status->setTransferSizeLeft(std::to_string(sizeLeft));
    status->setTransferCurrentFileSizeLeft(std::to_string(currentFileLeft));
}

std::string getFileNameFromPath(const std::string& path) {
    const std::string::size_type slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string getPath(const std::string& path) {
    const std::string::size_type slash = path.rfind('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

}  // namespace tavik
