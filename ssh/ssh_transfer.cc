#include "ssh/ssh_transfer.h"

#include <algorithm>
#include <fstream>
#include <log4cpp/Category.hh>
#include <log4cpp/CategoryStream.hh>
#include <sstream>

#include "commons/checksum.h"
#include "commons/socket.h"
#include "commons/unique_fd.h"
#include "ssh/libssh2pp.h"
#include "ssh/shell_quote.h"

namespace tavik {

log4cpp::Category& Ssh::logger = log4cpp::Category::getInstance("p.Ssh");
Ssh::NullCounter Ssh::nullCounter;

Ssh::Counter::~Counter() = default;

namespace {

using Clock = std::chrono::steady_clock;

// A large window keeps the server sending while earlier data is still being written out; the
// library holds at most one window of unread data, so memory stays bounded.
const unsigned kExecWindow = 2 * 1024 * 1024;
const unsigned kExecPacket = 32768;
// Keep-alive requests fall due at intervals of a second or more.
const int kWaitMillis = 1000;
const auto kAlarmPeriod = std::chrono::seconds(5);
const int kStdout = 0;
const int kStderr = 1;

// Marks the alarm as running for one scope, so that the commands it runs do not run it again.
class AlarmRunning {
  public:
    explicit AlarmRunning(bool& flag) : flag_(flag) { flag_ = true; }
    ~AlarmRunning() { flag_ = false; }
    AlarmRunning(const AlarmRunning&) = delete;
    AlarmRunning& operator=(const AlarmRunning&) = delete;

  private:
    bool& flag_;
};

}  // namespace

Ssh::Ssh() = default;

Ssh::Ssh(const std::string& host, const std::string& user, const std::string& password,
         bool noEncryption, unsigned short port, const HostKeyPolicy& hostKeys) {
    // One limit for reaching the server, however many addresses and attempts that takes.
    const Clock::time_point deadline =
        Clock::now() + std::chrono::seconds(libssh2pp::Session::connectLimit());
    socket_.reset(new Socket(host, port, deadline));
    try {
        session_.reset(
            new libssh2pp::Session(socket_->descriptor(), noEncryption, false, deadline));
    } catch (const Exc<&UnableToStartSshSession>&) {
        logger.info("Attempt to start SSH session in a 'compatibility' mode");
        socket_.reset();
        socket_.reset(new Socket(host, port, deadline));
        session_.reset(new libssh2pp::Session(socket_->descriptor(), noEncryption, true, deadline));
    }
    session_->verifyHostKey(host, port, hostKeys);
    try {
        session_->authorize(user, password);
    } catch (const Exc<&SshAuthorizationFailed>&) {
        TAVIK_RAISE(SshInvalidCredentials, host);
    }
}

Ssh::~Ssh() {
    session_.reset();
    socket_.reset();
}

void Ssh::setAlarm(Alarm* alarm) {
    if (alarm == alarm_) return;
    alarm_ = alarm;
    alarmSet_ = Clock::now();
}

void Ssh::logPump(const char* buffer, int size) {
    logger.infoStream() << "remote stdin <- " << memchunk_log(buffer, static_cast<size_t>(size));
}

void pump_with_log(IOReadChannel& in, IOWriteChannel& out, Ssh& ssh) {
    char buffer[65536];
    for (;;) {
        const int n = in.read(buffer, sizeof buffer);
        if (n == 0) return;
        if (n < 0) {
            TAVIK_RAISE(StreamRead);
        }
        pump_write(out, buffer, n);
        ssh.logPump(buffer, n);
    }
}

int Ssh::exec(const std::string& command, std::istream& in, std::ostream& out, std::ostream& err,
              bool quietOutput, bool quietInput, Counter& counter) {
    const Clock::time_point started = Clock::now();
    logger.info("Executing " + command + " on the remote host");
    logger.info("Opening SSH channel for command '" + command + "'");
    const std::unique_ptr<libssh2pp::Channel> channel =
        session_->openChannel(kExecWindow, kExecPacket);
    if (!channel->exec(command)) {
        // Without a command nothing would ever end the channel, and the wait below with it.
        logger.error("The remote host refused to run the command: " + session_->lastError());
        TAVIK_RAISE(SshUnknown);
    }

    IOStreamReadChannel input(in);
    SshChannelWriteChannel toRemote(*channel);
    if (quietInput) {
        pump(input, toRemote);
    } else {
        pump_with_log(input, toRemote, *this);
    }
    if (!channel->sendEof()) {
        const std::string reason = session_->lastError();
        logger.error("Unable to send EOF to SSH channel: " + reason);
        TAVIK_RAISE(UnableToSendEof, reason);
    }

    IOStreamWriteChannel toOut(out);
    IOStreamWriteChannel toErr(err);
    char buffer[65536];
    LendingBuffer* lending = quietOutput ? dynamic_cast<LendingBuffer*>(out.rdbuf()) : nullptr;
    // Moves one chunk of what is already queued for `stream`; the count moved, 0 for none.
    auto forward = [&](int stream) -> ssize_t {
        if (stream == kStdout && lending != nullptr) {
            size_t room = 0;
            char* into = lending->lend(room);
            const ssize_t n = channel->readQueued(stream, into, std::min(room, sizeof buffer));
            if (n <= 0) return 0;
            lending->commit(static_cast<size_t>(n));
            counter(static_cast<int>(n));
            return n;
        }
        const ssize_t n = channel->readQueued(stream, buffer, sizeof buffer);
        if (n <= 0) return 0;
        if (stream == kStdout) {
            if (!quietOutput) {
                logger.infoStream()
                    << "remote stdout -> " << memchunk_log(buffer, static_cast<size_t>(n));
            }
            counter(static_cast<int>(n));
            pump_write(toOut, buffer, static_cast<int>(n));
        } else {
            if (!quietOutput) {
                logger.infoStream()
                    << "remote stderr -> " << memchunk_log(buffer, static_cast<size_t>(n));
            }
            pump_write(toErr, buffer, static_cast<int>(n));
        }
        return n;
    };

    Clock::time_point lastAlarm = started;
    for (;;) {
        // A stop request ends a silent command too, within one wait.
        checkProgramTerminated();
        if (channel->eof()) {
            // The library reports EOF only once no data is queued; whatever a future version
            // might still hold back is moved out before the command counts as finished.
            while (forward(kStdout) + forward(kStderr) > 0) {
            }
            channel->waitClosed();
            const int status = channel->exitStatus();
            logger.info("Execution finished with return code " + std::to_string(status));
            return status;
        }
        int wait = kWaitMillis;
        if (alarm_ != nullptr && !inAlarm_) {
            const Clock::time_point due = std::max(lastAlarm, alarmSet_) + kAlarmPeriod;
            if (Clock::now() >= due) {
                const AlarmRunning running(inAlarm_);
                alarm_->doAlarm();
                lastAlarm = Clock::now();
                continue;
            }
            wait = static_cast<int>(std::min<long long>(
                wait, std::chrono::ceil<std::chrono::milliseconds>(due - Clock::now()).count()));
        }
        session_->waitForInput(*channel, wait);
        const ssize_t moved = forward(kStdout) + forward(kStderr);
        if (moved == 0) session_->checkAlive();
    }
}

int Ssh::exec(const std::string& command, std::ostream& out, std::ostream& err, bool quietOutput,
              Counter& counter) {
    std::istream none(nullptr);
    return exec(command, none, out, err, quietOutput, false, counter);
}

void Ssh::get(std::ostream& out, const std::string& remotePath, Counter& counter) {
    logger.info("Reading data from the remote file " + remotePath);
    std::istream noInput(nullptr);
    std::ostringstream ignoredErrors;
    exec("cat " + sh_quote(remotePath), noInput, out, ignoredErrors, true, true, counter);
}

void Ssh::get(std::ostream& out, const std::string& remotePath) {
    get(out, remotePath, nullCounter);
}

void Ssh::get(const std::string& localPath, const std::string& remotePath, Counter& counter) {
    logger.info("Reading data to the file " + localPath);
    UmaskScope downloadsAre0640(026);
    std::ofstream out(localPath.c_str(), std::ios::out | std::ios::trunc);
    get(out, remotePath, counter);
}

void Ssh::get(const std::string& localPath, const std::string& remotePath) {
    get(localPath, remotePath, nullCounter);
}

void Ssh::put(std::istream& in, const std::string& remotePath) {
    logger.info("Writing data to the remote file " + remotePath);
    std::ostringstream ignoredOutput, ignoredErrors;
    exec("cat > " + sh_quote(remotePath), in, ignoredOutput, ignoredErrors, true, true,
         nullCounter);
}

void Ssh::put(const std::string& localPath, const std::string& remotePath) {
    logger.info("Writing file " + localPath + " to the remote host");
    std::ifstream in(localPath.c_str());
    put(in, remotePath);
}

}  // namespace tavik
