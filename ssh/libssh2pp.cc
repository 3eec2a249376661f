#include "ssh/libssh2pp.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <log4cpp/Category.hh>
#include <vector>

#include "utils/read_configuration.h"

namespace tavik {

void rku_libssh2_channel_free(LIBSSH2_CHANNEL* channel) { libssh2_channel_free(channel); }

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

// Restores the blocking mode that every user of a session but the reserve channel expects.
class NonBlockingScope {
  public:
    explicit NonBlockingScope(LIBSSH2_CHANNEL* channel) : channel_(channel) {
        libssh2_channel_set_blocking(channel_, 0);
    }
    ~NonBlockingScope() { libssh2_channel_set_blocking(channel_, 1); }
    NonBlockingScope(const NonBlockingScope&) = delete;
    NonBlockingScope& operator=(const NonBlockingScope&) = delete;

  private:
    LIBSSH2_CHANNEL* channel_;
};

bool contains(const std::vector<std::string>& words, const std::string& word) {
    return std::find(words.begin(), words.end(), word) != words.end();
}

}  // namespace

Channel::Channel(LIBSSH2_CHANNEL* channel) : channel_(channel) {}

Channel::~Channel() { logger.info("Closed"); }

bool Channel::hasInput() {
    // The library's own readiness tests (libssh2_poll, libssh2_poll_channel_read) give up at
    // the first queued message shorter than a channel message, such as the answer to a
    // keep-alive request, which nothing ever takes off the queue: from then on they answer
    // "ready" for ever and a wait on them spins. The count of queued data skips such messages.
    unsigned long queued = 0;
    libssh2_channel_window_read_ex(channel_.get(), &queued, nullptr);
    return queued > 0 || libssh2_channel_eof(channel_.get()) == 1;
}

bool Channel::transportAlive() {
    char unused;
    NonBlockingScope nonBlocking(channel_.get());
    // A read of nothing processes whatever has arrived and reports a broken transport.
    const ssize_t n = libssh2_channel_read_ex(channel_.get(), 0, &unused, 0);
    return n >= 0 || n == LIBSSH2_ERROR_EAGAIN;
}

// The library grants new room only once a quarter of the window is used up, so a quarter of it
// stays idle: on a long path, where the window alone sets the pace, that is a quarter of the
// speed. Granting what was read once it fills three packets keeps the whole window in flight, as
// other clients do; what the peer may send plus what waits unread never exceeds the window, so
// memory stays bounded. Blocking: a grant interrupted half-way would leave the library's count
// of the window wrong.
void Channel::reopenWindow() {
    const unsigned long kWorthAMessage = 3 * 32768;
    unsigned long unread = 0;
    unsigned long window = 0;
    const unsigned long open = libssh2_channel_window_read_ex(channel_.get(), &unread, &window);
    if (open + unread + kWorthAMessage >= window) return;
    const int granted =
        libssh2_channel_receive_window_adjust2(channel_.get(), window - open - unread, 1, nullptr);
    if (granted != 0) {
        logger.error("Cannot grant the remote host more room: " + std::to_string(granted));
        TAVIK_RAISE(SshConnectionFault);
    }
}

ssize_t Channel::readQueued(int stream, char* buffer, size_t size) {
    ssize_t n;
    {
        // A blocking read waits for data of its own stream; the library's readiness test for
        // standard error also answers yes for queued standard output, so a blocking read there
        // could wait for ever. Without blocking, "nothing now" comes back as EAGAIN.
        NonBlockingScope nonBlocking(channel_.get());
        n = libssh2_channel_read_ex(channel_.get(), stream, buffer, size);
    }
    if (n > 0) reopenWindow();
    if (n >= 0) return n;
    if (n == LIBSSH2_ERROR_EAGAIN) return 0;
    logger.error("Reading from the remote host failed: " + std::to_string(n));
    TAVIK_RAISE(SshConnectionFault);
}

Session::Session(int socket, bool noEncryption, bool compatibility)
    : session_(newSession()),
      socket_(socket),
      silenceLimit_(silenceLimit()),
      compatibility_(compatibility) {
    logger.info("Trying to start SSH session");
    // Bounds every blocking call, the start and the log-in included: each wait for the socket.
    libssh2_session_set_timeout(session_.get(), static_cast<long>(silenceLimit_) * 1000);
    bool started = true;
    if (noEncryption) {
        logger.info("Disabling SSH encryption");
        started = preferMethod(LIBSSH2_METHOD_CRYPT_CS, "none") &&
                  preferMethod(LIBSSH2_METHOD_CRYPT_SC, "none");
    }
    if (started && compatibility) {
        started = preferMethod(LIBSSH2_METHOD_KEX, "diffie-hellman-group1-sha1");
    }
    if (!started || libssh2_session_startup(session_.get(), socket) != 0) {
        const std::string reason = lastError();
        logger.error("SSH session was not started: " + reason);
        // A server that accepts the connection and then says nothing for the whole limit is
        // as lost as one that goes quiet later; another attempt would only wait as long again.
        if (libssh2_session_last_errno(session_.get()) == LIBSSH2_ERROR_TIMEOUT) {
            TAVIK_RAISE(SshConnectionFault);
        }
        TAVIK_RAISE(UnableToStartSshSession, reason);
    }
    const char* cipher = libssh2_session_methods(session_.get(), LIBSSH2_METHOD_CRYPT_SC);
    encryption_ = cipher ? cipher : "";
    logger.info("Selected " + encryption_ + " encryption method");
    logger.info("SSH session started successfully");
}

// A preference the library refuses (a build without the "none" cipher, say) fails the start:
// ignored, the session would run with what the user asked to avoid.
bool Session::preferMethod(int method, const char* preference) {
    return libssh2_session_method_pref(session_.get(), method, preference) == 0;
}

Session::~Session() {
    logger.info("SSH session finished");
    // Freeing a channel that is still open waits for the peer's close, and when that wait times
    // out, as it does with a peer gone silent, the library frees nothing at all. The connection
    // ends here anyway: shut both ways, the socket ends every such wait at once.
    shutdown(socket_, SHUT_RDWR);
    // The reserve channel left the session non-blocking, in which a free gives up at once.
    libssh2_session_set_blocking(session_.get(), 1);
    libssh2_session_set_timeout(session_.get(), 5000);
    reserve_.reset();
}

std::string Session::lastError() const {
    char* message = nullptr;
    int length = 0;
    libssh2_session_last_error(session_.get(), &message, &length, 0);
    return message ? std::string(message, static_cast<size_t>(length)) : std::string();
}

bool Session::connectionLost() const {
    switch (libssh2_session_last_errno(session_.get())) {
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

void Session::checkAlive() {
    using Clock = std::chrono::steady_clock;
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
    using Clock = std::chrono::steady_clock;
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeout);
    for (;;) {
        // A peer that vanished leaves the socket readable at its end; reading finds the loss.
        if (!channel.transportAlive()) {
            logger.error("Lost connection with the remote host");
            TAVIK_RAISE(SshConnectionFault);
        }
        if (channel.hasInput()) return true;
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0) return false;
        pollfd entry = {};
        entry.fd = socket_;
        entry.events = POLLIN;
        // A message the library could not finish sending goes out once the socket takes it.
        if (libssh2_session_block_directions(session_.get()) & LIBSSH2_SESSION_BLOCK_OUTBOUND) {
            entry.events |= POLLOUT;
        }
        // The status refresh arrives as a signal: the caller runs it before waiting again.
        if (::poll(&entry, 1, static_cast<int>(left)) < 0 && errno == EINTR) return false;
    }
}

unsigned Session::keepAliveInterval() const { return std::max(1u, silenceLimit_ / 4); }

unsigned Session::silenceLimit() {
    const char* configured = hmxConfGet("SSH_SILENCE_TIMEOUT");
    char* end = nullptr;
    const unsigned long seconds = configured ? std::strtoul(configured, &end, 10) : 0;
    return seconds > 0 && seconds < 86400 && end != nullptr && *end == '\0'
               ? static_cast<unsigned>(seconds)
               : 120;
}

void Session::authorize(const std::string& user, const std::string& password) {
    logger.info("Requested authorization for user " + user);
    logger.info("Getting userauth methods for user '" + user + "'");
    const char* list =
        libssh2_userauth_list(session_.get(), user.data(), static_cast<unsigned>(user.size()));
    const std::string allowed = list ? list : "";
    logger.info("Got the following allowed userauth methods: " + allowed);
    std::vector<std::string> methods;
    boost::split(methods, allowed, boost::is_any_of(","), boost::token_compress_on);

    // A server that accepts the "none" method answers the list request with success instead.
    bool authenticated = list == nullptr && libssh2_userauth_authenticated(session_.get());
    if (!authenticated && list == nullptr) raiseIfDisconnected();
    if (!authenticated && contains(methods, "password")) {
        logger.info("Trying 'password' authentication");
        authenticated = libssh2_userauth_password_ex(
                            session_.get(), user.data(), static_cast<unsigned>(user.size()),
                            password.data(), static_cast<unsigned>(password.size()), nullptr) == 0;
        if (authenticated) {
            logger.info("Authenticated succesfully");
        } else {
            raiseIfDisconnected();
        }
    }
    if (!authenticated && contains(methods, "keyboard-interactive")) {
        logger.info("Trying 'keyboard-interactive' authentication");
        void** abstract = libssh2_session_abstract(session_.get());
        *abstract = const_cast<void*>(static_cast<const void*>(&password));
        authenticated = libssh2_userauth_keyboard_interactive_ex(session_.get(), user.data(),
                                                                 static_cast<unsigned>(user.size()),
                                                                 &Session::userauth_callback) == 0;
        *abstract = nullptr;
        if (authenticated) logger.info("Authenticated successfully");
    }
    if (!authenticated && connectionLost()) {
        // Not the credentials' fault: the answer never came.
        logger.error("Lost connection with the remote host during authentication: " + lastError());
        TAVIK_RAISE(SshConnectionFault);
    }
    if (!authenticated) {
        logger.error("Authentication failed");
        TAVIK_RAISE(SshAuthorizationFailed);
    }
    // Four requests per silence limit: one lost answer does not end the connection. Not before
    // the log-in: a server refuses requests from a client that has not logged in yet.
    libssh2_keepalive_config(session_.get(), 1, keepAliveInterval());
    if (compatibility_) {
        openReserveChannel();
    }
}

void Session::raiseIfDisconnected() {
    // A connection lost on the way says nothing about the password.
    if (connectionLost()) {
        logger.error("Connection lost during authentication: " + lastError());
        TAVIK_RAISE(SshConnectionFault);
    }
}

void Session::openReserveChannel() {
    logger.info("Create a reserve channel");
    reserve_.reset(new Channel(libssh2_channel_open_ex(
        session_.get(), "session", sizeof("session") - 1, 65536, 16384, nullptr, 0)));
    libssh2_channel_set_blocking(reserve_->get(), 0);
    // Only the open channel matters; whatever the request answers, the channel stays unused.
    libssh2_channel_process_startup(reserve_->get(), "exec", sizeof("exec") - 1, "cat",
                                    sizeof("cat") - 1);
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
