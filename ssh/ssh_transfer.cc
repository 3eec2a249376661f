#include "ssh/ssh_transfer.h"

#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <fstream>
#include <log4cpp/Category.hh>
#include <log4cpp/CategoryStream.hh>
#include <sstream>

#include "commons/socket.h"
#include "ssh/libssh2pp.h"
#include "ssh/shell_quote.h"

namespace tavik {

log4cpp::Category& Ssh::logger = log4cpp::Category::getInstance("p.Ssh");
Ssh::NullCounter Ssh::nullCounter;

Ssh::Counter::~Counter() = default;

namespace {

// A large window keeps the server sending while earlier data is still being written out; the
// library holds at most one window of unread data, so memory stays bounded.
const unsigned kExecWindow = 2 * 1024 * 1024;
const unsigned kExecPacket = 32768;
// Keep-alive requests fall due at intervals of a second or more.
const int kWaitMillis = 1000;
const int kStdout = 0;
const int kStderr = 1;

void freeText(char* text) { free(text); }

// Texts that the library allocated for the caller.
typedef Handle<char*, freeText> LibraryText;

// 128 plus the number of the signal that ended the command, as shells report it; -1 if the
// command was not ended by a signal.
int signalStatus(LIBSSH2_CHANNEL* channel) {
    char* name = nullptr;
    size_t length = 0;
    if (libssh2_channel_get_exit_signal(channel, &name, &length, nullptr, nullptr, nullptr,
                                        nullptr) != 0 ||
        name == nullptr) {
        return -1;
    }
    const LibraryText owned(name);
    const std::string signal(name, length);
    for (int number = 1; number < NSIG; ++number) {
        const char* abbreviation = sigabbrev_np(number);
        if (abbreviation != nullptr && signal == abbreviation) return 128 + number;
    }
    return 255;
}

}  // namespace

Ssh::Ssh() : alarm_(nullptr) {}

Ssh::Ssh(const std::string& host, const std::string& user, const std::string& password,
         bool noEncryption, unsigned short port)
    : alarm_(nullptr) {
    connect(host, port);
    try {
        session_.reset(new libssh2pp::Session(socket_->descriptor(), noEncryption, false));
    } catch (const Exc<&UnableToStartSshSession>&) {
        logger.info("Attempt to start SSH session in a 'compatibility' mode");
        socket_.reset();
        connect(host, port);
        session_.reset(new libssh2pp::Session(socket_->descriptor(), noEncryption, true));
    }
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

LIBSSH2_CHANNEL* Ssh::openChannel() {
    LIBSSH2_CHANNEL* channel = libssh2_channel_open_ex(
        session_->get(), "session", sizeof("session") - 1, kExecWindow, kExecPacket, nullptr, 0);
    if (channel == nullptr) raiseIfConnectionLost();
    return channel;
}

void Ssh::raiseIfConnectionLost() {
    if (!session_->connectionLost()) return;
    logger.error("Lost connection with the remote host: " + session_->lastError());
    TAVIK_RAISE(SshConnectionFault);
}

void Ssh::connect(const std::string& host, unsigned short port) {
    socket_.reset(new Socket(::socket(AF_INET, SOCK_STREAM, 0)));
    Socket::logger.info("Socket created");
    socket_->connect(host, static_cast<short>(port));
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
    logger.info("Executing " + command + " on the remote host");
    logger.info("Opening SSH channel for command '" + command + "'");
    libssh2pp::Channel channel(openChannel());
    libssh2_channel_set_blocking(channel.get(), 1);
    if (libssh2_channel_process_startup(channel.get(), "exec", sizeof("exec") - 1, command.data(),
                                        static_cast<unsigned>(command.size())) != 0) {
        raiseIfConnectionLost();
        // Without a command nothing would ever end the channel, and the wait below with it.
        logger.error("The remote host refused to run the command: " + session_->lastError());
        TAVIK_RAISE(SshUnknown);
    }

    IOStreamReadChannel input(in);
    SshChannelWriteChannel toRemote(channel);
    if (quietInput) {
        pump(input, toRemote);
    } else {
        pump_with_log(input, toRemote, *this);
    }
    if (libssh2_channel_send_eof(channel.get()) < 0) {
        const std::string reason = session_->lastError();
        logger.error("Unable to send EOF to SSH channel: " + reason);
        TAVIK_RAISE(UnableToSendEof, reason);
    }

    IOStreamWriteChannel toOut(out);
    IOStreamWriteChannel toErr(err);
    char buffer[65536];
    // Moves one chunk of what is already queued for `stream`; the count moved, 0 for none.
    auto forward = [&](int stream) -> ssize_t {
        const ssize_t n = channel.readQueued(stream, buffer, sizeof buffer);
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

    for (;;) {
        if (libssh2_channel_eof(channel.get())) {
            // The library reports EOF only once no data is queued; whatever a future version
            // might still hold back is moved out before the command counts as finished.
            while (forward(kStdout) + forward(kStderr) > 0) {
            }
            if (libssh2_channel_wait_closed(channel.get()) < 0) {
                logger.error("Lost connection with the remote host: " + session_->lastError());
                TAVIK_RAISE(SshConnectionFault);
            }
            int status = signalStatus(channel.get());
            if (status < 0) status = libssh2_channel_get_exit_status(channel.get());
            logger.info("Execution finished with return code " + std::to_string(status));
            return status;
        }
        if (Alarm* alarm = alarm_.load()) {
            alarm->doAlarm();
        }
        session_->waitForInput(channel, kWaitMillis);
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

namespace {

// Sets the process umask for one scope.
class UmaskScope {
  public:
    explicit UmaskScope(mode_t mask) : previous_(umask(mask)) {}
    ~UmaskScope() { umask(previous_); }
    UmaskScope(const UmaskScope&) = delete;
    UmaskScope& operator=(const UmaskScope&) = delete;

  private:
    mode_t previous_;
};

}  // namespace

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
