// The base of every migration action: the lazily opened connection to the source host, commands
// run as the login user or as root through sudo, the session's migration status, and the
// five-second refresh of the agent's dumping status while a long command runs.
#ifndef FERRYGATE_FERRYGATE_ACTION_H
#define FERRYGATE_FERRYGATE_ACTION_H

#include <chrono>
#include <cstdint>
#include <ctime>
#include <initializer_list>
#include <memory>
#include <ostream>
#include <streambuf>
#include <string>
#include <vector>

#include "commons/alarm.h"
#include "ferrygate/env.h"
#include "ferrygate/options.h"
#include "ssh/ssh_transfer.h"
#include "xml/migration_status.h"

namespace log4cpp {
class Category;
}

namespace tavik {

class ProgressLine;

class Log;
// Where an action may report what it did; the driver's execution log.
typedef Log Result;

// One operation of the command line. The driver builds it, calls setConfig and execute, and
// destroys it; it never outlives the environment it was given.
class Action : public Alarm {
  public:
    // Everything outside the program is reached through `env`, which is not owned. With
    // `keepStatus`, the session's migration status is created and saved as idle at once.
    Action(bool keepStatus, Env& env);
    // A failure of the final status save is logged; call closeStatus() first to see it.
    ~Action() noexcept override;
    Action(const Action&) = delete;
    Action& operator=(const Action&) = delete;

    // Copies the agent's dumping-status file into the session; the transport calls it every few
    // seconds while the agent runs. The first failure ends refreshing for the rest of
    // the action.
    void doAlarm() override;
    // `cfg` is not owned and must outlive the action.
    virtual void setConfig(const tavik::config* cfg);
    virtual void setResult(Result* sink);
    virtual void execute() = 0;
    // Saves the final (idle) migration status now; throws what the save throws.
    void closeStatus();

    // Runs `cmd` as the login user, after a change into the agent directory, and returns its
    // exit status. The quiet flags keep output and input out of the debug log; input that is
    // logged is read whole first, and every line of it that is a password is masked.
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
    Env& env() { return env_; }
    // The command line that runs `agent` from the agent directory with `args`.
    std::string agentCommand(const Agent& agent, const std::vector<std::string>& args) const;
    // The session's copy of the agent's dumping status is refreshed while a command runs.
    void startStatusRefresh();
    void stopStatusRefresh();

    Env& env_;
    const tavik::config* config;
    Result* result;
    MigrationStatusPtr status;
    bool sudoChecked;

    static log4cpp::Category& logger;

  private:
    bool refreshing_ = false;
};

// Keeps the transfer fields of the migration status current while files download, saving the
// status at most five times a second.
class FileRetrievalProgressUpdater : public Ssh::Counter {
  public:
    // `status` is not owned. Speed is counted from now.
    FileRetrievalProgressUpdater(MigrationStatus* status, int64_t sizeLeft);
    void operator()(int bytes) override;
    // Starts the next file: its size is what is left of it.
    void startFile(int64_t size) {
        currentFileLeft = size;
        ++fileIndex;
    }
    // Also draws the progress on `line` (not owned; may be null), for `fileCount` files.
    void showOn(ProgressLine* line, size_t fileCount) {
        this->line = line;
        this->fileCount = fileCount;
    }
    // Counts `bytes` as done without a transfer (a file already here); saves nothing.
    void skip(int64_t bytes);
    // The current file's attempt, of which `counted` bytes were counted, is thrown away: they
    // are to come again, and the file starts once more under its own number.
    void retry(int64_t counted) {
        sizeLeft += counted;
        if (fileIndex > 0) --fileIndex;
    }

  private:
    MigrationStatus* status;
    time_t startTime;
    int64_t transferred;
    int64_t sizeLeft;
    int64_t currentFileLeft;
    std::chrono::steady_clock::time_point lastSave;
    int64_t total;
    ProgressLine* line = nullptr;
    size_t fileIndex = 0;
    size_t fileCount = 0;
};

// The words, each through sh_quote, joined by single blanks: one remote command line.
std::string shellWords(std::initializer_list<std::string> words);

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

// "a/b/c" gives "c"; a name without "/" is returned whole.
std::string getFileNameFromPath(const std::string& path);
// "a/b/c" gives "a/b"; a name without "/" gives "".
std::string getPath(const std::string& path);

}  // namespace tavik

#endif  // FERRYGATE_FERRYGATE_ACTION_H
