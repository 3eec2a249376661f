// The connection to the source host: remote commands with their three streams, and file
// transfers, which are remote commands too ("cat" to download, "cat >" to upload).
#ifndef FERRYGATE_SSH_SSH_TRANSFER_H
#define FERRYGATE_SSH_SSH_TRANSFER_H

#include <libssh2.h>

#include <atomic>
#include <istream>
#include <memory>
#include <ostream>
#include <string>

#include "commons/alarm.h"
#include "commons/exceptions.h"
#include "ssh/io_channels.h"

namespace log4cpp {
class Category;
}

namespace tavik {

class Socket;
namespace libssh2pp {
class Session;
}

// Connected and authenticated from construction to destruction; never reconnects. One thread
// uses it; only setAlarm may be called from a signal handler.
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

    // Connects to host:port and logs in. A session that fails to start is tried once more, on a
    // new connection, in compatibility mode. Throws the connection and session failures,
    // SshInvalidCredentials when the login is refused.
    Ssh(const std::string& host, const std::string& user, const std::string& password,
        bool noEncryption, unsigned short port);
    Ssh(const Ssh&) = delete;
    Ssh& operator=(const Ssh&) = delete;
    virtual ~Ssh();

    // Runs `command` through the login shell, sends all of `in` and then EOF, and only then
    // copies standard output to `out` and standard error to `err` until the command ends, so the
    // command must read its input before it writes more than a channel window. Returns the exit
    // status (128 plus the signal number when a signal ended it). `quietOutput` keeps the output,
    // `quietInput` the input, out of the log. While it waits, the alarm, if set, runs between
    // waits of at most 5 seconds. Throws SshConnectionFault when the connection is lost,
    // UnableToSendEof, StreamRead/StreamWrite, and MigrationTerminatedException.
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

    // The work to run inside the command loop; null clears it. Safe in a signal handler.
    void setAlarm(Alarm* alarm) { alarm_ = alarm; }

    // Logs a chunk of standard input sent to the remote host.
    void logPump(const char* buffer, int size);

    libssh2pp::Session& session() { return *session_; }

    static log4cpp::Category& logger;

  protected:
    // A connection-less object, for test doubles that override exec.
    Ssh();

  private:
    void connect(const std::string& host, unsigned short port);
    // A new channel with the transfer window, or null when the server refused one; throws
    // SshConnectionFault when the connection failed meanwhile.
    LIBSSH2_CHANNEL* openChannel();
    // Throws SshConnectionFault when the session's last failure was the connection's.
    void raiseIfConnectionLost();

    std::unique_ptr<Socket> socket_;
    std::unique_ptr<libssh2pp::Session> session_;
    std::atomic<Alarm*> alarm_;
};

// pump, with every chunk written also logged through ssh.logPump.
void pump_with_log(IOReadChannel& in, IOWriteChannel& out, Ssh& ssh);

}  // namespace tavik

#endif  // FERRYGATE_SSH_SSH_TRANSFER_H
