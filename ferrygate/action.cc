#include "ferrygate/action.h"

#include <signal.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <log4cpp/Category.hh>
#include <sstream>

#include "commons/commons.h"
#include "commons/exceptions.h"
#include "ferrygate/session.h"
#include "ssh/shell_quote.h"
#include "utils/files.h"
#include "utils/tavik_ugid.h"

namespace tavik {

log4cpp::Category& Action::logger = log4cpp::Category::getInstance("p.Action");

std::atomic<Action*> pAction(nullptr);

namespace {

const char kSudoPrefix[] = "sudo -k; sudo -S -p ' ' ";
const unsigned kRefreshSeconds = 5;

// The agent directory stays one word inside the inner line as well: blanks, quotes or a ";" in
// it must neither split the change of directory nor run as commands of their own.
std::string inAgentDir(const std::string& agentDir, const std::string& cmd) {
    return shellWords({"sh", "-c", "cd " + sh_quote(agentDir) + "; " + cmd});
}

}  // namespace

void giveToHmxadm(const std::string& path) {
    if (chown(path.c_str(), tavik_ugid("hmxadm", 0), tavik_ugid("hmxadm", 1)) != 0) {
        log4cpp::Category::getInstance("p.Action").warnStream()
            << "Cannot give " << path << " to hmxadm: " << strerror(errno);
    }
}

std::string shellWords(std::initializer_list<std::string> words) {
    std::string line;
    for (const std::string& word : words) {
        if (!line.empty()) line += " ";
        line += sh_quote(word);
    }
    return line;
}

Action::Action(bool keepStatus)
    : config(nullptr), result(nullptr), sudoChecked(false), alarmArmed(false) {
    if (keepStatus) {
        status = createMigrationStatusFile();
        status->setIdle();
        status->saveFile();
    }
}

Action::~Action() noexcept {
    // A signal arriving after the action is gone must find nothing to serve.
    Action* self = this;
    pAction.compare_exchange_strong(self, nullptr);
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

Ssh* Action::getSsh() {
    if (!ssh) {
        const unsigned short port = cfg().port == 0 ? 22 : static_cast<unsigned short>(cfg().port);
        ssh = std::make_unique<Ssh>(cfg().host, cfg().login, cfg().password, cfg().noEncryption,
                                    port);
    }
    return ssh.get();
}

void Action::setSsh(std::unique_ptr<Ssh> transport) { ssh = std::move(transport); }

void Action::setAlarmFunction() { getSsh()->setAlarm(this); }

std::string Action::remoteAgentPath(const std::string& entryPoint) const {
    return cfg().agentDir + "/" + entryPoint;
}

int Action::execUser(const std::string& cmd, std::istream& in, std::ostream& out, std::ostream& err,
                     bool quietOutput, bool quietInput) {
    const std::string line = inAgentDir(cfg().agentDir, cmd);
    return getSsh()->exec(line, in, out, err, quietOutput, quietInput, Ssh::nullCounter);
}

int Action::execUser(const std::string& cmd, std::ostream& out, std::ostream& err,
                     bool quietOutput) {
    const std::string line = inAgentDir(cfg().agentDir, cmd);
    return getSsh()->exec(line, out, err, quietOutput, Ssh::nullCounter);
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
    // A connection that cannot be made keeps its own failure (and exit code).
    Ssh* transport = getSsh();
    std::ostringstream out;
    std::ostringstream err;
    int rc = -1;
    try {
        rc = transport->exec("sudo -V", out, err, true, Ssh::nullCounter);
    } catch (const Exc<&SshConnectionFault>&) {
        throw;
    } catch (const ExTraceable& e) {
        TAVIK_RAISE_WRAP(SudoNotFound, e, cfg().host);
    }
    if (rc != 0) TAVIK_RAISE(SudoNotFound, cfg().host);

    std::istringstream password(cfg().sudoPassword);
    try {
        rc = transport->exec(std::string(kSudoPrefix) + "true", password, out, err, true, true,
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
    Action* saved = pAction.exchange(nullptr);
    try {
        getSsh()->setAlarm(nullptr);
        const std::string target = theSession->getDumpingStatusFileName();
        const std::string temporary = target + ".tmp";
        getSsh()->get(temporary, cfg().agentDir + "/" + files::getRemoteDumpingStatusFileName());
        // The controlling process reads the copy as hmxadm, like every other status file.
        giveToHmxadm(temporary);
        if (rename(temporary.c_str(), target.c_str()) != 0) {
            TAVIK_RAISE(CantRenameFile, temporary, target, strerror(errno));
        }
        alarm(kRefreshSeconds);
        pAction = saved;
    } catch (const std::exception&) {
        // Refreshing is a courtesy to the controlling process: after the first failure it stops
        // for the rest of the action rather than disturb the dump it accompanies.
    }
}

namespace {
void armStatusRefresh() {
    struct sigaction handler;
    memset(&handler, 0, sizeof handler);
    handler.sa_handler = update_status;
    sigemptyset(&handler.sa_mask);
    sigaction(SIGALRM, &handler, nullptr);
    alarm(kRefreshSeconds);
}
}  // namespace

void update_status(int) {
    Action* action = pAction;
    if (action == nullptr) return;
    action->raiseAlarm();
    armStatusRefresh();
}

void Action::raiseAlarm() noexcept {
    // Only the pointer is handed over; the transport runs doAlarm on the main thread. Before the
    // connection exists there is nothing to run the refresh on.
    if (ssh) ssh->setAlarm(this);
}

void startStatusRefresh(Action* action) {
    pAction = action;
    armStatusRefresh();
}

void stopStatusRefresh() { pAction = nullptr; }

FileRetrievalProgressUpdater::FileRetrievalProgressUpdater(MigrationStatus* status,
                                                           int64_t sizeLeft)
    : status(status),
      startTime(time(nullptr)),
      transferred(0),
      sizeLeft(sizeLeft),
      currentFileLeft(0) {}

void FileRetrievalProgressUpdater::operator()(int bytes) {
    sizeLeft -= bytes;
    currentFileLeft -= bytes;
    transferred += bytes;
    const int64_t elapsed = static_cast<int64_t>(time(nullptr) - startTime);
    const int64_t speed = elapsed > 0 ? transferred / elapsed : 0;
    status->setTransferSpeed(std::to_string(speed));
    status->setTransferSizeLeft(std::to_string(sizeLeft));
    status->setTransferCurrentFileSizeLeft(std::to_string(currentFileLeft));
    status->saveFile();
}

void FileRetrievalProgressUpdater::skip(int64_t bytes) {
    sizeLeft -= bytes;
    currentFileLeft -= bytes;
    status->setTransferSizeLeft(std::to_string(sizeLeft));
    status->setTransferCurrentFileSizeLeft(std::to_string(currentFileLeft));
}

uint64_t getFreeSpace(const std::string& path) {
    struct statfs64 fs;
    if (statfs64(path.c_str(), &fs) != 0) TAVIK_RAISE(CantStatFS, path, strerror(errno));
    return static_cast<uint64_t>(fs.f_bavail) * static_cast<uint64_t>(fs.f_bsize);
}

std::string getFileNameFromPath(const std::string& path) {
    const std::string::size_type slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string getPath(const std::string& path) {
    const std::string::size_type slash = path.rfind('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

void make_content_dir(const std::string& path, unsigned mode, unsigned uid, unsigned gid) {
    struct UmaskScope {
        mode_t previous;
        UmaskScope() : previous(umask(022)) {}
        ~UmaskScope() { umask(previous); }
    } scope;
    make_dir(path, uid, gid, mode);
}

}  // namespace tavik
