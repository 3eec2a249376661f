// The base of every migration action: the lazily opened connection to the source host, commands
// run as the login user or as root through sudo, the session's migration status, and the
// five-second refresh of the agent's dumping status while a long command runs.
#ifndef FERRYGATE_FERRYGATE_ACTION_H
#define FERRYGATE_FERRYGATE_ACTION_H

#include <atomic>
#include <cstdint>
#include <ctime>
#include <initializer_list>
#include <memory>
#include <ostream>
#include <streambuf>
#include <string>

#include "commons/alarm.h"
#include "ferrygate/options.h"
#include "ssh/ssh_transfer.h"
#include "xml/migration_status.h"

namespace log4cpp {
class Category;
}

namespace tavik {

class Log;
// Where an action may report what it did; the driver's execution log.
typedef Log Result;

// One operation of the command line. The driver builds it, calls setConfig and execute, and
// destroys it; it never outlives the run's session.
class Action : public Alarm {
  public:
    // With `keepStatus`, the session's migration status is created and saved as idle at once;
    // theSession must then be set.
    explicit Action(bool keepStatus);
    // A failure of the final status save is logged; call closeStatus() first to see it.
    ~Action() noexcept override;
    Action(const Action&) = delete;
    Action& operator=(const Action&) = delete;

    // Copies the agent's dumping-status file into the session; runs inside Ssh::exec, on the
    // main thread. The first failure ends refreshing for the rest of the action.
    void doAlarm() override;
    // `cfg` is not owned and must outlive the action.
    virtual void setConfig(const tavik::config* cfg);
    virtual void setResult(Result* sink);
    virtual void execute() = 0;
    // Saves the final (idle) migration status now; throws what the save throws.
    void closeStatus();

    // The connection, opened on first use (port 0 means 22). Throws the connection's failures.
    Ssh* getSsh();
    // Uses `transport` instead of opening a connection; for tests.
    void setSsh(std::unique_ptr<Ssh> transport);
    void setAlarmFunction();
    // setAlarmFunction for the signal handler: never connects, never throws.
    void raiseAlarm() noexcept;

    // Runs `cmd` as the login user, after a change into the agent directory, and returns its
    // exit status. The quiet flags keep output and input out of the debug log.
    int execUser(const std::string& cmd, std::istream& in, std::ostream& out, std::ostream& err,
                 bool quietOutput, bool quietInput);
    int execUser(const std::string& cmd, std::ostream& out, std::ostream& err, bool quietOutput);
    // Runs `cmd` with root rights: through "sudo -S" with the sudo password as the first input
    // line when --sudo-password was given, else as the login user, who is then taken to be root.
    int execRoot(const std::string& cmd, std::istream& in, std::ostream& out, std::ostream& err,
                 bool quietOutput, bool quietInput);
    int execRoot(const std::string& cmd, std::ostream& out, std::ostream& err, bool quietOutput);
    // Makes sure sudo exists and accepts the password, once per action. Throws SudoNotFound,
    // SudoNotAllowed.
    void checkSudoPresence();
    // With sudo, gives the remote file at `path` back to the login user. Throws
    // CantTakeFileOwnership.
    void takeFile(const std::string& path);

  protected:
    const tavik::config& cfg() const { return *config; }
    // <agent directory>/<agent's entry point>, as the agent's command names it.
    std::string remoteAgentPath(const std::string& entryPoint) const;

    std::unique_ptr<Ssh> ssh;
    const tavik::config* config;
    Result* result;
    MigrationStatusPtr status;
    bool sudoChecked;
    bool alarmArmed;

    static log4cpp::Category& logger;
};

// The action the SIGALRM handler serves; null when none.
extern std::atomic<Action*> pAction;
// The SIGALRM handler: hands pAction to its transport and re-arms the five-second alarm.
void update_status(int);
// Installs update_status for SIGALRM and arms the alarm for `action`.
void startStatusRefresh(Action* action);
// Ends the refresh; the pending alarm lapses harmlessly.
void stopStatusRefresh();

// Keeps the transfer fields of the migration status current while files download, saving the
// status after every block.
class FileRetrievalProgressUpdater : public Ssh::Counter {
  public:
    // `status` is not owned. Speed is counted from now.
    FileRetrievalProgressUpdater(MigrationStatus* status, int64_t sizeLeft);
    void operator()(int bytes) override;
    // Starts the next file: its size is what is left of it.
    void startFile(int64_t size) { currentFileLeft = size; }
    // Counts `bytes` as done without a transfer (a file already here); saves nothing.
    void skip(int64_t bytes);

  private:
    MigrationStatus* status;
    time_t startTime;
    int64_t transferred;
    int64_t sizeLeft;
    int64_t currentFileLeft;
};

// The words, each through sh_quote, joined by single blanks: one remote command line.
std::string shellWords(std::initializer_list<std::string> words);

// Gives a local file to the account hmxadm (user and primary group); a failure is logged.
void giveToHmxadm(const std::string& path);

// An output stream that drops everything written to it.
class DiscardStream : public std::ostream {
  public:
    DiscardStream() : std::ostream(&buffer) {}

  private:
    struct Buffer : std::streambuf {
        int overflow(int c) override { return traits_type::not_eof(c); }
        std::streamsize xsputn(const char*, std::streamsize n) override { return n; }
    } buffer;
};

// Bytes available to unprivileged users on the file system holding `path`. Throws CantStatFS.
uint64_t getFreeSpace(const std::string& path);
// "a/b/c" gives "c"; a name without "/" is returned whole.
std::string getFileNameFromPath(const std::string& path);
// "a/b/c" gives "a/b"; a name without "/" gives "".
std::string getPath(const std::string& path);
// make_dir with the umask at 022 for the call.
void make_content_dir(const std::string& path, unsigned mode, unsigned uid, unsigned gid);

}  // namespace tavik

#endif  // FERRYGATE_FERRYGATE_ACTION_H
