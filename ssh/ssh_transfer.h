// The connection to the source host: remote commands with their three streams, and file
// transfers, which are remote commands too ("cat" to download, "cat >" to upload).
#ifndef FERRYGATE_SSH_SSH_TRANSFER_H
#define FERRYGATE_SSH_SSH_TRANSFER_H

#include <chrono>
#include <istream>
#include <memory>
#include <ostream>
#include <string>

#include "commons/alarm.h"
#include "commons/exceptions.h"
#include "ssh/io_channels.h"
#include "ssh/known_hosts.h"

namespace log4cpp {
class Category;
}

namespace tavik {

class Socket;
namespace libssh2pp {
class Session;
}

// Connected and authenticated from construction to destruction; never reconnects. One thread
// uses it, and no signal disturbs it.
class Ssh {
  public:
    // Told the size of each chunk of a command's standard output as it arrives.
    class Counter {
      public:
        virtual ~Counter();
        virtual void operator()(int bytes) = 0;
    };
    class NullCounter : public Counter {
      public:
        void operator()(int) override {}
    };
    // The one counter for calls that want none.
    static NullCounter nullCounter;

    // Connects to host:port and logs in, all within Session::connectLimit() seconds, once the
    // server's host key has passed `hostKeys`. A session that fails to start is tried once more,
    // on a new connection, in compatibility mode. Throws the connection and session failures
    // (SshConnectionFault when the time is up once the connection is made), those of the host
    // key check, SshInvalidCredentials when the login is refused.
    Ssh(const std::string& host, const std::string& user, const std::string& password,
        bool noEncryption, unsigned short port, const HostKeyPolicy& hostKeys);
    Ssh(const Ssh&) = delete;
    Ssh& operator=(const Ssh&) = delete;
    virtual ~Ssh();

    // Runs `command` through the login shell, sends all of `in` and then EOF, and only then
    // copies standard output to `out` and standard error to `err` until the command ends, so the
    // command must read its input before it writes more than a channel window. Returns the exit
    // status (128 plus the signal number when a signal ended it). `quietOutput` keeps the output,
    // `quietInput` the input, out of the log. While it waits for the command's end, it runs the
    // alarm, if one is set (see setAlarm). Throws SshConnectionFault when the connection is lost,
    // UnableToSendEof, StreamRead/StreamWrite, MigrationTerminatedException, and whatever the
    // alarm throws.
    virtual int exec(const std::string& command, std::istream& in, std::ostream& out,
                     std::ostream& err, bool quietOutput, bool quietInput, Counter& counter);
    // The same with empty standard input.
    int exec(const std::string& command, std::ostream& out, std::ostream& err, bool quietOutput,
             Counter& counter);

    // Downloads the remote file into `out`. A remote file that cannot be read gives an empty
    // download and no error: callers check sizes and checksums.
    void get(std::ostream& out, const std::string& remotePath, Counter& counter);
    void get(std::ostream& out, const std::string& remotePath);
    // Downloads into a local file, created with mode 0640 (umask 026 meanwhile) and truncated. A
    // local file that cannot be opened fails with StreamWrite at the first chunk.
    void get(const std::string& localPath, const std::string& remotePath, Counter& counter);
    void get(const std::string& localPath, const std::string& remotePath);

    // Uploads the stream to the remote path; a path that cannot be written gives no error.
    void put(std::istream& in, const std::string& remotePath);
    // Uploads a local file; one that cannot be opened uploads as empty.
    void put(const std::string& localPath, const std::string& remotePath);

    // While a command runs, exec calls alarm->doAlarm() on this thread every 5 seconds of the
    // command: first 5 seconds after the command or this call began, whichever is later, then 5
    // seconds after the previous doAlarm() returned. doAlarm() may run commands itself; the alarm
    // does not run inside them. Setting the alarm that is already set changes nothing; null
    // stops it.
    void setAlarm(Alarm* alarm);

    // Logs a chunk of standard input sent to the remote host.
    void logPump(const char* buffer, int size);

    libssh2pp::Session& session() { return *session_; }

    static log4cpp::Category& logger;

  protected:
    // A connection-less object, for test doubles that override exec.
    Ssh();

  private:
    std::unique_ptr<Socket> socket_;
    std::unique_ptr<libssh2pp::Session> session_;
    Alarm* alarm_ = nullptr;
    std::chrono::steady_clock::time_point alarmSet_;
    bool inAlarm_ = false;
};

// pump, with every chunk written also logged through ssh.logPump.
void pump_with_log(IOReadChannel& in, IOWriteChannel& out, Ssh& ssh);

}  // namespace tavik

#endif  // FERRYGATE_SSH_SSH_TRANSFER_H
