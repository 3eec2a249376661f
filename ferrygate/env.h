// The one way the actions reach the outside world: the source host, through remote commands, and
// this host's files, session and product data. The live implementation talks to a real server;
// tests put an in-memory source host and a scratch directory behind the same interface.
#ifndef FERRYGATE_FERRYGATE_ENV_H
#define FERRYGATE_FERRYGATE_ENV_H

#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <fstream>
#include <functional>
#include <istream>
#include <memory>
#include <ostream>
#include <string>

#include "commons/alarm.h"
#include "commons/replace_file.h"
#include "ssh/ssh_transfer.h"
#include "xml/migration_status.h"

namespace tavik {

class Agent;
class AgentsFactory;
class SessionFiles;

class Env {
  public:
    // `session` is not owned and must outlive the environment.
    explicit Env(const SessionFiles& session);
    Env(const Env&) = delete;
    Env& operator=(const Env&) = delete;
    virtual ~Env();

    // --- The source host. A command is one line for the remote shell; every word in it has
    // passed through sh_quote.

    // Runs `command`, sends all of `in` and then EOF, copies standard output to `out` (telling
    // `counter` the size of each chunk) and standard error to `err`, and returns the exit
    // status. The quiet flags keep output and input out of the debug log. Throws the
    // transport's failures (connection, SshConnectionFault, stream errors, termination).
    virtual int exec(const std::string& command, std::istream& in, std::ostream& out,
                     std::ostream& err, bool quietOutput, bool quietInput,
                     Ssh::Counter& counter) = 0;
    // While a command runs, `alarm->doAlarm()` is called every few seconds on this thread; null
    // stops it.
    virtual void setAlarm(Alarm* alarm) = 0;

    // exec with empty input and no progress counting.
    int exec(const std::string& command, std::ostream& out, std::ostream& err, bool quietOutput);
    // The remote file into `out` ("cat"); returns cat's exit status. Both streams stay out of
    // the log; what cat says on standard error goes to `err` when given.
    int get(std::ostream& out, const std::string& remotePath, Ssh::Counter& counter,
            std::ostream* err = nullptr);
    // `in` into the remote file ("cat >"); returns cat's exit status.
    int put(std::istream& in, const std::string& remotePath);

    // --- This host.

    const SessionFiles& session() const { return session_; }
    // Where agents and the scout script of the product live.
    virtual std::string agentsDir() const;
    virtual std::string scoutFile() const;
    // The account that gets every file the controlling process reads.
    virtual FileOwner adminOwner() const;
    // The named agent below agentsDir(), parsed once. Throws AgentNotFound.
    boost::shared_ptr<Agent> agent(const std::string& name);
    // A new, empty migration status document of the session, given to adminOwner() when saved.
    virtual MigrationStatusPtr createStatus();

    // Replaces `path` for its readers with what `write` puts into the stream (replaceFile); a
    // failed write or close throws FileWrite. With `durable`, the data reach the disk first.
    virtual void replaceFile(const std::string& path,
                             const std::function<void(std::ostream&)>& write, bool durable = false);
    void replaceFileText(const std::string& path, const std::string& text, bool durable = false);
    // A file opened for writing (created with mode 0640, truncated unless `append`), or null when
    // it cannot be opened.
    virtual std::unique_ptr<std::ofstream> openForWrite(const std::string& path, bool append);
    // The file's size in bytes, -1 when it cannot be found.
    virtual int64_t fileSize(const std::string& path) const;
    // Creates `path` and its missing parents (mode `mode`, umask 022) for adminOwner().
    virtual void makeDir(const std::string& path, unsigned mode);
    // Bytes available to unprivileged users on the file system of `path` or, while `path`
    // does not exist yet, of its nearest existing ancestor. Throws CantStatFS.
    virtual uint64_t freeSpace(const std::string& path) const;
    // Gives the file to adminOwner(); a failure is logged.
    virtual void giveToAdmin(const std::string& path);
    // Removes the file; whether it existed is not looked at.
    virtual void removeFile(const std::string& path);

  private:
    const SessionFiles& session_;
    std::unique_ptr<AgentsFactory> agents_;
};

// The environment of a real run: the source host of `cfg`, reached over SSH when the first
// command needs it, and the product's files on this host.
class LiveEnv : public Env {
  public:
    // `cfg` and `session` are not owned and must outlive the environment.
    LiveEnv(const struct config& cfg, const SessionFiles& session);
    ~LiveEnv() override;

    int exec(const std::string& command, std::istream& in, std::ostream& out, std::ostream& err,
             bool quietOutput, bool quietInput, Ssh::Counter& counter) override;
    void setAlarm(Alarm* alarm) override;

  private:
    Ssh& ssh();

    const struct config& cfg_;
    std::unique_ptr<Ssh> ssh_;
    Alarm* alarm_ = nullptr;
};

}  // namespace tavik

#endif  // FERRYGATE_FERRYGATE_ENV_H
