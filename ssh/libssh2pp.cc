#include "ssh/libssh2pp.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>

#include <algorithm>
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <exception>
#include <log4cpp/Category.hh>
#include <vector>

#include "commons/checksum.h"
#include "utils/read_configuration.h"

namespace tavik {
namespace libssh2pp {

log4cpp::Category& Channel::logger = log4cpp::Category::getInstance("p.libssh2pp.Channel");
log4cpp::Category& Session::logger = log4cpp::Category::getInstance("p.libssh2pp.Session");

namespace {

// The library's global state, set up once per process before the first session.
LIBSSH2_SESSION* newSession() {
    static const int initialised = libssh2_init(0);
    if (initialised != 0) {
        Session::logger.error("SSH library cannot be initialised");
        TAVIK_RAISE(UnableToStartSshSession, "SSH library cannot be initialised");
    }
    return libssh2_session_init_ex(nullptr, nullptr, nullptr, nullptr);
}

// Releases what the library allocated for the caller.
struct LibraryFree {
    LIBSSH2_SESSION* session;
    void operator()(const void* memory) const { libssh2_free(session, const_cast<void*>(memory)); }
};

bool contains(const std::vector<std::string>& words, const std::string& word) {
    return std::find(words.begin(), words.end(), word) != words.end();
}

// The one list of the library's codes that mean the connection itself is gone.
bool isConnectionLoss(int code) {
    switch (code) {
        case LIBSSH2_ERROR_TIMEOUT:
        case LIBSSH2_ERROR_SOCKET_SEND:
        case LIBSSH2_ERROR_SOCKET_RECV:
        case LIBSSH2_ERROR_SOCKET_DISCONNECT:
        case LIBSSH2_ERROR_SOCKET_TIMEOUT:
            return true;
        default:
            return false;
    }
}

// A whole number of seconds from the product configuration, or `fallback` when it is missing or
// not a number from 1 to a day.
unsigned secondsSetting(const char* name, unsigned fallback) {
    const char* configured = hmxConfGet(name);
    char* end = nullptr;
    const unsigned long seconds = configured ? std::strtoul(configured, &end, 10) : 0;
    return seconds > 0 && seconds < 86400 && end != nullptr && *end == '\0'
               ? static_cast<unsigned>(seconds)
               : fallback;
}

}  // namespace

Channel::Channel(Session& session, LIBSSH2_CHANNEL* channel)
    : session_(session), channel_(channel) {
    if (channel_ == nullptr) {
        TAVIK_RAISE(InvalidHandle);
    }
}

Channel::~Channel() {
    logger.info("Closed");
    // A command abandoned by a failure or a stop is not waited for: one attempt, and the session
    // frees whatever is left at its end.
    if (std::uncaught_exceptions() > 0) {
        libssh2_channel_free(channel_);
        return;
    }
    try {
        session_.complete([this] { return libssh2_channel_free(channel_); },
                          Clock::now() + std::chrono::seconds(5));
    } catch (const std::exception&) {
        // The peer did not confirm the close in time; the session frees the channel at its end.
    }
}

bool Channel::exec(const std::string& command) {
    const int rc = session_.complete([&] {
        return libssh2_channel_process_startup(channel_, "exec", sizeof("exec") - 1, command.data(),
                                               static_cast<unsigned>(command.size()));
    });
    if (rc != 0) session_.raiseIfConnectionLost("starting a remote command");
    return rc == 0;
}

ssize_t Channel::write(const char* buffer, size_t size) {
    const ssize_t n =
        session_.complete([&] { return libssh2_channel_write_ex(channel_, 0, buffer, size); });
    if (n < 0) session_.raiseIfConnectionLost("writing to the remote host");
    return n < 0 ? -1 : n;
}

bool Channel::sendEof() {
    const int rc = session_.complete([this] { return libssh2_channel_send_eof(channel_); });
    if (rc != 0) session_.raiseIfConnectionLost("sending EOF");
    return rc == 0;
}

bool Channel::eof() { return libssh2_channel_eof(channel_) == 1; }

void Channel::waitClosed() {
    if (session_.complete([this] { return libssh2_channel_wait_closed(channel_); }) != 0) {
        session_.raiseIfConnectionLost("waiting for the end of a remote command");
        logger.error("The remote host did not close the channel: " + session_.lastError());
        TAVIK_RAISE(SshConnectionFault);
    }
}

int Channel::exitStatus() {
    char* name = nullptr;
    size_t length = 0;
    const int rc = libssh2_channel_get_exit_signal(channel_, &name, &length, nullptr, nullptr,
                                                   nullptr, nullptr);
    const std::unique_ptr<char, LibraryFree> owned(name, LibraryFree{session_.get()});
    if (rc != 0 || name == nullptr) return libssh2_channel_get_exit_status(channel_);
    const std::string signal(name, length);
    // As shells report it.
    for (int number = 1; number < NSIG; ++number) {
        const char* abbreviation = sigabbrev_np(number);
        if (abbreviation != nullptr && signal == abbreviation) return 128 + number;
    }
    return 255;
}

bool Channel::hasInput() {
    // The library's own readiness tests (libssh2_poll, libssh2_poll_channel_read) give up at
    // the first queued message shorter than a channel message, such as the answer to a
    // keep-alive request, which nothing ever takes off the queue: from then on they answer
    // "ready" for ever and a wait on them spins. The count of queued data skips such messages.
    unsigned long queued = 0;
    libssh2_channel_window_read_ex(channel_, &queued, nullptr);
    return queued > 0 || eof();
}

bool Channel::transportAlive() {
    char unused;
    // A read of nothing processes whatever has arrived and reports a broken transport.
    const ssize_t n = libssh2_channel_read_ex(channel_, 0, &unused, 0);
    return n >= 0 || n == LIBSSH2_ERROR_EAGAIN;
}

// The library grants new room only once a quarter of the window is used up, so a quarter of it
// stays idle: on a long path, where the window alone sets the pace, that is a quarter of the
// speed. Granting what was read once it fills three packets keeps the whole window in flight, as
// other clients do; what the peer may send plus what waits unread never exceeds the window, so
// memory stays bounded. Completed before anything else: a grant left half-way would leave the
// library's count of the window wrong.
void Channel::reopenWindow() {
    const unsigned long kWorthAMessage = 3 * 32768;
    unsigned long unread = 0;
    unsigned long window = 0;
    const unsigned long open = libssh2_channel_window_read_ex(channel_, &unread, &window);
    if (open + unread + kWorthAMessage >= window) return;
    const int granted = session_.complete([&] {
        return libssh2_channel_receive_window_adjust2(channel_, window - open - unread, 1, nullptr);
    });
    if (granted != 0) {
        session_.raiseIfConnectionLost("granting the remote host more room");
        logger.error("Cannot grant the remote host more room: " + session_.lastError());
        TAVIK_RAISE(SshConnectionFault);
    }
}

ssize_t Channel::readQueued(int stream, char* buffer, size_t size) {
    // Without waiting: the library's readiness test for standard error also answers yes for
    // queued standard output, so a wait for standard error could last for ever.
    const ssize_t n = libssh2_channel_read_ex(channel_, stream, buffer, size);
    if (n > 0) reopenWindow();
    if (n >= 0) return n;
    if (n == LIBSSH2_ERROR_EAGAIN) return 0;
    session_.raiseIfConnectionLost("reading from the remote host");
    logger.error("Reading from the remote host failed: " + session_.lastError());
    TAVIK_RAISE(SshConnectionFault);
}

Session::Session(int socket, bool noEncryption, bool compatibility, Clock::time_point deadline)
    : session_(newSession()),
      socket_(socket),
      silenceLimit_(silenceLimit()),
      deadline_(deadline),
      compatibility_(compatibility) {
    logger.info("Trying to start SSH session");
    libssh2_session_set_blocking(session_.get(), 0);
    if (noEncryption) preferNoEncryption();
    const char* kex = "diffie-hellman-group1-sha1";
    const bool preferred =
        !compatibility || libssh2_session_method_pref(session_.get(), LIBSSH2_METHOD_KEX, kex) == 0;
    // A handshake that fails, however it fails, is what the caller's compatibility retry is for;
    // only the deadline, which the retry could not meet either, ends the attempt as a fault.
    if (!preferred ||
        complete([&] { return libssh2_session_handshake(session_.get(), socket); }) != 0) {
        const std::string reason = lastError();
        logger.error("SSH session was not started: " + reason);
        TAVIK_RAISE(UnableToStartSshSession, reason);
    }
    const char* cipher = libssh2_session_methods(session_.get(), LIBSSH2_METHOD_CRYPT_SC);
    encryption_ = cipher ? cipher : "";
    logger.info("Selected " + encryption_ + " encryption method");
    logger.info("SSH session started successfully");
}

void Session::verifyHostKey(const std::string& host, unsigned short port,
                            const HostKeyPolicy& policy) {
    tavik::verifyHostKey(session_.get(), host, port, policy);
}

// Unencrypted transfers only save processor time, so a library or server without the "none"
// cipher is no reason to fail: the library's own ciphers stay in the preference after it.
void Session::preferNoEncryption() {
    logger.info("Disabling SSH encryption");
    const char** algorithms = nullptr;
    const int count =
        libssh2_session_supported_algs(session_.get(), LIBSSH2_METHOD_CRYPT_CS, &algorithms);
    const std::unique_ptr<const char*, LibraryFree> owned(algorithms, LibraryFree{session_.get()});
    const std::vector<std::string> supported(algorithms, algorithms + std::max(count, 0));
    if (!contains(supported, "none")) {
        logger.warn("The SSH library cannot disable encryption: the session stays encrypted");
        return;
    }
    std::string preference = "none";
    for (const std::string& cipher : supported) {
        if (cipher != "none") preference += "," + cipher;
    }
    for (int method : {LIBSSH2_METHOD_CRYPT_CS, LIBSSH2_METHOD_CRYPT_SC}) {
        libssh2_session_method_pref(session_.get(), method, preference.c_str());
    }
}

Session::~Session() {
    logger.info("SSH session finished");
    // Freeing a channel that is still open waits for the peer's close. The connection ends here
    // anyway: shut both ways, the socket ends every such wait at once, and the library, blocking
    // again for its own teardown (which gives up on a session that is not), waits for nothing.
    shutdown(socket_, SHUT_RDWR);
    reserve_.reset();
    libssh2_session_set_blocking(session_.get(), 1);
    libssh2_session_set_timeout(session_.get(), 5000);
}

std::string Session::lastError() const {
    char* message = nullptr;
    int length = 0;
    libssh2_session_last_error(session_.get(), &message, &length, 0);
    return message ? std::string(message, static_cast<size_t>(length)) : std::string();
}

void Session::raiseIfConnectionLost(const std::string& doing) const {
    if (!isConnectionLoss(libssh2_session_last_errno(session_.get()))) return;
    logger.error("Lost connection with the remote host while " + doing + ": " + lastError());
    TAVIK_RAISE(SshConnectionFault);
}

void Session::waitForSocket(Clock::time_point giveUp) {
    pollfd entry = {};
    entry.fd = socket_;
    const int directions = libssh2_session_block_directions(session_.get());
    if (directions & LIBSSH2_SESSION_BLOCK_INBOUND) entry.events |= POLLIN;
    if (directions & LIBSSH2_SESSION_BLOCK_OUTBOUND) entry.events |= POLLOUT;
    if (entry.events == 0) entry.events = POLLIN;
    const Clock::time_point silent = Clock::now() + std::chrono::seconds(silenceLimit_);
    giveUp = std::min(giveUp, connecting_ ? deadline_ : silent);
    for (;;) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(giveUp - Clock::now()).count();
        if (left <= 0) break;
        const int ready = ::poll(&entry, 1, static_cast<int>(std::min<long long>(left, INT_MAX)));
        if (ready > 0) return;
        if (ready < 0 && errno == EINTR) checkProgramTerminated();
        if (ready < 0 && errno != EINTR) {
            logger.error(std::string("Cannot wait for the remote host: ") + strerror(errno));
            TAVIK_RAISE(SshConnectionFault);
        }
    }
    if (connecting_ && Clock::now() >= deadline_) {
        logger.error("The remote host did not let us log in within " +
                     std::to_string(connectLimit()) + " seconds");
    } else {
        logger.error("The remote host stayed silent for " + std::to_string(silenceLimit_) +
                     " seconds");
    }
    TAVIK_RAISE(SshConnectionFault);
}

std::unique_ptr<Channel> Session::openChannel(unsigned window, unsigned packet) {
    LIBSSH2_CHANNEL* channel = complete([&] {
        return libssh2_channel_open_ex(session_.get(), "session", sizeof("session") - 1, window,
                                       packet, nullptr, 0);
    });
    if (channel == nullptr) {
        raiseIfConnectionLost("opening a channel");
        logger.error("The remote host refused a channel: " + lastError());
    }
    return std::unique_ptr<Channel>(new Channel(*this, channel));
}

void Session::checkAlive() {
    const Clock::time_point now = Clock::now();
    tcp_info info = {};
    socklen_t size = sizeof info;
    // The kernel knows when the last byte arrived, whichever packet carried it.
    if (awaitingAnswer_ && getsockopt(socket_, IPPROTO_TCP, TCP_INFO, &info, &size) == 0 &&
        now - std::chrono::milliseconds(info.tcpi_last_data_recv) > requestSent_) {
        awaitingAnswer_ = false;
    }
    // Nothing at all for the limit and one more keep-alive interval: whatever became of the
    // requests, the peer is gone.
    const bool silent = getsockopt(socket_, IPPROTO_TCP, TCP_INFO, &info, &size) == 0 &&
                        info.tcpi_last_data_recv >= 1000 * (silenceLimit_ + keepAliveInterval());
    if (silent || (awaitingAnswer_ && now - requestSent_ > std::chrono::seconds(silenceLimit_))) {
        logger.error("The remote host left a request unanswered for " +
                     std::to_string(silenceLimit_) + " seconds");
        TAVIK_RAISE(SshConnectionFault);
    }
    // A request the socket cannot take now would stay half-sent in the library, which then
    // refuses to send anything else; the next check sends it.
    if (libssh2_session_block_directions(session_.get()) & LIBSSH2_SESSION_BLOCK_OUTBOUND) return;
    int nextInSeconds = 0;
    if (libssh2_keepalive_send(session_.get(), &nextInSeconds) != 0) {
        logger.error("Cannot send to the remote host: " + lastError());
        TAVIK_RAISE(SshConnectionFault);
    }
    // A full interval to go means a request went out just now.
    if (!awaitingAnswer_ && nextInSeconds == static_cast<int>(keepAliveInterval())) {
        awaitingAnswer_ = true;
        requestSent_ = now;
    }
}

bool Session::waitForInput(Channel& channel, int timeout) {
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeout);
    for (;;) {
        // A peer that vanished leaves the socket readable at its end; reading finds the loss.
        if (!channel.transportAlive()) {
            raiseIfConnectionLost("waiting for a remote command");
            logger.error("Lost connection with the remote host: " + lastError());
            TAVIK_RAISE(SshConnectionFault);
        }
        if (channel.hasInput()) return true;
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0) return false;
        pollfd entry = {};
        entry.fd = socket_;
        entry.events = POLLIN;
        // A message the library could not finish sending goes out once the socket takes it.
        if (libssh2_session_block_directions(session_.get()) & LIBSSH2_SESSION_BLOCK_OUTBOUND) {
            entry.events |= POLLOUT;
        }
        if (::poll(&entry, 1, static_cast<int>(left)) < 0 && errno != EINTR) {
            logger.error(std::string("Cannot wait for the remote host: ") + strerror(errno));
            TAVIK_RAISE(SshConnectionFault);
        }
    }
}

unsigned Session::keepAliveInterval() const { return std::max(1u, silenceLimit_ / 4); }

unsigned Session::silenceLimit() { return secondsSetting("SSH_SILENCE_TIMEOUT", 120); }

unsigned Session::connectLimit() { return secondsSetting("SSH_CONNECT_TIMEOUT", 30); }

void Session::authorize(const std::string& user, const std::string& password) {
    logger.info("Requested authorization for user " + user);
    logger.info("Getting userauth methods for user '" + user + "'");
    const char* list = complete([&] {
        return libssh2_userauth_list(session_.get(), user.data(),
                                     static_cast<unsigned>(user.size()));
    });
    const std::string allowed = list ? list : "";
    logger.info("Got the following allowed userauth methods: " + allowed);
    std::vector<std::string> methods;
    boost::split(methods, allowed, boost::is_any_of(","), boost::token_compress_on);

    // A server that accepts the "none" method answers the list request with success instead.
    bool authenticated = list == nullptr && libssh2_userauth_authenticated(session_.get());
    // A connection lost on the way says nothing about the password.
    if (!authenticated && list == nullptr) raiseIfConnectionLost("asking for the log-in methods");
    if (!authenticated && contains(methods, "password")) {
        logger.info("Trying 'password' authentication");
        authenticated = complete([&] {
                            return libssh2_userauth_password_ex(
                                session_.get(), user.data(), static_cast<unsigned>(user.size()),
                                password.data(), static_cast<unsigned>(password.size()), nullptr);
                        }) == 0;
        if (authenticated) {
            logger.info("Authenticated succesfully");
        } else {
            raiseIfConnectionLost("logging in");
        }
    }
    if (!authenticated && contains(methods, "keyboard-interactive")) {
        logger.info("Trying 'keyboard-interactive' authentication");
        void** abstract = libssh2_session_abstract(session_.get());
        *abstract = const_cast<void*>(static_cast<const void*>(&password));
        authenticated = complete([&] {
                            return libssh2_userauth_keyboard_interactive_ex(
                                session_.get(), user.data(), static_cast<unsigned>(user.size()),
                                &Session::userauth_callback);
                        }) == 0;
        *abstract = nullptr;
        if (authenticated) logger.info("Authenticated successfully");
    }
    if (!authenticated) {
        raiseIfConnectionLost("logging in");
        logger.error("Authentication failed");
        TAVIK_RAISE(SshAuthorizationFailed);
    }
    // Four requests per silence limit: one lost answer does not end the connection. Not before
    // the log-in: a server refuses requests from a client that has not logged in yet.
    libssh2_keepalive_config(session_.get(), 1, keepAliveInterval());
    if (compatibility_) {
        logger.info("Create a reserve channel");
        reserve_ = openChannel(65536, 16384);
        // Only the open channel matters; whatever the request answers, the channel stays unused.
        reserve_->exec("cat");
    }
    connecting_ = false;
}

void Session::userauth_callback(const char* /*name*/, int /*name_len*/, const char* /*instruction*/,
                                int /*instruction_len*/, int num_prompts,
                                const LIBSSH2_USERAUTH_KBDINT_PROMPT* /*prompts*/,
                                LIBSSH2_USERAUTH_KBDINT_RESPONSE* responses, void** abstract) {
    logger.info("'keyboard-interactive' callback requested.");
    logger.info("Filling " + std::to_string(num_prompts) + " responses with the password");
    const std::string& password = *static_cast<const std::string*>(*abstract);
    for (int i = 0; i < num_prompts; ++i) {
        // The library releases each response with free().
        responses[i].text = static_cast<char*>(std::malloc(password.size()));
        responses[i].length = 0;
        if (responses[i].text != nullptr && !password.empty()) {
            std::memcpy(responses[i].text, password.data(), password.size());
            responses[i].length = static_cast<unsigned>(password.size());
        }
    }
}

}  // namespace libssh2pp
}  // namespace tavik
